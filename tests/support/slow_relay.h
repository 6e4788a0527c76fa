// SPDX-License-Identifier: Apache-2.0
// A reference implementation of the XML relay: its rules one by one, without regard to speed. Tests
// compare the relay with it.
#ifndef TESTS_SUPPORT_SLOW_RELAY_H_
#define TESTS_SUPPORT_SLOW_RELAY_H_

#include <string>
#include <vector>

#include "support/log_capture.h"

namespace zell::test {

/// One end of a relay. Searches every string from the start and erases from it.
class SlowRelay {
 public:
  void setPeer(bool linked);
  void handleMessage(const std::string& packet);
  void appendPacket(const std::string& packet);
  bool nextXmlClause();

  [[nodiscard]] bool inputPending() const { return linked && !buffer.empty(); }

  bool linked = false;
  std::string buffer;
  std::string clause;
  bool stop = false;

  std::string sent;           ///< bytes received by the peer's socket
  std::vector<LogEntry> log;  ///< in the form of LogCapture

 private:
  void warn(const std::string& text);
};

}  // namespace zell::test

#endif  // TESTS_SUPPORT_SLOW_RELAY_H_
