// SPDX-License-Identifier: Apache-2.0
#include "gateway/metrics/metrics.h"

#include <map>
#include <string>
#include <utility>
#include <vector>

#include <prometheus/counter.h>
#include <prometheus/family.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>
#include <prometheus/text_serializer.h>

#include "gateway/metrics/process_figures.h"
#include "protocol/task_table.h"

namespace runelgw {
namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

// One figure with at most one label. Rows of one family stand together.
struct Row {
  const char* name;
  const char* help;
  MetricType type;
  const char* label;
  const char* value;
  double (*read)(const Figures& figures);
};

template <auto kMember>
double get(const Figures& figures) {
  return static_cast<double>(figures.*kMember);
}

double lastCommitSeconds(const Figures& figures) {
  return static_cast<double>(figures.lastCommit) / 1000;
}

constexpr MetricType kGauge = MetricType::Gauge;
constexpr MetricType kCounter = MetricType::Counter;

constexpr const char* kDevices = "Devices by their state";
constexpr const char* kLinks = "Connections of devices by their use";
constexpr const char* kBytes = "Bytes of connections of devices";
constexpr const char* kHttpBytes = "Bytes of connections of clients";
constexpr const char* kDatabaseTime = "Time in the database";
constexpr const char* kDatabaseErrors = "Writes that the database or its full queue refused";

constexpr Row kRows[] = {
    {"runelgw_devices", kDevices, kGauge, "state", "online", get<&Figures::online>},
    {"runelgw_devices", kDevices, kGauge, "state", "offline", get<&Figures::offline>},
    {"runelgw_devices", kDevices, kGauge, "state", "waiting", get<&Figures::waiting>},
    {"runelgw_devices", kDevices, kGauge, "state", "denied", get<&Figures::denied>},
    {"runelgw_devices", kDevices, kGauge, "state", "quarantined", get<&Figures::quarantined>},
    {"runelgw_identification_queue", "Connections that wait for their turn to be identified",
     kGauge, nullptr, nullptr, get<&Figures::unidentified>},
    {"runelgw_device_connections", kLinks, kGauge, "use", "tasks", get<&Figures::identified>},
    {"runelgw_device_connections", kLinks, kGauge, "use", "silent", get<&Figures::silent>},
    {"runelgw_device_connections", kLinks, kGauge, "use", "additional", get<&Figures::additional>},
    {"runelgw_requests_queued", "Requests to devices without an answer", kGauge, nullptr, nullptr,
     get<&Figures::queued>},
    {"runelgw_devices_busy", "Devices with such requests", kGauge, nullptr, nullptr,
     get<&Figures::busyDevices>},
    {"runelgw_request_retries_total", "Requests that were sent again after a loss", kCounter,
     nullptr, nullptr, get<&Figures::retries>},
    {"runelgw_device_bytes_total", kBytes, kCounter, "direction", "sent",
     get<&Figures::bytesToDevices>},
    {"runelgw_device_bytes_total", kBytes, kCounter, "direction", "received",
     get<&Figures::bytesFromDevices>},
    {"runelgw_spool_bytes", "Bytes that the temporary file holds", kGauge, nullptr, nullptr,
     get<&Figures::spooledBytes>},
    {"runelgw_inventory_rounds_total", "Rounds of questions to a device", kCounter, nullptr,
     nullptr, get<&Figures::inventoryRounds>},
    {"runelgw_inventory_failures_total", "Questions without a usable answer", kCounter, nullptr,
     nullptr, get<&Figures::inventoryFailures>},
    {"runelgw_http_connections", "Connections of clients", kGauge, nullptr, nullptr,
     get<&Figures::httpConnections>},
    {"runelgw_websockets", "Open WebSockets", kGauge, nullptr, nullptr, get<&Figures::webSockets>},
    {"runelgw_event_streams", "Open streams of events", kGauge, nullptr, nullptr,
     get<&Figures::eventStreams>},
    {"runelgw_http_connections_total", "Accepted connections of clients", kCounter, nullptr,
     nullptr, get<&Figures::httpAccepted>},
    {"runelgw_http_connections_refused_total", "Connections of clients above a limit", kCounter,
     nullptr, nullptr, get<&Figures::httpRefused>},
    {"runelgw_http_malformed_total", "Requests that the HTTP server refused itself", kCounter,
     nullptr, nullptr, get<&Figures::httpMalformed>},
    {"runelgw_http_bytes_total", kHttpBytes, kCounter, "direction", "received",
     get<&Figures::httpBytesIn>},
    {"runelgw_http_bytes_total", kHttpBytes, kCounter, "direction", "sent",
     get<&Figures::httpBytesOut>},
    {"runelgw_database_up", "Whether the last attempt to reach the database succeeded", kGauge,
     nullptr, nullptr, get<&Figures::databaseConnected>},
    {"runelgw_database_queue", "Changes that are not committed", kGauge, nullptr, nullptr,
     get<&Figures::databaseQueued>},
    {"runelgw_database_reads_waiting", "Reads that wait for a reader", kGauge, nullptr, nullptr,
     get<&Figures::databaseReadsWaiting>},
    {"runelgw_database_commits_total", "Commits", kCounter, nullptr, nullptr,
     get<&Figures::commits>},
    {"runelgw_database_changes_total", "Committed changes", kCounter, nullptr, nullptr,
     get<&Figures::changes>},
    {"runelgw_database_reads_total", "Reads", kCounter, nullptr, nullptr, get<&Figures::reads>},
    {"runelgw_database_errors_total", kDatabaseErrors, kCounter, "reason", "failed",
     get<&Figures::failedWrites>},
    {"runelgw_database_errors_total", kDatabaseErrors, kCounter, "reason", "queue",
     get<&Figures::refusedWrites>},
    {"runelgw_database_seconds_total", kDatabaseTime, kCounter, "work", "commit",
     get<&Figures::commitSeconds>},
    {"runelgw_database_seconds_total", kDatabaseTime, kCounter, "work", "read",
     get<&Figures::readSeconds>},
    {"runelgw_database_last_commit_timestamp_seconds", "Time of the last commit", kGauge, nullptr,
     nullptr, lastCommitSeconds},
    {"runelgw_sessions", "Logged-in browsers", kGauge, nullptr, nullptr, get<&Figures::sessions>},
    {"runelgw_operations_running", "Operations on many devices that run", kGauge, nullptr, nullptr,
     get<&Figures::runningOperations>},
    {"runelgw_event_subscribers", "Subscribers of events", kGauge, nullptr, nullptr,
     get<&Figures::eventSubscribers>},
};

void add(std::vector<MetricFamily>& families, const char* name, const char* help, MetricType type,
         ClientMetric metric) {
  if (families.empty() || families.back().name != name) {
    MetricFamily family;
    family.name = name;
    family.help = help;
    family.type = type;
    families.push_back(std::move(family));
  }
  families.back().metric.push_back(std::move(metric));
}

ClientMetric valueOf(MetricType type, double value) {
  ClientMetric metric;
  if (type == MetricType::Counter) {
    metric.counter.value = value;
  } else {
    metric.gauge.value = value;
  }
  return metric;
}

void addFigures(std::vector<MetricFamily>& families, const Figures& figures) {
  for (const Row& row : kRows) {
    ClientMetric metric = valueOf(row.type, row.read(figures));
    if (row.label != nullptr) {
      metric.label.push_back({row.label, row.value});
    }
    add(families, row.name, row.help, row.type, std::move(metric));
  }
}

void addProcess(std::vector<MetricFamily>& families) {
  const ProcessFigures process = processFigures();
  add(families, "process_cpu_seconds_total", "Processor time", kCounter,
      valueOf(kCounter, process.cpuSeconds));
  add(families, "process_resident_memory_bytes", "Resident memory", kGauge,
      valueOf(kGauge, process.residentBytes));
  add(families, "process_open_fds", "Open descriptors", kGauge,
      valueOf(kGauge, process.descriptors));
  add(families, "process_max_fds", "The limit of open descriptors", kGauge,
      valueOf(kGauge, process.maxDescriptors));
  ClientMetric version = valueOf(kGauge, 1);
  version.label.push_back({"version", RUNELGW_VERSION});
  add(families, "runelgw_build_info", "The version of the gateway", kGauge, std::move(version));
}

const char* labelOf(Outcome outcome) {
  switch (outcome) {
    case Outcome::answered:
      return "answered";
    case Outcome::notRun:
      return "not-run";
    case Outcome::unknown:
      return "unknown";
  }
  return "unknown";
}

const std::vector<double> kSeconds = {0.0005, 0.001, 0.002, 0.005, 0.01, 0.025, 0.05, 0.1,
                                      0.25,   0.5,   1,     2.5,   5,    10,    30,   60};

}  // namespace

