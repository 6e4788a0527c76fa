// SPDX-License-Identifier: Apache-2.0
// The rows of the gateway's database as plain structs.
//
// All times are milliseconds since 1970; 0 means absent. Every string may contain every byte, zero
// bytes and invalid UTF-8 included: the store returns it unchanged.
#ifndef RUNELGW_STORE_RECORDS_H_
#define RUNELGW_STORE_RECORDS_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace runelgw {

/// The number of a device in this database; 0: no device. Never used again after the device is
/// forgotten.
using DeviceId = std::uint64_t;

/// What was decided about a device. Offline, online and quarantined are states of the moment: the
/// database does not have them.
enum class Decision { waiting, approved, denied };

/// One device. Key: `id`. The hostid is not unique here: two devices may claim the same.
struct DeviceRecord {
  DeviceId id = 0;
  std::string hostid;  ///< raw bytes, as the device sent them
  std::string name;
  Decision decision = Decision::waiting;
  std::string address;  ///< of the last connection
  std::uint16_t port = 0;
  std::string certificate;  ///< the verified name of the last connection, or empty
  std::string pinAddress;
  std::string pinCertificate;
  std::int64_t firstSeen = 0;
  std::int64_t lastSeen = 0;
  std::int64_t connectedSince = 0;  ///< as it was at the last write; 0: it was not connected
  std::string deviceType;
  std::string kernel;
  std::optional<std::uint64_t> freeBytes;
  bool agent = false;
  std::uint64_t connects = 0;
  std::uint64_t losses = 0;
  std::int64_t lastLoss = 0;
  std::string lastLossReason;
};

/// A tag of a device. Key: `device` and `name`.
struct TagRecord {
  DeviceId device = 0;
  std::string name;
  std::string value;
  std::string rule;  ///< the name of the rule that set it; empty: set by a caller
};

/// A rule that sets a tag on the devices of a query. Key: `name`.
struct TagRuleRecord {
  std::string name;
  std::string query;
  std::string tag;
  std::string value;
};

/// A saved query. Key: `name`.
struct GroupRecord {
  std::string name;
  std::string query;
};

/// An entry of the list of allowed or denied devices. Key: `kind` and `value`.
struct AccessRecord {
  std::string kind;  ///< what `value` is: "hostid", "address" or "certificate"
  std::string value;
  bool allow = false;
  std::int64_t created = 0;
  std::string note;
};

/// A token, without its secret. Key: `id`.
struct TokenRecord {
  std::uint64_t id = 0;
  std::string name;
  std::string hash;  ///< of the secret, in hexadecimal
  std::string role;
  std::vector<std::string> groups;
  std::vector<std::string> kinds;
  std::int64_t created = 0;
  std::int64_t expires = 0;
  std::int64_t lastUsed = 0;
  std::int64_t revoked = 0;
};

/// A value that the gateway keeps between two runs. Key: `name`.
struct SettingRecord {
  std::string name;
  std::string value;
};

/// One event of a device. Key: `id`, which increases with each event.
struct HistoryRecord {
  std::uint64_t id = 0;  ///< given by the store
  DeviceId device = 0;
  std::int64_t time = 0;
  std::string event;
  std::string reason;
};

/// A request that changed something. Key: `id`, which increases with each request.
struct AuditRecord {
  std::uint64_t id = 0;  ///< given by the store
  std::int64_t time = 0;
  std::string who;
  std::string role;
  std::string from;
  std::string what;
  std::string devices;
  std::string outcome;
  std::string detail;
};

/// A clause of a device's agent. Key: `id`, which increases with each clause.
struct ClauseRecord {
  std::uint64_t id = 0;  ///< given by the store
  DeviceId device = 0;
  std::int64_t time = 0;
  std::string text;
};

/// A request for many devices, which continues after its caller has its answer. Key: `id`.
struct OperationRecord {
  std::uint64_t id = 0;
  std::int64_t time = 0;
  std::string who;
  std::string kind;
  std::string query;    ///< the devices, as the caller named them
  std::string request;  ///< what runs, without the data that it carries
  std::string state;    ///< "running", or how it ended
  std::int64_t ended = 0;
  std::uint64_t devices = 0;
  std::uint64_t answered = 0;
  std::uint64_t notRun = 0;
  std::uint64_t unknown = 0;
};

/// The result of an operation for one device. Key: `operation` and `device`.
struct OperationResultRecord {
  std::uint64_t operation = 0;
  DeviceId device = 0;
  std::int64_t time = 0;
  std::string outcome;
  std::string reason;
  std::string text;
  std::string output;  ///< what the device sent; empty after its retention time
};

}  // namespace runelgw

#endif  // RUNELGW_STORE_RECORDS_H_
