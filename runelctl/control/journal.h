// SPDX-License-Identifier: Apache-2.0
// The output of the master: connects, losses and the clauses of agents.
#ifndef RUNELCTL_CONTROL_JOURNAL_H_
#define RUNELCTL_CONTROL_JOURNAL_H_

#include <cstdint>
#include <string>

#include "base/unique_fd.h"
#include "control/nonblocking_writer.h"
#include "output/style.h"
#include "output/text.h"

namespace runelctl {

/// The name of a device in the output.
struct Label {
  std::string hostid;  ///< empty while unknown
  std::string address;
  std::uint16_t port = 0;
};

class Journal {
 public:
  /// @p xml: print the clauses of agents too.
  Journal(runel::Loop& loop, const Style& style, bool xml);

  /// Appends the clauses of agents to the file @p path, as JSON objects. Returns the error, empty
  /// for success.
  [[nodiscard]] std::string keepClauses(const std::string& path);

  void listening(const std::string& where, const std::string& socket);
  void connected(const Label& who, const std::string& deviceType);
  void further(const Label& who);
  void agent(const Label& who);
  /// @p role: "slave", "agent" or "further".
  void lost(const Label& who, const std::string& role, const std::string& why);
  void refused(const Label& who, const std::string& why);
  void clause(const Label& who, const std::string& clause);
  /// Writes an error of the master itself to standard error.
  void problem(const std::string& text);

 private:
  void tell(const std::string& event, const Label* who, const std::string& text,
            const Json& details);
  [[nodiscard]] Json object(const std::string& event, const Label* who) const;

  const Style& style_;
  const bool xml_;
  NonBlockingWriter outlet_;
  NonBlockingWriter errors_;
  zell::UniqueFd kept_;
  std::string keptPath_;
  bool keptFailed_ = false;
};

/// Formats a wall clock time in milliseconds as "2026-03-01T12:00:00.123Z".
[[nodiscard]] std::string utcText(std::int64_t milliseconds);
/// The current wall clock time in milliseconds.
[[nodiscard]] std::int64_t wallClock();

}  // namespace runelctl

#endif  // RUNELCTL_CONTROL_JOURNAL_H_
