// SPDX-License-Identifier: Apache-2.0
// The record of what clients have changed, in the database and in the log.
#ifndef RUNELGW_API_AUDIT_H_
#define RUNELGW_API_AUDIT_H_

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "gateway/auth/auth.h"
#include "gateway/auth/rate_limit.h"
#include "gateway/store/store.h"

namespace runelgw {

class Audit {
 public:
  using Log = std::function<void(bool warning, const std::string& line)>;

  /// @p store must outlive it and its writes.
  Audit(Store& store, Log log, AuthClocks clocks);

  /// Adds @p record with the current time. @p warning: it was refused or has failed.
  void add(AuditRecord record, bool warning);
  /// The same for a client that is not known, or that exceeds its rate. Only some of them in a
  /// minute are kept for each @p source, so that they do not fill the database; the next one tells
  /// how many were left out.
  void addRefused(AuditRecord record, const std::string& source);

 private:
  Store& store_;
  Log log_;
  AuthClocks clocks_;
  AddressLimit limit_;
  std::uint64_t leftOut_ = 0;
};

/// One line for the log, without control characters.
[[nodiscard]] std::string lineOf(const AuditRecord& record);

}  // namespace runelgw

#endif  // RUNELGW_API_AUDIT_H_
