// SPDX-License-Identifier: Apache-2.0
#include "gateway/config/settings_table.h"

#include <algorithm>
#include <chrono>

#include <runel/async_master.h>

#include "gateway/config/places.h"
#include "text/utf8.h"

namespace runelgw {
namespace {

constexpr std::uint64_t kKib = 1024;
constexpr std::uint64_t kTib = kKib * kKib * kKib * kKib;
constexpr std::uint64_t kLargestFrame = 256 * kKib * kKib;
constexpr double kMostSeconds = 86400.0 * 30;
constexpr double kMostDays = 36500;
constexpr std::size_t kLongestSocketPath = 107;  // of sockaddr_un
constexpr runel::Milliseconds kSecond = std::chrono::seconds(1);
constexpr runel::Milliseconds kHour = std::chrono::hours(1);
constexpr runel::Milliseconds kDay = std::chrono::hours(24);

// Valid UTF-8 without control characters: what the file may contain.
bool isPlain(const std::string& text) {
  return zell::isUtf8(text) && std::none_of(text.begin(), text.end(), [](char byte) {
           return (byte >= 0 && byte < ' ') || byte == '\x7f';
         });
}

bool isPath(const std::string& text) {
  return text.size() > 1 && text.front() == '/' && isPlain(text);
}

bool isEmptyOrPath(const std::string& text) {
  return text.empty() || isPath(text);
}

bool isSocketPath(const std::string& text) {
  return isPath(text) && text.size() <= kLongestSocketPath;
}

bool isDatabase(const std::string& text) {
  constexpr char kPostgresql[] = "postgresql://";
  return isPath(text) ||
         (isPlain(text) && text.compare(0, sizeof kPostgresql - 1, kPostgresql) == 0);
}

bool isNetwork(const std::string& text) {
  return text.find(',') == std::string::npos && runel::MasterOptions().allowAddresses(text).ok();
}

// Any host identifier may be on a list, and an identifier may look like anything.
bool isListed(const std::string& text) {
  return !text.empty() && isPlain(text);
}

bool isHostName(const std::string& text) {
  constexpr char kAllowed[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-:[]";
  return !text.empty() && text.find_first_not_of(kAllowed) == std::string::npos;
}

constexpr TextRule kPath{isPath, "an absolute path"};
constexpr TextRule kEmptyOrPath{isEmptyOrPath, "an absolute path, or an empty text"};
constexpr TextRule kSocketPath{isSocketPath, "an absolute path of at most 107 bytes"};
constexpr TextRule kDatabase{isDatabase, "an absolute path, or postgresql://..."};
constexpr TextRule kNetworks{isNetwork, "ADDRESS and ADDRESS/BITS (IPv4)"};
constexpr TextRule kListed{isListed, "host identifiers, addresses and networks"};
constexpr TextRule kHostNames{isHostName, "host names and addresses, without ports"};

const std::vector<SettingRow> kRows = {
    {"devices", "listen", "ADDRESS:PORT,...",
     "The IPv4 addresses on which devices connect. 0.0.0.0 stands for all interfaces.",
     [](Settings& s) { return endpointsPlace(s.devices.listen, true); }},
    {"devices", "proxies", "NETWORK,...",
     "Proxies in front of the gateway. Each of their connections begins with a header of the PROXY "
     "protocol, version 2. No other connection may begin with one.",
     [](Settings& s) { return listPlace(s.devices.proxies, kNetworks); }},
    {"devices", "shared_addresses", "NETWORK,...",
     "Networks in which several devices share one address. Only there, a connection that was "
     "silent for shared_silence_seconds may be used as the task connection of another device. If "
     "it is the connection of an agent, the first request stops that daemon.",
     [](Settings& s) { return listPlace(s.devices.sharedAddresses, kNetworks); }},
    {"devices", "shared_silence_seconds", "SECONDS",
     "How long a further connection from a shared address must be silent before it is used.",
     [](Settings& s) { return timePlace(s.devices.sharedSilence, kSecond, 1, kMostSeconds); }},
    {"devices", "caution_seconds", "SECONDS",
     "How long nothing is written to known devices after a start that does not follow an orderly "
     "end: a daemon may still have its old connection, and the new one may be that of its agent.",
     [](Settings& s) { return timePlace(s.devices.caution, kSecond, 0, kMostSeconds); }},
    {"devices", "identify_per_second", "NUMBER",
     "How many devices are asked for their identity in one second. Connections are accepted at "
     "once.",
     [](Settings& s) { return countPlace(s.devices.identifyPerSecond, 1, 100000); }},
    {"devices", "answer_timeout_seconds", "SECONDS",
     "The longest time without a byte from a device that owes an answer to the gateway itself.",
     [](Settings& s) { return timePlace(s.devices.answerTimeout, kSecond, 0.1, kMostSeconds); }},

    {"admission", "mode", "MODE",
     "\"open\": each device is worked on. \"approve\": a new device waits for approval. \"list\": "
     "only devices of the allow list are worked on.",
     [](Settings& s) {
       return enumPlace(s.admission.mode, {"open", "approve", "list"});
     }},
    {"admission", "pin", "WHAT",
     "What a new device is pinned to: \"best\" is the name in its certificate, which a proxy has "
     "verified, or without one its address; \"certificate\" is only that name; \"nothing\". A "
     "connection from elsewhere with the same identity is quarantined.",
     [](Settings& s) {
       return enumPlace(s.admission.pin, {"best", "certificate", "nothing"});
     }},
    {"admission", "allow", "ITEM,...",
     "Host identifiers, addresses and networks of devices that are worked on, in addition to the "
     "list in the database.",
     [](Settings& s) { return listPlace(s.admission.allow, kListed); }},
    {"admission", "deny", "ITEM,...",
     "Host identifiers, addresses and networks of devices that are never worked on. Stronger than "
     "allow.",
     [](Settings& s) { return listPlace(s.admission.deny, kListed); }},

    {"queue", "length", "NUMBER",
     "How many requests may wait for one device. A further one is answered \"busy\".",
     [](Settings& s) { return countPlace(s.queue.length, 1, 10000); }},
    {"queue", "spool_directory", "DIRECTORY",
     "The directory of the temporary file for frames above 1 MiB, which reach a device when they "
     "are complete.",
     [](Settings& s) { return textPlace(s.queue.spoolDirectory, kPath); }},
    {"queue", "spool_bytes", "BYTES", "The limit of that file. Beyond it a frame is refused.",
     [](Settings& s) { return countPlace(s.queue.spoolBytes, 0, kTib); }},

    {"inventory", "interval_seconds", "SECONDS",
     "The time between two questions to a device for its kernel and its free space. It is also "
     "asked when it connects.",
     [](Settings& s) { return timePlace(s.inventory.interval, kSecond, 1, kMostSeconds); }},

    {"http", "listen", "ADDRESS:PORT,...",
     "The addresses of the HTTP interface. Without a certificate only loopback addresses are "
     "allowed.",
     [](Settings& s) { return endpointsPlace(s.http.listen, false); }},
    {"http", "certificate", "FILE",
     "The certificate of the gateway with its chain, in PEM format. SIGHUP reads it and the key "
     "again.",
     [](Settings& s) { return textPlace(s.http.certificate, kEmptyOrPath); }},
    {"http", "key", "FILE", "The private key of the certificate, in PEM format.",
     [](Settings& s) { return textPlace(s.http.key, kEmptyOrPath); }},
    {"http", "client_ca", "FILE",
     "The authorities that sign certificates of clients, in PEM format. Empty: clients are not "
     "asked for certificates.",
     [](Settings& s) { return textPlace(s.http.clientCa, kEmptyOrPath); }},
    {"http", "host_names", "NAME,...",
     "The names and addresses by which clients call the gateway, as in the Host header. "
     "\"localhost\" and the addresses of the loopback are always allowed.",
     [](Settings& s) { return listPlace(s.http.hostNames, kHostNames); }},
    {"http", "max_connections", "NUMBER", "How many clients may be connected.",
     [](Settings& s) { return countPlace(s.http.maxConnections, 1, 100000); }},
    {"http", "body_bytes", "BYTES", "The largest body of a request.",
     [](Settings& s) { return countPlace(s.http.bodyBytes, kKib, kLargestFrame); }},
    {"http", "header_timeout_seconds", "SECONDS",
     "How long a client may take to send the header of a request.",
     [](Settings& s) { return timePlace(s.http.headerTimeout, kSecond, 0.1, kMostSeconds); }},
    {"http", "idle_timeout_seconds", "SECONDS", "How long a connection without a request is kept.",
     [](Settings& s) { return timePlace(s.http.idleTimeout, kSecond, 0.1, kMostSeconds); }},
    {"http", "session_hours", "HOURS", "How long a browser stays logged in.",
     [](Settings& s) { return timePlace(s.http.session, kHour, 0.01, 8760); }},
    {"http", "requests_per_second", "NUMBER",
     "How many requests a token may make in one second, on average.",
     [](Settings& s) { return numberPlace(s.http.requestsPerSecond, 0.001, 1000000); }},
    {"http", "request_burst", "NUMBER", "How many requests a token may make at once.",
     [](Settings& s) { return numberPlace(s.http.requestBurst, 1, 1000000); }},

    {"database", "url", "DATABASE",
     "The path of a SQLite database, or postgresql://[USER[:PASSWORD]@]HOST[:PORT]/NAME.",
     [](Settings& s) { return textPlace(s.database.url, kDatabase); }},
    {"database", "readers", "NUMBER", "How many threads read from the database.",
     [](Settings& s) { return countPlace(s.database.readers, 1, 64); }},

    {"retention", "history_days", "DAYS", "How long the history of devices is kept.",
     [](Settings& s) { return timePlace(s.retention.history, kDay, 0.01, kMostDays); }},
    {"retention", "audit_days", "DAYS", "How long the record of changes is kept.",
     [](Settings& s) { return timePlace(s.retention.audit, kDay, 0.01, kMostDays); }},
    {"retention", "clause_hours", "HOURS", "How long the clauses of agents are kept.",
     [](Settings& s) { return timePlace(s.retention.clauses, kHour, 0.01, kMostDays * 24); }},
    {"retention", "output_days", "DAYS", "How long the results of operations are kept.",
     [](Settings& s) { return timePlace(s.retention.outputs, kDay, 0.01, kMostDays); }},

    {"service", "state_directory", "DIRECTORY", "The directory of what the gateway itself stores.",
     [](Settings& s) { return textPlace(s.service.stateDirectory, kPath); }},
    {"service", "control_socket", "FILE",
     "The socket on which the commands \"token\", \"backup\" and \"restore\" reach the gateway. "
     "Only its own user and root can connect.",
     [](Settings& s) { return textPlace(s.service.controlSocket, kSocketPath); }},
    {"service", "log_level", "LEVEL",
     "What is logged: \"error\", \"warning\", \"info\" or \"debug\" and what is more severe.",
     [](Settings& s) {
       return enumPlace(s.service.logLevel, {"error", "warning", "info", "debug"});
     }},
};

const std::vector<SettingSection> kSections = {
    {"devices", "The connections of devices"},
    {"admission", "Which devices are worked on"},
    {"queue", "Requests that wait for a device"},
    {"inventory", "What the gateway asks devices by itself"},
    {"http", "The interface for users and programs"},
    {"database", "Where devices, tokens and records are kept"},
    {"retention", "How long records are kept"},
    {"service", "The process"},
};

}  // namespace

std::string SettingRow::name() const {
  return std::string(section) + "." + std::string(key);
}

std::string SettingRow::option() const {
  std::string option = "--" + std::string(section) + "-" + std::string(key);
  std::replace(option.begin(), option.end(), '_', '-');
  return option;
}

const std::vector<SettingSection>& settingSections() {
  return kSections;
}

const std::vector<SettingRow>& settingRows() {
  return kRows;
}

}  // namespace runelgw
