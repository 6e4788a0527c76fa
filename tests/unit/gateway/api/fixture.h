// SPDX-License-Identifier: Apache-2.0
// An API with devices and tokens, without a server, a database and connections.
#ifndef UNIT_GATEWAY_API_FIXTURE_H_
#define UNIT_GATEWAY_API_FIXTURE_H_

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "fakes/gateway/fake_exchange.h"
#include "fakes/gateway/fake_router.h"
#include "fakes/gateway/fake_store.h"
#include "gateway/api/api.h"
#include "gateway/auth/auth.h"
#include "gateway/fleet/registry.h"
#include "gateway/metrics/metrics.h"

namespace runelgw {

using Json = nlohmann::json;

/// What a client got.
struct Got {
  unsigned status = 0;  ///< 0: no answer yet
  std::map<std::string, std::string> headers;
  std::string text;
  Json json;
  /// The last part of the type of a problem.
  [[nodiscard]] std::string problem() const;
};

class ApiTest : public testing::Test {
 protected:
  using Headers = std::vector<std::pair<std::string, std::string>>;

  ApiTest();

  /// Makes the parts again, with what the store has.
  void restart();
  /// A device at a separate address that is online.
  DeviceId connect(const std::string& hostid);
  void disconnect(const std::string& hostid);
  std::string makeToken(const std::string& name, Role role,
                        const std::vector<std::string>& groups = {},
                        const std::vector<std::string>& kinds = {});
  /// The group "a" has the devices with the tag site=a.
  void makeGroupA();

  /// Makes a request and lets the store work. @p target has a query that is not encoded.
  std::shared_ptr<FakeExchange> ask(const std::string& method, const std::string& target,
                                    const std::string& token, const std::string& body = "",
                                    const Headers& headers = {});
  /// The answer to @p exchange, which is written to the file for the check of all answers.
  Got got(const std::shared_ptr<FakeExchange>& exchange);
  Got call(const std::string& method, const std::string& target, const std::string& token,
           const Json& body = nullptr, const Headers& headers = {});
  Got get(const std::string& target, const std::string& token = "") {
    return call("GET", target, token.empty() ? admin_ : token);
  }
  Got post(const std::string& target, const Json& body, const std::string& token = "") {
    return call("POST", target, token.empty() ? admin_ : token, body);
  }

  /// The text form of a reply.
  static Answer answered(const std::string& output, const std::string& numbers = "0 0 0 0 0");

  std::int64_t wall_ = 1700000000000;
  runel::Clock::time_point steady_ = runel::Clock::time_point() + std::chrono::hours(1);
  FakeStore store_;
  FakeRouter router_;
  ApiSettings settings_;
  AuthSettings authSettings_;
  RegistrySettings registrySettings_;
  std::unique_ptr<Registry> registry_;
  std::unique_ptr<Auth> auth_;
  std::unique_ptr<Metrics> metrics_;
  std::unique_ptr<Api> api_;
  std::vector<std::string> log_;
  std::shared_ptr<Permit> attached_;
  std::optional<std::string> notReady_;
  std::string peer_ = "192.0.2.1";
  bool tls_ = false;
  std::string certificate_;
  std::string admin_, operator_, viewer_;

 private:
  class Link : public LinkControl {
    void bind(const Place&, DeviceId) override {}
    void silence(const Place&, Reason) override {}
  };

  Link link_;
  std::map<std::string, Place> places_;
};

}  // namespace runelgw

#endif  // UNIT_GATEWAY_API_FIXTURE_H_
