// SPDX-License-Identifier: Apache-2.0
// What a connection can have done on the device.
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

/// Executor of device operations; each connection has one of its own.
///
/// Every operation leaves its outcome as the proxy's result status, which the next reply carries; a
/// boolean result says the same at a glance. Nothing throws on bad input: a zero byte in a path,
/// key, program or argument is a failure with EINVAL that touches nothing.
class SlaveProxy {
 public:
  SlaveProxy();
  virtual ~SlaveProxy();
  SlaveProxy(const SlaveProxy&) = delete;
  SlaveProxy& operator=(const SlaveProxy&) = delete;

  /// Stops the background program of this proxy: SIGTERM to its group, SIGKILL 2 s later if it
  /// still lives. Blocks until it is reaped. ESRCH when none is running.
  virtual bool kill() = 0;
  /// Waits until the background program has ended and takes its end as the outcome. Blocks without
  /// limit. ECHILD when there is none.
  virtual bool wait() = 0;
  /// The device's identifier: the first word of /etc/machine-id, else gethostid(3) in hex.
  virtual std::string hostId() = 0;
  virtual DeviceType_t deviceType() = 0;
  virtual bool fileExists(const std::string& path) = 0;
  /// access(2) with @p mode.
  virtual bool access(const std::string& path, unsigned mode) = 0;
  /// stat(2); @p st is left alone on failure.
  virtual bool stat(const std::string& path, struct stat& st) = 0;
  /// lstat(2); @p st is left alone on failure.
  virtual bool lstat(const std::string& path, struct stat& st) = 0;
  virtual bool unlink(const std::string& path) = 0;
  /// Adds execute permission for user, group and others.
  virtual bool chmodx(const std::string& path) = 0;
  /// The canonical absolute form of @p path, empty on failure.
  virtual std::string realPath(const std::string& path) = 0;
  virtual bool rename(const std::string& from, const std::string& to) = 0;
  /// Appends the names in the folder @p path to @p entries, without `.` and `..`, by byte value.
  virtual bool readDir(const std::string& path, std::vector<std::string>& entries) = 0;
  /// Makes the whole content of @p path the string of @p content. Never blocks in the opening;
  /// EFBIG when a reply cannot hold it.
  virtual bool readFile(const std::string& path, std::istringstream& content) = 0;
  /// Replaces the content of @p path, whole or not at all, durably, before it returns.
  virtual bool writeFile(const std::string& path, const std::ostringstream& data) = 0;
  /// Adds to the end of @p path all of @p data or nothing, durably, before it returns.
  virtual bool appendFile(const std::string& path, const std::ostringstream& data) = 0;
  /// Whether a process called @p name runs: its comm, its argv[0] or that one's last component.
  virtual bool processRunning(const std::string& name) = 0;
  /// Writes out what is cached and reboots. Returns only when that failed, or before it happened.
  virtual bool reboot() = 0;
  /// The tree at @p path, or null when the path itself cannot be examined. The proxy keeps
  /// ownership: the walker lives until the next call or the proxy's end.
  virtual FileTreeWalker* walkTree(const std::string& path) = 0;
  /// Stores the number of blocks of @p path's file system that are free to unprivileged users.
  virtual bool freeBlocks(const std::string& path, std::uint64_t& blocks) = 0;
  /// Switches the two LEDs on (true) or off and ends a running blink.
  virtual bool changeLeds(bool first, bool second) = 0;

  // The slots above keep their places in the table: new operations are added at its end.

  /// `readFile`, `writeFile` and `appendFile` without a stream, which would hold a second copy of a
  /// large file. @p content is left alone on failure.
  virtual bool readFile(const std::string& path, std::string& content) = 0;
  virtual bool writeFile(const std::string& path, std::string_view data) = 0;
  virtual bool appendFile(const std::string& path, std::string_view data) = 0;

  /// Runs @p argv without a shell. @p execParam is in seconds: above 0 waits that long at most, 0
  /// waits without limit, below 0 leaves the program running and returns at once. Blocks the whole
  /// process meanwhile. Forgets the background program of before. Returns 0 when the program was
  /// started and, unless in the background, ended, whatever its exit status; ETIMEDOUT when it ran
  /// into the limit; else the errno value that kept it from starting.
  int exec(const std::vector<std::string>& argv, int execParam);
  /// The same for @p line, split at blanks.
  int exec(const std::string& line, int execParam);
  /// Runs @p line with `/bin/sh -c`; limit and result as for `exec`.
  int system(const std::string& line, int limit);
  /// Standard output and error of the last program, in the order written, up to 16 MiB. Valid until
  /// the next program is started.
  [[nodiscard]] const std::string& output() const;
  /// Records @p state as the update manager's state text under @p key, as `writeFile` does. EINVAL
  /// for a key that is no plain file name.
  bool updateUmState(const std::string& key, const std::ostringstream& state);

  /// The outcome of the last operation.
  [[nodiscard]] const ResultStatus& resultStatus() const { return status_; }

 protected:
  friend class LedControl;

  /// Takes @p status as the outcome of the operation.
  void setResultStatus(const ResultStatus& status) const { status_ = status; }
  /// Takes success (@p error 0) or the failure with that errno value as the outcome of an operation
  /// that runs no program; true for success.
  bool finish(int error) const;
  /// Switches the LEDs without touching the result status; an errno value, 0 for success.
  int driveLeds(bool first, bool second) const;
  /// Ends a running blink of the process's LED controller.
  static void endBlink();

  /// What the proxy's programs run in.
  [[nodiscard]] ProgramRunner& programs() { return *programs_; }

 private:
  // Mutable: the LED controller holds const proxies and records its outcome with each.
  mutable ResultStatus status_;
  std::unique_ptr<ProgramRunner> programs_;
};

}  // namespace zell

#endif  // ZELL_SLAVE_PROXY_H_
