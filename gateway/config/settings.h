// SPDX-License-Identifier: Apache-2.0
// What an operator chooses. gateway/config/settings_table.cc has the key and the description of
// each.
#ifndef RUNELGW_CONFIG_SETTINGS_H_
#define RUNELGW_CONFIG_SETTINGS_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <runel/request.h>

namespace runelgw {

/// An address to listen on. The host is an IPv4 or IPv6 address without brackets; 0.0.0.0 and ::
/// stand for all interfaces. Port 0 lets the system choose.
struct Endpoint {
  std::string host;
  std::uint16_t port = 0;
};

/// Whether a device that is on no list is worked on.
enum class AdmissionMode {
  open,     ///< yes
  approve,  ///< when someone has approved it
  list,     ///< no: only devices of the allow list
};

/// What a new device is pinned to.
enum class PinMode {
  best,         ///< the name in its verified certificate, else its address
  certificate,  ///< the name in its verified certificate, else nothing
  nothing,
};

/// The highest level of messages that are logged.
enum class LogLevel { error, warning, info, debug };

/// `[devices]`: the connections of devices.
struct DeviceSettings {
  std::vector<Endpoint> listen = {{"0.0.0.0", 5112}};  ///< IPv4 only
  /// Addresses and networks (ADDRESS/BITS) of proxies. Each of their connections begins with a
  /// header of the PROXY protocol, version 2; no other connection may.
  std::vector<std::string> proxies;
  /// Addresses and networks with several devices behind one address. Only there a connection that
  /// has been silent for `sharedSilence` may be the task connection of another device.
  std::vector<std::string> sharedAddresses;
  runel::Milliseconds sharedSilence = std::chrono::seconds(75);
  /// How long known devices are not written to after a start that does not follow an orderly end.
  runel::Milliseconds caution = std::chrono::seconds(75);
  /// How many devices are asked for their identity in one second.
  unsigned identifyPerSecond = 1000;
  /// The longest time without a byte while the answer to a request of the gateway itself is due.
  runel::Milliseconds answerTimeout = std::chrono::seconds(30);
};

/// `[admission]`: which devices are worked on.
struct AdmissionSettings {
  AdmissionMode mode = AdmissionMode::open;
  PinMode pin = PinMode::best;
  ///@{
  /// Host identifiers, addresses and networks (ADDRESS/BITS). They complete those of the database.
  std::vector<std::string> allow;
  std::vector<std::string> deny;  ///< stronger than `allow`
  ///@}
};

/// `[queue]`: requests that wait for a device.
struct QueueSettings {
  std::size_t length = 64;  ///< requests for each device
  std::string spoolDirectory = "/var/lib/runelgw/spool";
  std::uint64_t spoolBytes = 1073741824;  ///< of all spooled frames
};

/// `[inventory]`: what the gateway asks devices by itself.
struct InventorySettings {
  runel::Milliseconds interval = std::chrono::hours(1);  ///< between two questions to one device
};

/// `[http]`: people and programs.
struct HttpListenSettings {
  /// Without a certificate only loopback addresses.
  std::vector<Endpoint> listen = {{"127.0.0.1", 5180}};
  ///@{
  /// PEM files. Empty: no TLS. SIGHUP reads them again.
  std::string certificate;
  std::string key;
  std::string clientCa;  ///< who signs client certificates; empty: none are asked for
  ///@}
  /// The names and addresses that a Host header may contain. Those of the loopback are always
  /// allowed.
  std::vector<std::string> hostNames;
  std::size_t maxConnections = 1000;
  std::size_t bodyBytes = 1048576;  ///< of a request, unless its route allows more
  runel::Milliseconds headerTimeout = std::chrono::seconds(10);
  runel::Milliseconds idleTimeout = std::chrono::seconds(60);
  runel::Milliseconds session = std::chrono::hours(12);  ///< how long a browser stays logged in
  double requestsPerSecond = 50;                         ///< for each token, on average
  double requestBurst = 200;                             ///< for each token, at once
};

/// `[database]`: where devices, tokens and history are kept.
struct DatabaseSettings {
  std::string url = "/var/lib/runelgw/fleet.db";  ///< a path for SQLite, or postgresql://...
  unsigned readers = 4;                           ///< threads that read
};

/// `[retention]`: how long records are kept.
struct RetentionSettings {
  runel::Milliseconds history = std::chrono::hours(24 * 90);
  runel::Milliseconds audit = std::chrono::hours(24 * 365);
  runel::Milliseconds clauses = std::chrono::hours(24);
  runel::Milliseconds outputs = std::chrono::hours(24 * 7);  ///< results of operations
};

/// `[service]`: the process.
struct ServiceSettings {
  std::string stateDirectory = "/var/lib/runelgw";
  std::string controlSocket = "/run/runelgw/control";
  LogLevel logLevel = LogLevel::info;
};

/// All settings, with their defaults.
struct Settings {
  DeviceSettings devices;
  AdmissionSettings admission;
  QueueSettings queue;
  InventorySettings inventory;
  HttpListenSettings http;
  DatabaseSettings database;
  RetentionSettings retention;
  ServiceSettings service;
};

}  // namespace runelgw

#endif  // RUNELGW_CONFIG_SETTINGS_H_
