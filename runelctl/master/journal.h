// SPDX-License-Identifier: Apache-2.0
// What the master tells about: who came, who went, what agents said.
#ifndef ZELL_RUNELCTL_MASTER_JOURNAL_H_
#define ZELL_RUNELCTL_MASTER_JOURNAL_H_

#include <cstdint>
#include <string>

#include "base/unique_fd.h"
#include "master/outlet.h"
#include "output/style.h"
#include "output/text.h"

namespace zell::ctl {

/// How a device is shown.
struct Label {
  std::string hostid;  ///< empty while it is not known
  std::string address;
  std::uint16_t port = 0;
};

class Journal {
 public:
  /// @p xml: agents' clauses are shown too.
  Journal(Loop& loop, const Style& style, bool xml);

  /// Keeps agents' clauses in @p path, at its end, as JSON objects. The reason when that cannot be.
  [[nodiscard]] std::string keepClauses(const std::string& path);

  void listening(const std::string& where, const std::string& socket);
  void connected(const Label& who, const std::string& deviceType);
  void further(const Label& who);
  void agent(const Label& who);
  /// @p role: "slave", "agent" or "further".
  void lost(const Label& who, const std::string& role, const std::string& why);
  void refused(const Label& who, const std::string& why);
  void clause(const Label& who, const std::string& clause);
  /// Something about the master itself that somebody should see to; goes to standard error.
  void problem(const std::string& text);

 private:
  void tell(const std::string& event, const Label* who, const std::string& text, Json details);
  [[nodiscard]] Json object(const std::string& event, const Label* who) const;

  const Style& style_;
  const bool xml_;
  Outlet outlet_;
  Outlet errors_;
  UniqueFd kept_;
  std::string keptPath_;
  bool keptFailed_ = false;
};

/// "2026-03-01T12:00:00.123Z" for a moment of the wall clock in milliseconds.
[[nodiscard]] std::string utcText(std::int64_t milliseconds);
/// Milliseconds of the wall clock, now.
[[nodiscard]] std::int64_t wallClock();

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_MASTER_JOURNAL_H_
