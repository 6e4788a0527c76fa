// SPDX-License-Identifier: Apache-2.0
#include "gateway/cli/copy_commands.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "base/durable_rename.h"
#include "base/scope_guard.h"
#include "gateway/app/part_settings.h"
#include "gateway/cli/ask_gateway.h"
#include "gateway/cli/control_client.h"
#include "gateway/cli/run.h"

namespace runelgw {
namespace {

constexpr std::size_t kPiece = 262144;

// Returns 0 or an errno value.
int copyAll(int from, int to) {
  std::vector<char> piece(kPiece);
  while (true) {
    const ssize_t count = ::read(from, piece.data(), piece.size());
    if (count <= 0) {
      return count == 0 ? 0 : errno;
    }
    for (ssize_t done = 0; done < count;) {
      const ssize_t written =
          ::write(to, piece.data() + done, static_cast<std::size_t>(count - done));
      if (written < 0) {
        return errno;
      }
      done += written;
    }
  }
}

int failAt(const std::string& path, int number) {
  return fail(path + ": " + std::strerror(number));
}

// The name and its directory.
std::pair<std::string, std::string> split(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return {".", path};
  }
  return {slash == 0 ? "/" : path.substr(0, slash), path.substr(slash + 1)};
}

// A copy beside the final file, which gets its name when it is complete.
class NewFile {
 public:
  explicit NewFile(const std::string& path) : path_(path), partial_(path + ".partial") {
    const auto [directory, name] = split(path);
    name_ = name;
    directory_.reset(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    (void)::unlink(partial_.c_str());
    file_.reset(::open(partial_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  }
  ~NewFile() {
    if (!complete_ && directory_.valid()) {
      (void)::unlinkat(directory_.get(), (name_ + ".partial").c_str(), 0);
    }
  }
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  [[nodiscard]] bool valid() const { return file_.valid() && directory_.valid(); }
  [[nodiscard]] int get() const { return file_.get(); }
  // Returns 0 or an errno value.
  int publish() {
    const zell::RenameResult result =
        zell::renameDurably(file_, directory_.get(), name_ + ".partial", name_);
    complete_ = result.step == zell::RenameStep::done;
    return complete_ ? 0 : result.error;
  }

 private:
  std::string path_;
  std::string partial_;
  std::string name_;
  zell::UniqueFd directory_;
  zell::UniqueFd file_;
  bool complete_ = false;
};

int backUpTo(int to, const std::string& name, const Settings& settings) {
  const std::unique_ptr<LocalSession> session = openSession(settings);
  zell::UniqueFd copy;
  if (!session || !askGateway(*session, {{"command", "backup"}}, &copy)) {
    return kFailed;
  }
  if (!copy.valid()) {
    return fail("the gateway sent no copy");
  }
  const int number = copyAll(copy.get(), to);
  return number == 0 ? kDone : failAt(name, number);
}

// Asks a running gateway to restart with the copy @p from.
int restoreRunning(int from, const std::string& name, const Settings& settings) {
  const std::unique_ptr<LocalSession> session = openSession(settings);
  zell::UniqueFd place;
  if (!session || !askGateway(*session, {{"command", "restore"}}, &place)) {
    return kFailed;
  }
  const int number = copyAll(from, place.get());
  if (number != 0) {
    return failAt(name, number);
  }
  place.reset();
  return askGateway(*session, {{"command", "restore-commit"}}) ? kDone : kFailed;
}

}  // namespace

int backUp(const CommandLine& line, const Settings& settings) {
  if (line.file == "-") {
    return backUpTo(STDOUT_FILENO, "standard output", settings);
  }
  NewFile file(line.file);
  if (!file.valid()) {
    return failAt(line.file, errno);
  }
  if (const int status = backUpTo(file.get(), line.file, settings); status != kDone) {
    return status;
  }
  const int number = file.publish();
  return number == 0 ? kDone : failAt(line.file, number);
}

int restore(const CommandLine& line, const Settings& settings) {
  if (!usesFile(settings)) {
    return fail("only a SQLite database can be restored: use the tools of PostgreSQL");
  }
  const runel::Result<std::optional<ControlClient>> running =
      ControlClient::connect(settings.service.controlSocket);
  if (!running) {
    return fail(running.error().text());
  }
  if (!*running) {
    const runel::Result<void> restored = restoreDatabase(storeSettings(settings), line.file);
    return restored ? kDone : fail(restored.error().text());
  }
  const zell::UniqueFd file(::open(line.file.c_str(), O_RDONLY | O_CLOEXEC));
  return file.valid() ? restoreRunning(file.get(), line.file, settings) : failAt(line.file, errno);
}

}  // namespace runelgw
