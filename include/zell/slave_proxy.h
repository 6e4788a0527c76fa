// SPDX-License-Identifier: Apache-2.0
// The operations on the device that a connection can request.
#ifndef ZELL_SLAVE_PROXY_H_
#define ZELL_SLAVE_PROXY_H_

#include <cstdint>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <zell/device_type.h>
#include <zell/slave_status.h>

struct stat;

namespace zell {

class FileTreeWalker;
class ProgramRunner;

/// Executes device operations. Each connection has a separate instance.
///
/// Every operation stores its outcome in the proxy's result status, which the next reply carries. A
/// boolean return value says only whether the operation succeeded. Bad input never throws: a zero
/// byte in a path, key, program or argument is a failure with EINVAL that changes nothing.
class SlaveProxy {
 public:
  SlaveProxy();
  virtual ~SlaveProxy();
  SlaveProxy(const SlaveProxy&) = delete;
  SlaveProxy& operator=(const SlaveProxy&) = delete;

  /// Stops the background program of this proxy: sends SIGTERM to its process group, then SIGKILL
  /// after 2 s if it still runs. Blocks until the program is reaped. Fails with ESRCH when no
  /// program is running.
  virtual bool kill() = 0;
  /// Waits until the background program has ended and takes its exit as the outcome. Blocks without
  /// limit. Fails with ECHILD when there is no background program.
  virtual bool wait() = 0;
  /// The device's identifier: the first word of /etc/machine-id, otherwise gethostid(3) in
  /// hexadecimal.
  virtual std::string hostId() = 0;
  virtual DeviceType_t deviceType() = 0;
  virtual bool fileExists(const std::string& path) = 0;
  /// access(2) with @p mode.
  virtual bool access(const std::string& path, unsigned mode) = 0;
  /// stat(2). Leaves @p st unchanged on failure.
  virtual bool stat(const std::string& path, struct stat& st) = 0;
  /// lstat(2). Leaves @p st unchanged on failure.
  virtual bool lstat(const std::string& path, struct stat& st) = 0;
  virtual bool unlink(const std::string& path) = 0;
  /// Adds execute permission for user, group and others.
  virtual bool chmodx(const std::string& path) = 0;
  /// The canonical absolute form of @p path. Empty on failure.
  virtual std::string realPath(const std::string& path) = 0;
  virtual bool rename(const std::string& from, const std::string& to) = 0;
  /// Appends the names in the directory @p path to @p entries, sorted by byte value, without `.`
  /// and `..`.
  virtual bool readDir(const std::string& path, std::vector<std::string>& entries) = 0;
  /// Makes the whole content of @p path the string of @p content. Opening never blocks. Fails with
  /// EFBIG when the content does not fit into a reply.
  virtual bool readFile(const std::string& path, std::istringstream& content) = 0;
  /// Replaces the content of @p path atomically. The new content is on disk when the call returns.
  virtual bool writeFile(const std::string& path, const std::ostringstream& data) = 0;
  /// Appends all of @p data to @p path, or nothing. The data is on disk when the call returns.
  virtual bool appendFile(const std::string& path, const std::ostringstream& data) = 0;
  /// Whether a process called @p name runs. Compares with its comm, its argv[0] and the last
  /// component of its argv[0].
  virtual bool processRunning(const std::string& name) = 0;
  /// Flushes all cached writes to disk and reboots. Returns when the reboot failed or has not
  /// happened yet.
  virtual bool reboot() = 0;
  /// The tree at @p path, or null when the path itself cannot be examined. The proxy keeps
  /// ownership: the walker lives until the next call or until the proxy is destroyed.
  virtual FileTreeWalker* walkTree(const std::string& path) = 0;
  /// Stores in @p blocks the number of blocks on @p path's file system that are free to
  /// unprivileged users.
  virtual bool freeBlocks(const std::string& path, std::uint64_t& blocks) = 0;
  /// Switches the two LEDs on (true) or off, and stops blinking.
  virtual bool changeLeds(bool first, bool second) = 0;

  // The operations above keep their slots in the virtual table: add new operations at its end.

  /// `readFile`, `writeFile` and `appendFile` without a stream, which would hold a second copy of a
  /// large file. Leaves @p content unchanged on failure.
  virtual bool readFile(const std::string& path, std::string& content) = 0;
  virtual bool writeFile(const std::string& path, std::string_view data) = 0;
  virtual bool appendFile(const std::string& path, std::string_view data) = 0;

  /// Runs @p argv without a shell and blocks the whole process until it returns. @p execParam is
  /// the time limit in seconds: above 0 waits at most that long, 0 waits without limit, below 0
  /// leaves the program running in the background and returns at once. Discards the previous
  /// background program. Returns 0 when the program was started and (unless in the background) has
  /// ended, with any exit status; ETIMEDOUT when it exceeded the limit; otherwise the errno value
  /// of the failed start.
  int exec(const std::vector<std::string>& argv, int execParam);
  /// Runs @p line, split at spaces and tabs, in the same way.
  int exec(const std::string& line, int execParam);
  /// Runs @p line with `/bin/sh -c`; limit and result as for `exec`.
  int system(const std::string& line, int limit);
  /// Standard output and standard error of the last program, in the order written, up to 16 MiB.
  /// Valid until the next program is started.
  [[nodiscard]] const std::string& output() const;
  /// Stores @p state as the update manager's state text under @p key, in the same way as
  /// `writeFile`. Fails with EINVAL when the key is not a plain file name.
  bool updateUmState(const std::string& key, const std::ostringstream& state);

  /// The outcome of the last operation.
  [[nodiscard]] const ResultStatus& resultStatus() const { return status_; }

 protected:
  friend class LedControl;

  /// Stores @p status as the outcome of the operation.
  void setResultStatus(const ResultStatus& status) const { status_ = status; }
  /// Stores the outcome of an operation that runs no program: success (@p error 0) or the failure
  /// with this errno value. Returns true for success.
  bool finish(int error) const;
  /// Switches the LEDs without changing the result status. Returns an errno value, 0 for success.
  int driveLeds(bool first, bool second) const;
  /// Stops blinking in the process's LED controller.
  static void endBlink();

  /// Runs the proxy's programs.
  [[nodiscard]] ProgramRunner& programs() { return *programs_; }

 private:
  // Mutable: the LED controller holds const proxies and stores its outcome in each of them.
  mutable ResultStatus status_;
  std::unique_ptr<ProgramRunner> programs_;
};

}  // namespace zell

#endif  // ZELL_SLAVE_PROXY_H_
