// SPDX-License-Identifier: Apache-2.0
#include "gateway/cli/local_session.h"

#include <cerrno>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <utility>

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include "gateway/app/local_commands.h"
#include "gateway/app/part_settings.h"
#include "gateway/auth/auth.h"
#include "gateway/cli/control_client.h"
#include "gateway/store/sql_store.h"

namespace runelgw {
namespace {

/// A running gateway.
class RemoteSession : public LocalSession {
 public:
  explicit RemoteSession(ControlClient client) : client_(std::move(client)) {}

  runel::Result<ControlAnswer> ask(const std::string& line) override { return client_.ask(line); }

 private:
  ControlClient client_;
};

/// The calls that the threads of the store hand over.
class CallQueue {
 public:
  void post(std::function<void()> call) {
    const std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back(std::move(call));
    changed_.notify_one();
  }
  // Waits for the next one and runs it.
  void runOne() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return !calls_.empty(); });
    const std::function<void()> call = std::move(calls_.front());
    calls_.pop_front();
    lock.unlock();
    call();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::function<void()>> calls_;
};

/// This process.
class OwnSession : public LocalSession {
 public:
  explicit OwnSession(const Settings& settings)
      : settings_(settings),
        store_(storeSettings(settings),
               [this](std::function<void()> call) { queue_.post(std::move(call)); }),
        auth_(authSettings(settings), store_) {}
  ~OwnSession() override { store_.close(); }

  runel::Result<void> open() {
    const runel::Result<Snapshot> snapshot = store_.open();
    if (!snapshot) {
      return snapshot.error();
    }
    auth_.load(snapshot->tokens, snapshot->nextToken);
    LocalCommands::Surroundings surroundings;
    surroundings.stateDirectory = settings_.service.stateDirectory;
    surroundings.log = [](const std::string&) {};
    commands_ = std::make_unique<LocalCommands>(auth_, store_, std::move(surroundings));
    return {};
  }

  runel::Result<ControlAnswer> ask(const std::string& line) override {
    std::optional<ControlAnswer> answered;
    commands_->run(line, ::getuid(),
                   [&answered](ControlAnswer answer) { answered = std::move(answer); });
    while (!answered) {
      queue_.runOne();
    }
    return *std::move(answered);
  }

 private:
  const Settings settings_;
  CallQueue queue_;
  SqlStore store_;
  Auth auth_;
  std::unique_ptr<LocalCommands> commands_;
};

runel::Result<void> becomeOwner(const std::string& directory) {
  struct stat status {};
  if (::stat(directory.c_str(), &status) != 0) {
    return runel::Error::local(directory, errno);
  }
  if (::geteuid() != 0 || status.st_uid == 0) {
    return {};
  }
  if (::setgroups(1, &status.st_gid) != 0 || ::setgid(status.st_gid) != 0 ||
      ::setuid(status.st_uid) != 0) {
    return runel::Error::local("the user that owns " + directory, errno);
  }
  return {};
}

}  // namespace

runel::Result<std::unique_ptr<LocalSession>> LocalSession::open(const Settings& settings) {
  runel::Result<std::optional<ControlClient>> client =
      ControlClient::connect(settings.service.controlSocket);
  if (!client) {
    return client.error();
  }
  if (*client) {
    return std::unique_ptr<LocalSession>(
        std::make_unique<RemoteSession>(*std::move(*std::move(client))));
  }
  if (const auto became = becomeOwner(settings.service.stateDirectory); !became) {
    return became.error();
  }
  auto session = std::make_unique<OwnSession>(settings);
  if (const runel::Result<void> opened = session->open(); !opened) {
    return opened.error();
  }
  return std::unique_ptr<LocalSession>(std::move(session));
}

}  // namespace runelgw
