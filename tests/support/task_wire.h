// SPDX-License-Identifier: Apache-2.0
// Encodes the task protocol without the code under test, so that tests can compare it with the
// codec and the record.
#ifndef TESTS_SUPPORT_TASK_WIRE_H_
#define TESTS_SUPPORT_TASK_WIRE_H_

#include <string>
#include <vector>

namespace zell::test {

/// @p payload as a frame.
inline std::string frame(const std::string& payload) {
  return "\x01" + std::to_string(payload.size()) + "\x02" + payload;
}

/// The form of a string in a record.
inline std::string counted(const std::string& bytes) {
  return std::to_string(bytes.size()) + ":" + bytes;
}

/// The record of a request: args[0] is the task, the other elements are its arguments.
inline std::string requestRecord(const std::vector<std::string>& args, int execParam = 0) {
  std::string record = "SlaveTask " + std::to_string(args.size());
  for (const std::string& arg : args) {
    record += " " + counted(arg);
  }
  return record + " " + std::to_string(execParam) + " 0: 0 0 0 0 0";
}

/// The same as a frame.
inline std::string request(const std::vector<std::string>& args, int execParam = 0) {
  return frame(requestRecord(args, execParam));
}

/// The record of a reply with @p text and the status fields @p fields.
inline std::string replyRecord(const std::string& text, const std::string& fields = "0 0 0 0 0") {
  return "SlaveTask 0 0 " + counted(text) + " " + fields;
}

/// The same as a frame.
inline std::string reply(const std::string& text, const std::string& fields = "0 0 0 0 0") {
  return frame(replyRecord(text, fields));
}

}  // namespace zell::test

#endif  // TESTS_SUPPORT_TASK_WIRE_H_
