// SPDX-License-Identifier: Apache-2.0
// A task request to a device, and the reply.
#ifndef RUNEL_REQUEST_H_
#define RUNEL_REQUEST_H_

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <runel/error.h>
#include <runel/export.h>
#include <runel/result.h>

namespace runel {
inline namespace v1 {

/// The unit of all timeouts.
using Milliseconds = std::chrono::milliseconds;

/// A task and its arguments, which are bytes: names of files need not be UTF-8. The tasks and their
/// arguments are listed in the protocol's document.
class RUNEL_API Request {
 public:
  /// The task @p words[0] with its arguments.
  explicit Request(std::vector<std::string> words);
  /// With @p content as its last argument, which is moved and not copied.
  Request(std::vector<std::string> words, std::string content);
  /// "exec" of @p argv, without a shell. @p limit is in seconds: above 0 the device stops the
  /// program when it takes longer, 0 waits for its end without a limit, below 0 starts it in the
  /// background.
  [[nodiscard]] static Request exec(std::vector<std::string> argv, int limit);

  ///@{
  /// An independent copy.
  Request(const Request& other);
  Request& operator=(const Request& other);
  ///@}
  ///@{
  /// Moving leaves @p other without a state: assign to it or destroy it.
  Request(Request&& other) noexcept;
  Request& operator=(Request&& other) noexcept;
  ///@}
  ~Request();

  /// Adds @p time to the I/O timeout of the device while this request runs; without a value there
  /// is no timeout. By default "wait" and an "exec" without a limit have none, and an "exec" with a
  /// limit adds it.
  Request& setExtraTimeout(std::optional<Milliseconds> time);
  /// A longer answer is a protocol error, which ends the connection as soon as the device announces
  /// the length. In bytes; by default 64 KiB for a task that returns little more than its status,
  /// 16 MiB and 64 KiB for "exec", and 256 MiB for all others.
  Request& setReplyLimit(std::size_t bytes);

  /// The task and its arguments, without a content that was given apart.
  [[nodiscard]] const std::vector<std::string>& words() const;
  /// The limit of an "exec" in seconds, 0 for another task.
  [[nodiscard]] int execLimit() const;
  ///@{
  /// The current setting.
  [[nodiscard]] std::optional<Milliseconds> extraTimeout() const;
  [[nodiscard]] std::size_t replyLimit() const;
  ///@}
  /// False for "restart", which has no reply.
  [[nodiscard]] bool answered() const;
  /// Whether it may be sent again when it is unknown whether it ran: see `repeatable`.
  [[nodiscard]] bool repeatable() const;
  /// The payload of its frame, as it is sent.
  [[nodiscard]] std::string encode() const;

 private:
  friend class LateRequest;
  struct RUNEL_LOCAL Data;
  std::unique_ptr<Data> data_;
};

/// Whether the task @p name may be repeated when it is unknown whether it ran. True for tasks that
/// change nothing or set a state, such as "write"; a repeated one may overwrite what another client
/// wrote in between. False for all others, and for unknown tasks.
[[nodiscard]] RUNEL_API bool repeatable(std::string_view name);

/// A task without a bounded time, as the client sees it that waits for its reply: a foreground
/// "exec", or a "wait". The device continues with it after the connection has ended, and serves no
/// client meanwhile.
struct LongTask {
  std::string task;               ///< "exec" or "wait"
  std::string program;            ///< of an "exec", without its arguments
  std::chrono::seconds limit{0};  ///< after which the device stops the program; 0 for none
  Milliseconds waiting{0};        ///< since the last byte that was sent or received
};

/// The status of a reply. The numbers are those of the wire.
enum class Status {
  success = 0,
  failure = 1,
  running = 2,  ///< a program was started in the background
  timeout = 3,  ///< a program exceeded its time limit
  error = 4,    ///< the request itself was refused; nothing ran
};

/// The state of the program that a task was about. The numbers are those of the wire.
enum class ProgramState { none = 0, running = 1, exited = 2, signalled = 3, timedOut = 4 };

/// The reply to a request, or the reason why it is missing. Copies are cheap.
class RUNEL_API Reply {
 public:
  /// A successful reply without a text.
  Reply();
  /// No reply because of @p error.
  Reply(Error error);  // NOLINT(google-explicit-constructor)
  /// Parses the payload of a frame. Without a value for malformed data.
  [[nodiscard]] static std::optional<Reply> decode(std::string payload);

  /// Whether the device has answered. Without an answer only `error` is of use.
  [[nodiscard]] bool answered() const;
  /// Whether the task succeeded.
  [[nodiscard]] bool ok() const;

  /// The text or content that the task returned; for a failure, the device's message.
  [[nodiscard]] const std::string& output() const;
  /// Moves the output out of this copy of the reply.
  [[nodiscard]] std::string takeOutput();
  /// The status of the task.
  [[nodiscard]] Status status() const;
  /// The state of its program.
  [[nodiscard]] ProgramState state() const;
  /// The exit status of a program; 1 for another failure; -1 when a signal ended the program.
  [[nodiscard]] int result() const;
  /// The device's errno value, 0 for none.
  [[nodiscard]] int number() const;
  /// The number of the signal that ended the program, 0 for none.
  [[nodiscard]] int signal() const;

  /// Why it is not `ok`. @p what is put before the text of an answered failure, as "what: ".
  [[nodiscard]] Error error(std::string_view what = {}) const;

 private:
  struct RUNEL_LOCAL Data;
  std::shared_ptr<Data> data_;
};

/// Receives the reply exactly once, never within the call that made the request. It may destroy any
/// object of the library.
using ReplyHandler = std::function<void(Reply reply)>;

}  // namespace v1
}  // namespace runel

#endif  // RUNEL_REQUEST_H_
