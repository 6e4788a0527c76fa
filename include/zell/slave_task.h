// SPDX-License-Identifier: Apache-2.0
// The record of the task protocol. A request and its reply have the same format.
#ifndef ZELL_SLAVE_TASK_H_
#define ZELL_SLAVE_TASK_H_

#include <cstddef>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <zell/slave_status.h>

namespace zell {

class SlaveProxy;

/// One request or one reply. Text format, with single spaces as separators: `SlaveTask ARGC ARG...
/// EXECPARAM OUTPUT STATUS STATE RESULT ERRNO SIGNAL`.
class SlaveTask {
 public:
  /// An empty record, to be filled by `parse`.
  SlaveTask();
  /// A reply that carries @p text and the current result status of @p proxy. A text that a
  /// frame cannot carry becomes an empty text and a failure with EFBIG.
  SlaveTask(std::string text, const SlaveProxy* proxy);
  /// A record with the given fields. For @p result, @p error and @p signal see ResultStatus.
  SlaveTask(const std::vector<std::string>& args, int execParam, const std::string& output,
            SlaveStatus::Type status, WatchProcessState_t state, int result, int error, int signal);
  virtual ~SlaveTask();

  /// Writes the text format to @p out.
  virtual void serialize(std::ostream& out) const;

  /// The text format in three consecutive parts. `output` refers to the record's output without a
  /// copy and is valid as long as the record.
  struct Parts {
    std::string head;
    std::string_view output;
    std::string tail;
  };
  [[nodiscard]] Parts parts() const;

  /// Whether @p message begins like a record.
  static bool isA(const std::string& message);

  /// Parses the text format into this record. Never throws on bad input: a malformed record returns
  /// false, leaves the argument list empty and all other fields as in an empty record. Only readers
  /// of replies need the return value: every valid request has arguments.
  bool parse(const std::string& message);
  /// The same. Takes over the message's memory for the longest argument or the output where that
  /// saves a copy; @p message is unspecified afterwards.
  bool parse(std::string&& message);

  /// The task name, then its arguments.
  [[nodiscard]] const std::vector<std::string>& args() const { return args_; }
  /// The time limit of "exec": above 0 in seconds, 0 no limit, below 0 do not wait.
  [[nodiscard]] int execParam() const { return execParam_; }
  [[nodiscard]] const std::string& output() const { return output_; }
  /// Moves the output out of this record.
  [[nodiscard]] std::string takeOutput() { return std::move(output_); }
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
