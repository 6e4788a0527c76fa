// SPDX-License-Identifier: Apache-2.0
// The rules of the XML relay, spelled out one by one with no thought for their cost. What the relay
// does is compared with it.
#ifndef TESTS_SUPPORT_SLOW_RELAY_H_
#define TESTS_SUPPORT_SLOW_RELAY_H_

#include <string>
#include <vector>

#include "support/log_capture.h"

namespace zell::test {

/// One end of a relay: strings are searched from their beginnings and erased from.
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

  std::string sent;           ///< what the peer's socket got
  std::vector<LogEntry> log;  ///< as LogCapture shows it

 private:
  void warn(const std::string& text);
};

}  // namespace zell::test

#endif  // TESTS_SUPPORT_SLOW_RELAY_H_
