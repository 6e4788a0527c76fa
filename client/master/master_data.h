// SPDX-License-Identifier: Apache-2.0
// The contents of the master's public value classes.
#ifndef RUNEL_MASTER_MASTER_DATA_H_
#define RUNEL_MASTER_MASTER_DATA_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <runel/address.h>
#include <runel/async_master.h>
#include <runel/events.h>

#include "client/master/access_list.h"
#include "client/master/device_history.h"

namespace runel {
inline namespace v1 {

struct MasterOptions::Data {
  struct Listen {
    std::string host;
    std::uint16_t port;
  };
  std::vector<Listen> listen{{"127.0.0.1", kMasterListenPort}};
  AccessList access;
  AccessList proxies;
  AccessList sharedAddresses;
  std::optional<Milliseconds> shared;
  Milliseconds timeout{30000};
  std::size_t identifyRate = 0;
  std::size_t held = 0;
  std::size_t history = 4096;
  Policy policy;
};

struct MasterEvent::Data {
  Type type = Type::problem;
  std::string device;
  std::string hostid;
  std::string rawHostid;
  std::string deviceType;
  std::string host;
  std::uint16_t port = 0;
  std::string certificate;
  std::string taskPlace;
  std::string text;
  Refusal refusal = Refusal::none;
  bool fromAgent = false;
};

struct DeviceInfo::Data {
  std::string name;
  std::string hostid;
  std::string deviceType;
  std::string host;
  std::uint16_t port = 0;
  std::string certificate;
  std::int64_t since = 0;
  Milliseconds age{0};
  DeviceHistory::Entry history;  ///< `earlier` includes the counters of this connection
  std::size_t users = 0;
  std::size_t additional = 0;
  std::size_t agents = 0;
  std::uint64_t clauses = 0;
};

}  // namespace v1
}  // namespace runel

#endif  // RUNEL_MASTER_MASTER_DATA_H_
