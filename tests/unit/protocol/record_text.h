// SPDX-License-Identifier: Apache-2.0
// The text of a task record.
#ifndef TESTS_UNIT_PROTOCOL_RECORD_TEXT_H_
#define TESTS_UNIT_PROTOCOL_RECORD_TEXT_H_

#include <sstream>
#include <string>

#include <zell/slave_task.h>

namespace zell::test {

inline constexpr char kEmptyRecord[] = "SlaveTask 0 0 0: 0 0 0 0 0";

inline std::string recordText(const SlaveTask& task) {
  std::ostringstream out;
  task.serialize(out);
  return out.str();
}

}  // namespace zell::test

#endif  // TESTS_UNIT_PROTOCOL_RECORD_TEXT_H_
