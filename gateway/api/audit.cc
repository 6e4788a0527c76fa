// SPDX-License-Identifier: Apache-2.0
#include "gateway/api/audit.h"

#include <optional>
#include <utility>

#include "gateway/api/json_text.h"

namespace runelgw {
namespace {

// For each address or token.
constexpr Rate kRefusedRate{0.2, 20};

}  // namespace

std::string lineOf(const AuditRecord& record) {
  std::string line = record.who.empty() ? "unknown client" : record.who;
  if (!record.role.empty()) {
    line += " (" + record.role + ")";
  }
  line += " from " + record.from + ": " + record.what;
  if (!record.devices.empty()) {
    line += " on " + record.devices;
  }
  line += ": " + record.outcome;
  if (!record.detail.empty()) {
    line += ": " + record.detail;
  }
  return printable(line);
}

Audit::Audit(Store& store, Log log, AuthClocks clocks)
    : store_(store), log_(std::move(log)), clocks_(std::move(clocks)), limit_(kRefusedRate) {
  if (!log_) {
    log_ = [](bool, const std::string&) {};
  }
}

void Audit::add(AuditRecord record, bool warning) {
  record.time = clocks_.wall();
  log_(warning, lineOf(record));
  store_.write({Append<AuditRecord>{std::move(record)}},
               [log = log_](const std::optional<std::string>& error) {
                 if (error) {
                   log(true, "an entry of the audit log was not stored: " + printable(*error));
                 }
               });
}

void Audit::addRefused(AuditRecord record, const std::string& source) {
  if (!limit_.take(source, clocks_.steady())) {
    ++leftOut_;
    return;
  }
  if (leftOut_ > 0) {
    record.detail += (record.detail.empty() ? "" : "; ") + std::to_string(leftOut_) +
                     " refused requests before it were left out";
    leftOut_ = 0;
  }
  add(std::move(record), true);
}

}  // namespace runelgw
