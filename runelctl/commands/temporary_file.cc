// SPDX-License-Identifier: Apache-2.0
#include "commands/temporary_file.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "output/style.h"

namespace runelctl {
namespace {

constexpr std::size_t kSpoolPart = 65536;
constexpr mode_t kSpoolMode = 0666;
constexpr char kInputName[] = "standard input";

// Holds SIGINT, SIGTERM and SIGHUP back until its end.
class HeldSignals {
 public:
  HeldSignals() {
    sigset_t held;
    sigemptyset(&held);
    sigaddset(&held, SIGINT);
    sigaddset(&held, SIGTERM);
    sigaddset(&held, SIGHUP);
    sigprocmask(SIG_BLOCK, &held, &before_);
    descriptor_.reset(signalfd(-1, &held, SFD_CLOEXEC | SFD_NONBLOCK));
  }
  ~HeldSignals() { sigprocmask(SIG_SETMASK, &before_, nullptr); }
  HeldSignals(const HeldSignals&) = delete;
  HeldSignals& operator=(const HeldSignals&) = delete;

  /// Becomes readable when a signal has arrived.
  [[nodiscard]] int descriptor() const { return descriptor_.get(); }

 private:
  sigset_t before_{};
  zell::UniqueFd descriptor_;
};

// Returns 0 at the end of the input, or an errno value: EINTR for a signal.
int copyInput(int to, int signals) {
  std::string part(kSpoolPart, '\0');
  while (true) {
    pollfd ready[] = {{STDIN_FILENO, POLLIN, 0}, {signals, POLLIN, 0}};
    if (poll(ready, 2, -1) < 0) {
      if (errno != EINTR) {  // a handled signal
        return errno;
      }
      continue;
    }
    if ((ready[1].revents & POLLIN) != 0) {
      return EINTR;
    }
    const ssize_t got = read(STDIN_FILENO, part.data(), part.size());
    if (got == 0) {
      return 0;
    }
    if (got < 0 && errno != EINTR && errno != EAGAIN) {
      return errno;
    }
    if (got > 0 && !writeAll(to, {part.data(), static_cast<std::size_t>(got)})) {
      return errno;
    }
  }
}

void removeAll(const std::string& directory) {
  try {
    std::error_code ignored;
    std::filesystem::remove_all(directory, ignored);
  } catch (const std::bad_alloc&) {
    // What remains is private.
  }
}

}  // namespace

runel::Result<std::shared_ptr<TemporaryFile>> TemporaryFile::create(const std::string& name) {
  const char* chosen = std::getenv("TMPDIR");
  std::string directory =
      std::string(chosen != nullptr && *chosen == '/' ? chosen : "/tmp") + "/runelctl-XXXXXX";
  if (mkdtemp(directory.data()) == nullptr) {
    return runel::Error::local(directory, errno);
  }
  return std::make_shared<TemporaryFile>(directory, name);
}

TemporaryFile::~TemporaryFile() {
  (void)unlink(path_.c_str());  // without an allocation: the lack of memory may be the reason
  if (rmdir(directory_.c_str()) != 0 && errno == ENOTEMPTY) {
    removeAll(directory_);
  }
}

runel::Result<std::shared_ptr<TemporaryFile>> spoolInput(const std::string& name) {
  const HeldSignals signals;  // outlives the file
  auto file = TemporaryFile::create(name);
  if (!file) {
    return file;
  }
  const std::string path = (*file)->path();
  const zell::UniqueFd to(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kSpoolMode));
  if (!to.valid()) {
    return runel::Error::local(path, errno);
  }
  const int error = copyInput(to.get(), signals.descriptor());
  if (error == EINTR) {
    return runel::Error(runel::Kind::local, runel::Cause::cancelled, "interrupted");
  }
  if (error != 0) {
    return runel::Error::local(kInputName, error);
  }
  return file;
}

}  // namespace runelctl
