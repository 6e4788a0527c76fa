// SPDX-License-Identifier: Apache-2.0
// The blocking client of one device, with a method for each task.
#ifndef RUNEL_DEVICE_H_
#define RUNEL_DEVICE_H_

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <runel/address.h>
#include <runel/async_device.h>
#include <runel/export.h>
#include <runel/records.h>
#include <runel/request.h>
#include <runel/result.h>
#include <runel/transfer.h>

namespace runel {
inline namespace v1 {

/// A device whose calls wait for the answer. The first call connects. Use one object in one thread
/// at a time. Names and contents are bytes.
///
///     runel::Device device("192.0.2.11");
///     auto release = device.exec({"uname", "-r"}, std::chrono::seconds(10));
///     if (release) { std::cout << release->output; } else { std::cerr << release.error().text(); }
///
/// After a transient failure of the link a call is repeated as `DeviceOptions::setRetries` says,
/// but only if the task was not sent or is safe to repeat; see `repeatable`.
class RUNEL_API Device {
 public:
  /// @p address is HOST[:PORT], or \@NAME for a device behind a running `runelctl master`.
  /// Malformed text fails in the first call. Looks up host names with the system, which may take
  /// seconds.
  explicit Device(const std::string& address, DeviceOptions options = DeviceOptions());
  /// The device at @p address.
  explicit Device(Address address, DeviceOptions options = DeviceOptions());
  ~Device();
  ///@{
  /// Moving leaves @p other without a state: assign to it or destroy it.
  Device(Device&& other) noexcept;
  Device& operator=(Device&& other) noexcept;
  ///@}

  /// The unchecked reply. The tasks below check it.
  [[nodiscard]] Result<Reply> ask(const Request& request);
  /// Sends many requests without waiting for each answer; the replies in order. After a lost
  /// connection the rest of them is not `answered`. Nothing is repeated.
  [[nodiscard]] std::vector<Reply> pipeline(const std::vector<Request>& requests);
  /// Closes the connection. The next call connects again. Ends a background program's connection.
  void close();

  // Files.

  /// Whether the daemon may access @p path. @p mode is a sum of 4 read, 2 write, 1 execute; or 0
  /// for existence. False for the errors EPERM, ENOENT, EACCES, ENOTDIR and EROFS.
  [[nodiscard]] Result<bool> access(const std::string& path, int mode);
  /// Appends all of @p data, or nothing; creates a missing file.
  [[nodiscard]] Result<void> append(const std::string& path, std::string data);
  /// Adds execute permission for owner, group and others.
  [[nodiscard]] Result<void> chmodx(const std::string& path);
  /// Follows symbolic links. False for the errors ENOENT and ENOTDIR.
  [[nodiscard]] Result<bool> fileExists(const std::string& path);
  /// Free blocks for unprivileged users. The device does not report their size, mostly 4096 bytes.
  [[nodiscard]] Result<std::uint64_t> freeBlocks(const std::string& path);
  /// Does not follow a symbolic link.
  [[nodiscard]] Result<Stat> lstat(const std::string& path);
  /// The whole content, at most 256 MiB less 4 KiB. `pull` reads larger files.
  [[nodiscard]] Result<std::string> read(const std::string& path);
  /// The names without "." and "..", sorted by byte value.
  [[nodiscard]] Result<std::vector<std::string>> readdir(const std::string& path);
  /// The absolute path without symbolic links.
  [[nodiscard]] Result<std::string> realpath(const std::string& path);
  /// Replaces an existing @p target atomically, within one file system.
  [[nodiscard]] Result<void> rename(const std::string& source, const std::string& target);
  /// Follows symbolic links.
  [[nodiscard]] Result<Stat> stat(const std::string& path);
  /// Removes a file, not a directory.
  [[nodiscard]] Result<void> unlink(const std::string& path);
  /// A directory and everything below it; does not follow links.
  [[nodiscard]] Result<std::vector<TreeEntry>> walktree(const std::string& path);
  /// Replaces the content atomically; creates a missing file. The data is on the device's disk when
  /// this returns.
  [[nodiscard]] Result<void> write(const std::string& path, std::string data);

  // Programs.

  /// Runs a program without a shell and waits for its end: its result, also for another exit status
  /// than 0. The device stops the program after @p limit; 0 is `DeviceOptions::setProgramLimit`,
  /// which is no limit by default, and below 0 is no limit. The device serves no other request
  /// meanwhile. Fails when the program could not be started.
  [[nodiscard]] Result<ProgramResult> exec(const std::vector<std::string>& argv,
                                           std::chrono::seconds limit = std::chrono::seconds(0));
  /// Starts a program in the background and discards its output. Each connection has at most one
  /// background program; the next `exec` or `start` forgets it.
  [[nodiscard]] Result<void> start(const std::vector<std::string>& argv);
  /// Waits for the end of the background program, without a limit. Errno ECHILD without one.
  [[nodiscard]] Result<ProgramResult> wait();
  /// Stops the background program: SIGTERM to its process group, SIGKILL 2 s later. Errno ESRCH
  /// when none is running.
  [[nodiscard]] Result<ProgramResult> kill();
  /// Whether a process @p name runs: its argv[0], or the first 15 bytes of its name.
  [[nodiscard]] Result<bool> processRunning(const std::string& name);

  // The device.

  /// The host identifier, empty if the device has none.
  [[nodiscard]] Result<std::string> hostid();
  /// "controller", "server" or "unknown".
  [[nodiscard]] Result<std::string> deviceType();
  /// Switches the two LEDs on or off and stops blinking. Errno ENOENT: no LEDs.
  [[nodiscard]] Result<void> changeLeds(bool first, bool second);
  /// @p style is "off", "on", "slow", "fast" or "alternate". Errno EINVAL: unknown style.
  [[nodiscard]] Result<void> blinkLeds(const std::string& style);
  /// Stores @p state under @p key: 1 to 255 letters, digits, '.', '_' and '-', no leading dot.
  [[nodiscard]] Result<void> updateUmState(const std::string& key, std::string state);
  /// Returns when the device has acknowledged the request.
  [[nodiscard]] Result<void> reboot();
  /// Ends the daemon, so that its supervisor starts it again. The task has no reply: this returns
  /// when the device has closed the connection.
  [[nodiscard]] Result<void> restart();

  // Files and trees of any size: see runel/transfer.h.

  /// Copies local files and directories to @p target on the device.
  [[nodiscard]] Result<TransferReport> push(const std::vector<std::string>& sources,
                                            const std::string& target,
                                            const TransferOptions& options = TransferOptions());
  /// Copies files and directories of the device to the local @p target.
  [[nodiscard]] Result<TransferReport> pull(const std::vector<std::string>& sources,
                                            const std::string& target,
                                            const TransferOptions& options = TransferOptions());
  /// Makes the directory @p target on the device equal to the local directory @p source.
  [[nodiscard]] Result<TransferReport> sync(const std::string& source, const std::string& target,
                                            const TransferOptions& options = TransferOptions());

  /// As given to the constructor; for malformed text, with that text as its name.
  [[nodiscard]] const Address& address() const;

 private:
  struct RUNEL_LOCAL Data;
  std::unique_ptr<Data> data_;
};

}  // namespace v1
}  // namespace runel

#endif  // RUNEL_DEVICE_H_
