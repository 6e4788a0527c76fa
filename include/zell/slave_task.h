// SPDX-License-Identifier: Apache-2.0
// The record of the task protocol: a request and its reply have the same form.
#ifndef ZELL_SLAVE_TASK_H_
#define ZELL_SLAVE_TASK_H_

#include <cstddef>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include <zell/byte_count_protocol.h>
#include <zell/slave_status.h>

namespace zell {

class SlaveProxy;

/// The longest output of a reply, in bytes: it leaves room for the other fields in a frame.
constexpr std::size_t kMaxReplyText = kMaxFramePayload - 4096;

/// One request or one reply. Text form, with single blanks:
/// `SlaveTask ARGC ARG... EXECPARAM OUTPUT STATUS STATE RESULT ERRNO SIGNAL`.
class SlaveTask {
 public:
  /// An empty record, to be filled by `parse`.
  SlaveTask();
  /// A reply that carries @p text and the result status that @p proxy has now. A text longer than
  /// kMaxReplyText is replaced by an empty one and a failure with EFBIG.
  SlaveTask(std::string text, const SlaveProxy* proxy);
  /// A record of the fields as given; @p result, @p error and @p signal as in ResultStatus.
  SlaveTask(const std::vector<std::string>& args, int execParam, const std::string& output,
            SlaveStatus::Type status, WatchProcessState_t state, int result, int error, int signal);
  virtual ~SlaveTask();

  /// Writes the text form to @p out.
  virtual void serialize(std::ostream& out) const;

  /// The text form in three parts that follow one another. The middle one is the output where it
  /// is, so that nobody has to copy a long one: it is valid as long as the record.
  struct Parts {
    std::string head;
    std::string_view output;
    std::string tail;
  };
  [[nodiscard]] Parts parts() const;

  /// True when @p message begins like a record.
  static bool isA(const std::string& message);

  /// Fills the record from its text form. Never throws on bad input: a malformed record leaves the
  /// argument list empty and all other fields as in an empty record. False for a malformed one:
  /// only a reader of replies needs to know, since every request has arguments.
  bool parse(const std::string& message);
  /// The same, taking over the message's memory for the longest argument where that saves a copy;
  /// @p message is unspecified afterwards.
  bool parse(std::string&& message);

  /// The task name, then its arguments.
  [[nodiscard]] const std::vector<std::string>& args() const { return args_; }
  /// How "exec" waits: above 0 the time limit in seconds, 0 no limit, below 0 do not wait.
  [[nodiscard]] int execParam() const { return execParam_; }
  [[nodiscard]] const std::string& output() const { return output_; }
  [[nodiscard]] const ResultStatus& status() const { return status_; }

 private:
  struct Layout;

  void clear();
  void take(const Layout& layout);

  std::vector<std::string> args_;
  int execParam_ = 0;
  std::string output_;
  ResultStatus status_;
};

}  // namespace zell

#endif  // ZELL_SLAVE_TASK_H_
