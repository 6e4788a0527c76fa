// SPDX-License-Identifier: Apache-2.0
// The columns of each record: one list, which is visited to make statements, to fill their
// parameters and to read rows.
#ifndef RUNELGW_STORE_COLUMNS_H_
#define RUNELGW_STORE_COLUMNS_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "gateway/store/database.h"
#include "gateway/store/records.h"
#include "gateway/store/text_codec.h"

namespace runelgw {

/// The form of a text column.
enum class TextForm { escaped, hex, base64 };

///@{
/// Visits the columns of a record in their order. `key` columns come first.
template <typename Visitor>
void visitColumns(Visitor& visit, DeviceRecord& record) {
  visit.key("id", record.id);
  visit.text("hostid", record.hostid, TextForm::hex);
  visit.text("name", record.name);
  visit.decision("decision", record.decision);
  visit.text("address", record.address);
  visit.number("port", record.port);
  visit.text("certificate", record.certificate);
  visit.text("pin_address", record.pinAddress);
  visit.text("pin_certificate", record.pinCertificate);
  visit.number("first_seen", record.firstSeen);
  visit.number("last_seen", record.lastSeen);
  visit.number("connected_since", record.connectedSince);
  visit.text("device_type", record.deviceType, TextForm::base64);
  visit.text("kernel", record.kernel, TextForm::base64);
  visit.optional("free_bytes", record.freeBytes);
  visit.number("agent", record.agent);
  visit.number("connects", record.connects);
  visit.number("losses", record.losses);
  visit.number("last_loss", record.lastLoss);
  visit.text("last_loss_reason", record.lastLossReason, TextForm::base64);
}

template <typename Visitor>
void visitColumns(Visitor& visit, TagRecord& record) {
  visit.key("device", record.device);
  visit.textKey("name", record.name);
  visit.text("value", record.value);
  visit.text("rule", record.rule);
}

template <typename Visitor>
void visitColumns(Visitor& visit, TagRuleRecord& record) {
  visit.textKey("name", record.name);
  visit.text("query", record.query);
  visit.text("tag", record.tag);
  visit.text("value", record.value);
}

template <typename Visitor>
void visitColumns(Visitor& visit, GroupRecord& record) {
  visit.textKey("name", record.name);
  visit.text("query", record.query);
}

template <typename Visitor>
void visitColumns(Visitor& visit, AccessRecord& record) {
  visit.textKey("kind", record.kind);
  visit.textKey("value", record.value);
  visit.number("allow", record.allow);
  visit.number("created", record.created);
  visit.text("note", record.note);
}

template <typename Visitor>
void visitColumns(Visitor& visit, TokenRecord& record) {
  visit.key("id", record.id);
  visit.text("name", record.name);
  visit.text("hash", record.hash);
  visit.text("role", record.role);
  visit.list("device_groups", record.groups);
  visit.list("kinds", record.kinds);
  visit.number("created", record.created);
  visit.number("expires", record.expires);
  visit.number("last_used", record.lastUsed);
  visit.number("revoked", record.revoked);
}

template <typename Visitor>
void visitColumns(Visitor& visit, SettingRecord& record) {
  visit.textKey("name", record.name);
  visit.text("value", record.value);
}

template <typename Visitor>
void visitColumns(Visitor& visit, HistoryRecord& record) {
  visit.key("id", record.id);
  visit.number("device", record.device);
  visit.number("time", record.time);
  visit.text("event", record.event);
  visit.text("reason", record.reason, TextForm::base64);
}

template <typename Visitor>
void visitColumns(Visitor& visit, AuditRecord& record) {
  visit.key("id", record.id);
  visit.number("time", record.time);
  visit.text("who", record.who);
  visit.text("role", record.role);
  visit.text("origin", record.from);
  visit.text("what", record.what);
  visit.text("devices", record.devices);
  visit.text("outcome", record.outcome);
  visit.text("detail", record.detail);
}

template <typename Visitor>
void visitColumns(Visitor& visit, ClauseRecord& record) {
  visit.key("id", record.id);
  visit.number("device", record.device);
  visit.number("time", record.time);
  visit.text("clause", record.text, TextForm::base64);
}

template <typename Visitor>
void visitColumns(Visitor& visit, OperationRecord& record) {
  visit.key("id", record.id);
  visit.number("time", record.time);
  visit.text("who", record.who);
  visit.text("kind", record.kind);
  visit.text("query", record.query);
  visit.text("request", record.request);
  visit.text("state", record.state);
  visit.number("ended", record.ended);
  visit.number("devices", record.devices);
  visit.number("answered", record.answered);
  visit.number("not_run", record.notRun);
  visit.number("unknown", record.unknown);
}

template <typename Visitor>
void visitColumns(Visitor& visit, OperationResultRecord& record) {
  visit.key("operation", record.operation);
  visit.key("device", record.device);
  visit.number("time", record.time);
  visit.text("outcome", record.outcome);
  visit.text("reason", record.reason);
  visit.text("message", record.text, TextForm::base64);
  visit.text("output", record.output, TextForm::base64);
}
///@}

/// The table of a record.
template <typename Record>
struct TableOf;
template <>
struct TableOf<DeviceRecord> {
  static constexpr const char* kName = "devices";
};
template <>
struct TableOf<TagRecord> {
  static constexpr const char* kName = "tags";
};
template <>
struct TableOf<TagRuleRecord> {
  static constexpr const char* kName = "tag_rules";
};
template <>
struct TableOf<GroupRecord> {
  static constexpr const char* kName = "saved_groups";
};
template <>
struct TableOf<AccessRecord> {
  static constexpr const char* kName = "access_list";
};
template <>
struct TableOf<TokenRecord> {
  static constexpr const char* kName = "tokens";
};
template <>
struct TableOf<SettingRecord> {
  static constexpr const char* kName = "settings";
};
template <>
struct TableOf<HistoryRecord> {
  static constexpr const char* kName = "history";
};
template <>
struct TableOf<AuditRecord> {
  static constexpr const char* kName = "audit";
};
template <>
struct TableOf<ClauseRecord> {
  static constexpr const char* kName = "clauses";
};
template <>
struct TableOf<OperationRecord> {
  static constexpr const char* kName = "operations";
};
template <>
struct TableOf<OperationResultRecord> {
  static constexpr const char* kName = "results";
};

/// A text in the form of its column.
[[nodiscard]] inline std::string formedText(const std::string& bytes, TextForm form) {
  switch (form) {
    case TextForm::hex:
      return hexText(bytes);
    case TextForm::base64:
      return base64Text(bytes);
    case TextForm::escaped:
      break;
  }
  return escapedText(bytes);
}

inline constexpr std::array<const char*, 3> kDecisions = {"waiting", "approved", "denied"};

/// Collects the names and types of the columns.
class ColumnNames {
 public:
  template <typename Number>
  void key(const char* name, Number&) {
    add(name, 'n', true);
  }
  void textKey(const char* name, std::string&) { add(name, 't', true); }
  template <typename Number>
  void number(const char* name, Number&) {
    add(name, 'n', false);
  }
  void optional(const char* name, std::optional<std::uint64_t>&) { add(name, 'n', false); }
  void text(const char* name, std::string&, TextForm = TextForm::escaped) { add(name, 't', false); }
  void list(const char* name, std::vector<std::string>&) { add(name, 't', false); }
  void decision(const char* name, Decision&) { add(name, 't', false); }

