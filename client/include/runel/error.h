// SPDX-License-Identifier: Apache-2.0
// Why a request or a transfer failed, and whether the task ran.
#ifndef RUNEL_ERROR_H_
#define RUNEL_ERROR_H_

#include <memory>
#include <string>

#include <runel/export.h>

namespace runel {
inline namespace v1 {

/// Where a failure happened.
enum class Kind {
  link,     ///< the connection failed, was lost, or carried malformed data
  device,   ///< the device answered that the task failed
  program,  ///< a program on the device ran and failed
  local,    ///< a file of this host failed, or an argument cannot be sent
  timeout,  ///< the connection or the next byte took too long
};

/// Whether the task ran.
enum class Outcome {
  notSent,   ///< the device did not receive the whole request: the task did not run
  answered,  ///< the device answered
  unknown,   ///< sent without an answer: the task may have run
};

/// The reason in more detail, for programs that add advice to an error. New reasons may come with
/// new versions: treat an unknown one as `other`.
enum class Cause {
  other,            ///< see the errno value
  resolve,          ///< a host name has no address
  connect,          ///< the connection was refused or the host cannot be reached
  connectTimeout,   ///< no connection within the connect timeout
  noMaster,         ///< no master listens on the control socket, or no gateway is reached
  refusedByMaster,  ///< the master or gateway has no such device, or does not serve this user
  closed,           ///< the peer closed the connection
  protocol,         ///< the peer sent malformed data
  wrongPeer,        ///< the peer speaks another protocol
  silence,          ///< no byte within the I/O timeout
  deadline,         ///< the limit for all of a device's work is over
  cancelled,        ///< this program cancelled the request
  refused,          ///< the device refused the request; nothing ran
  programFailed,    ///< a program exited with another status than 0, or by a signal
  programTimeout,   ///< a program exceeded its time limit
  changed,          ///< a file changed during its transfer
  incomplete,       ///< the transferred file has another size than its source
  checksum,         ///< checksum mismatch
  directory,        ///< a directory without the option for directories
  fileType,         ///< neither a file, nor a directory, nor a symbolic link
  outside,          ///< a path leads out of the requested directory
};

/// One failure, as a value. Copies are cheap and may be used in any thread.
class RUNEL_API Error {
 public:
  /// @p text is one sentence without the name of the device, @p number an errno value or 0.
  Error(Kind kind, Cause cause, std::string text, int number = 0);
  /// The failure of a system call of this host with the file @p name and the errno @p number.
  [[nodiscard]] static Error local(const std::string& name, int number);

  /// Where it happened.
  [[nodiscard]] Kind kind() const;
  /// The reason in more detail.
  [[nodiscard]] Cause cause() const;
  /// Whether the task ran.
  [[nodiscard]] Outcome outcome() const;
  /// A Linux errno value: the device's own for `Kind::device`, else this host's; 0 for none.
  [[nodiscard]] int number() const;
  /// One sentence without the name of the device. May contain any bytes of file names: escape it
  /// before it is shown on a terminal.
  [[nodiscard]] const std::string& text() const;

  /// True for a failure that may be over at the next attempt: the link, or a device that was short
  /// of memory, descriptors or processes. Says nothing about whether a repetition is safe.
  [[nodiscard]] bool transient() const;

  /// This error with another outcome. An error starts as `Outcome::answered` for the kinds device
  /// and program, and as `Outcome::notSent` for all others.
  [[nodiscard]] Error with(Outcome outcome) const;

 private:
  struct RUNEL_LOCAL Data;
  std::shared_ptr<const Data> data_;
};

/// "link", "device", "program", "local" or "timeout".
[[nodiscard]] RUNEL_API const char* nameOf(Kind kind);
/// "not sent", "answered" or "sent, outcome unknown".
[[nodiscard]] RUNEL_API const char* nameOf(Outcome outcome);

/// The system's text for the errno value @p number.
[[nodiscard]] RUNEL_API std::string systemText(int number);

}  // namespace v1
}  // namespace runel

#endif  // RUNEL_ERROR_H_
