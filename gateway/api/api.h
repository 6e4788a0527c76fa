// SPDX-License-Identifier: Apache-2.0
// The HTTP API of the gateway: routes, who may use them, and what they do.
#ifndef RUNELGW_API_API_H_
#define RUNELGW_API_API_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <runel/loop.h>
#include <runel/result.h>

#include "gateway/auth/auth.h"
#include "gateway/core/permit.h"
#include "gateway/core/router.h"
#include "gateway/fleet/registry.h"
#include "gateway/http/http.h"
#include "gateway/metrics/metrics.h"
#include "gateway/store/store.h"

namespace runelgw {

/// The neighbours. All must outlive the API.
struct ApiParts {
  Registry& registry;
  Router& router;
  Store& store;
  Auth& auth;
  Metrics& metrics;
};

struct ApiSettings {
  ///@{
  /// Longest bodies of requests, in bytes.
  std::size_t bodyBytes = 1048576;
  std::size_t taskBodyBytes = 8388608;  ///< of requests with contents for devices
  ///@}
  std::size_t outputBytes = 8388608;   ///< of one task in an answer; more is cut
  std::size_t resultBytes = 65536;     ///< of one device in an operation; more is cut
  std::size_t parallel = 100;          ///< devices at once of an operation, by default
  std::size_t mostParallel = 1000;     ///< devices at once of an operation
  std::size_t mostOperations = 100;    ///< that run at the same time
  std::size_t mostEventStreams = 500;  ///< of all clients
  std::size_t mostEventStreamsOfToken = 50;
  runel::Milliseconds deadline{30000};  ///< of a task without a chosen one
  bool openMetrics = false;             ///< /metrics needs no token
};

/// What the API asks of the program. All may be empty.
struct ApiHooks {
  /// The figures of all parts, for /metrics.
  std::function<Figures()> figures;
  /// Why the gateway is not ready, as a sentence; nothing when it is.
  std::function<std::optional<std::string>()> notReady;
  /// Takes over the WebSocket of a client that may do what the permit says.
  std::function<void(std::shared_ptr<HttpExchange>, std::shared_ptr<Permit>)> attach;
  /// Writes a line to the log. @p warning: something was refused or has failed.
  std::function<void(bool warning, const std::string& line)> log;
};

/// Serves the requests of clients. Belongs to the I/O thread.
class Api {
 public:
  Api(ApiParts parts, ApiSettings settings, ApiHooks hooks, AuthClocks clocks = systemClocks());
  ~Api();
  Api(const Api&) = delete;
  Api& operator=(const Api&) = delete;

  /// Takes what operations left: those that a former process did not end are interrupted.
  void load(const Snapshot& snapshot);

  /// Answers the request of @p exchange, now or later.
  void handle(const std::shared_ptr<HttpExchange>& exchange);
  /// The longest body that @p request may have, for HttpSettings::bodyLimit. The path and the
  /// headers are enough.
  [[nodiscard]] std::size_t bodyLimit(const HttpRequest& request) const;

  /// Call it once a second: ends the streams of clients that have lost their rights, and forgets
  /// what is too old.
  void tick();
  /// Starts nothing more on devices. Call it before the router stops.
  void stop();

  [[nodiscard]] std::size_t runningOperations() const;

 private:
  struct Data;
  std::unique_ptr<Data> data_;
};

/// One route, for tests and documents.
struct RouteInfo {
  std::string method;
  std::string path;  ///< "/v1/devices/{name}"
  std::string operationId;
  std::string role;  ///< "none", "viewer", "operator", "admin" or "unlimited admin"
  std::vector<std::string> parameters;  ///< of the query
  bool changes = false;
  bool takesBody = false;
};

/// The table of routes.
[[nodiscard]] std::vector<RouteInfo> apiRoutes();
/// The OpenAPI document, as it is served.
[[nodiscard]] std::string_view openApiDocument();

}  // namespace runelgw

#endif  // RUNELGW_API_API_H_