  [[nodiscard]] const std::vector<std::string>& names() const { return names_; }
  [[nodiscard]] const std::string& types() const { return types_; }
  [[nodiscard]] std::size_t keys() const { return keys_; }

 private:
  void add(const char* name, char type, bool isKey) {
    names_.emplace_back(name);
    types_ += type;
    keys_ += isKey ? 1U : 0U;
  }

  std::vector<std::string> names_;
  std::string types_;
  std::size_t keys_ = 0;
};

/// Makes the parameters of a row.
class ColumnValues {
 public:
  template <typename Number>
  void key(const char*, Number& value) {
    values_.push_back(Value::of(static_cast<std::int64_t>(value)));
  }
  void textKey(const char* name, std::string& value) { text(name, value); }
  template <typename Number>
  void number(const char*, Number& value) {
    values_.push_back(Value::of(static_cast<std::int64_t>(value)));
  }
  void optional(const char*, std::optional<std::uint64_t>& value) {
    values_.push_back(Value::of(static_cast<std::int64_t>(value.value_or(0))));
    values_.back().isNull = !value;
  }
  void text(const char*, std::string& value, TextForm form = TextForm::escaped) {
    values_.push_back(Value::of(formedText(value, form)));
  }
  void list(const char*, std::vector<std::string>& value) {
    values_.push_back(Value::of(listText(value)));
  }
  void decision(const char*, Decision& value) {
    values_.push_back(Value::of(std::string(kDecisions.at(static_cast<std::size_t>(value)))));
  }

  [[nodiscard]] std::vector<Value>& values() { return values_; }

 private:
  std::vector<Value> values_;
};

/// Reads a row into a record.
class ColumnReader {
 public:
  explicit ColumnReader(std::vector<Value>& row) : row_(row) {}

  template <typename Number>
  void key(const char* name, Number& value) {
    number(name, value);
  }
  void textKey(const char* name, std::string& value) { text(name, value); }
  template <typename Number>
  void number(const char* name, Number& value) {
    const std::int64_t stored = next(name).number;
    value = static_cast<Number>(stored);
    check(static_cast<std::int64_t>(value) == stored, name);
  }
  void optional(const char* name, std::optional<std::uint64_t>& value) {
    const Value& stored = row_[index_++];
    value.reset();
    if (!stored.isNull) {
      value = static_cast<std::uint64_t>(stored.number);
    }
    check(!stored.isText, name);
  }
  void text(const char* name, std::string& value, TextForm form = TextForm::escaped) {
    const std::string& stored = next(name).text;
    check(form == TextForm::hex      ? readHex(stored, value)
          : form == TextForm::base64 ? readBase64(stored, value)
                                     : readEscaped(stored, value),
          name);
  }
  void list(const char* name, std::vector<std::string>& value) {
    check(readList(next(name).text, value), name);
  }
  void decision(const char* name, Decision& value) {
    const std::string& stored = next(name).text;
    for (std::size_t i = 0; i < kDecisions.size(); ++i) {
      if (stored == kDecisions.at(i)) {
        value = static_cast<Decision>(i);
        return;
      }
    }
    check(false, name);
  }

  /// The first column with a value that this program did not write; empty: none has one.
  [[nodiscard]] const std::string& damaged() const { return damaged_; }

 private:
  const Value& next(const char* name) {
    const Value& value = row_[index_++];
    check(!value.isNull, name);
    return value;
  }
  void check(bool good, const char* name) {
    if (!good && damaged_.empty()) {
      damaged_ = name;
    }
  }

  std::vector<Value>& row_;
  std::size_t index_ = 0;
  std::string damaged_;
};

}  // namespace runelgw

#endif  // RUNELGW_STORE_COLUMNS_H_