struct Metrics::Data {
  template <typename Metric>
  using Family = prometheus::Family<Metric>;

  prometheus::Registry registry;
  Family<prometheus::Counter>& requests =
      prometheus::BuildCounter()
          .Name("runelgw_requests_total")
          .Help("Ended requests to devices; unknown: it is not known whether the task ran")
          .Register(registry);
  Family<prometheus::Counter>& failures =
      prometheus::BuildCounter()
          .Name("runelgw_requests_failed_total")
          .Help("Requests to devices without an answer, by the reason")
          .Register(registry);
  Family<prometheus::Histogram>& requestSeconds =
      prometheus::BuildHistogram()
          .Name("runelgw_request_seconds")
          .Help("Time from a request to a device to its answer, the wait in the queue included")
          .Register(registry);
  Family<prometheus::Counter>& http = prometheus::BuildCounter()
                                          .Name("runelgw_http_requests_total")
                                          .Help("Answered HTTP requests")
                                          .Register(registry);
  Family<prometheus::Histogram>& httpSeconds = prometheus::BuildHistogram()
                                                   .Name("runelgw_http_request_seconds")
                                                   .Help("Time from an HTTP request to its answer")
                                                   .Register(registry);

  // The labels of a family are a map, which is hashed for each look-up: keep the last step short.
  std::map<std::pair<std::string_view, Outcome>, prometheus::Counter*> requestCounters;
  std::map<std::string_view, prometheus::Histogram*> requestTimes;
};

Metrics::Metrics() : data_(std::make_unique<Data>()) {}
Metrics::~Metrics() = default;

void Metrics::requestEnded(std::string_view task, Outcome outcome, Reason reason, double seconds) {
  const zell::TaskTraits* const row = zell::findTask(task);
  const std::string_view name = row == nullptr ? "other" : row->name;
  prometheus::Counter*& counter = data_->requestCounters[{name, outcome}];
  if (counter == nullptr) {
    counter = &data_->requests.Add({{"task", std::string(name)}, {"outcome", labelOf(outcome)}});
  }
  counter->Increment();
  if (outcome != Outcome::answered) {
    data_->failures.Add({{"outcome", labelOf(outcome)}, {"reason", codeOf(reason)}}).Increment();
    return;
  }
  prometheus::Histogram*& times = data_->requestTimes[name];
  if (times == nullptr) {
    times = &data_->requestSeconds.Add({{"task", std::string(name)}}, kSeconds);
  }
  times->Observe(seconds);
}

void Metrics::httpEnded(std::string_view operation, unsigned status, double seconds) {
  const std::string name(operation);
  data_->http.Add({{"operation", name}, {"status", std::to_string(status)}}).Increment();
  data_->httpSeconds.Add({{"operation", name}}, kSeconds).Observe(seconds);
}

std::string Metrics::text(const Figures& figures) const {
  std::vector<MetricFamily> families = data_->registry.Collect();
  addFigures(families, figures);
  addProcess(families);
  return prometheus::TextSerializer().Serialize(families);
}

const char* Metrics::contentType() {
  return "text/plain; version=0.0.4; charset=utf-8";
}

}  // namespace runelgw
