// SPDX-License-Identifier: Apache-2.0
#include "unit/gateway/api/fixture.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "gateway/api/routes.h"

namespace runelgw {
namespace {

// Writes lines for check_answers.py, if it runs afterwards.
class AnswerFile {
 public:
  AnswerFile() {
    const char* const directory = std::getenv("RUNELGW_ANSWERS");
    if (directory == nullptr) {
      return;
    }
    std::filesystem::create_directories(directory);
    file_.open(std::string(directory) + "/answers");
    std::ofstream routes(std::string(directory) + "/routes");
    for (const RouteInfo& route : apiRoutes()) {
      routes << Json{{"method", route.method},           {"path", route.path},
                     {"operationId", route.operationId}, {"role", route.role},
                     {"parameters", route.parameters},   {"body", route.takesBody}}
             << "\n";
    }
    std::ofstream(std::string(directory) + "/document") << openApiDocument();
  }

  void add(const HttpRequest& request, unsigned status, const std::string& type,
           const std::string& body) {
    const RouteMatch match = findRoute(request.method, request.path);
    if (file_.is_open()) {
      const char* const operation = match.route == nullptr ? "" : match.route->operationId;
      file_ << Json{{"operationId", operation},
                    {"status", status},
                    {"type", type},
                    {"body", body},
                    {"request", request.method + " " + request.path}}
                   .dump(-1, ' ', true, Json::error_handler_t::replace)
            << std::endl;
    }
  }

 private:
  std::ofstream file_;
};

AnswerFile& answerFile() {
  static AnswerFile file;
  return file;
}

}  // namespace

std::string Got::problem() const {
  const std::string type = json.is_object() ? json.value("type", "") : "";
  return type.substr(type.rfind('/') + 1);
}

ApiTest::ApiTest() {
  restart();
  admin_ = makeToken("admin", Role::admin);
  operator_ = makeToken("operator", Role::deviceOperator);
  viewer_ = makeToken("viewer", Role::viewer);
}

void ApiTest::restart() {
  api_.reset();
  registry_.reset();
  const Clocks clocks{[this] { return wall_; }, [this] { return steady_; }};
  const AuthClocks authClocks{clocks.wall, clocks.steady};
  Snapshot snapshot;
  for (const auto& [id, token] : store_.tokens) {
    snapshot.tokens.push_back(token);
  }
  for (const auto& [id, operation] : store_.operations) {
    snapshot.nextOperation = id + 1;
    if (operation.state == "running") {
      snapshot.unfinished.push_back(operation);
    }
  }
  for (const auto& [name, value] : store_.settings) {
    snapshot.settings.push_back({name, value});
  }
  registry_ = std::make_unique<Registry>(registrySettings_, store_, clocks, snapshot, true);
  registry_->use(&link_);
  auth_ = std::make_unique<Auth>(authSettings_, store_, authClocks);
  auth_->load(snapshot.tokens, 1);
  metrics_ = std::make_unique<Metrics>();
  ApiHooks hooks;
  hooks.figures = [] { return Figures(); };
  hooks.notReady = [this] { return notReady_; };
  hooks.attach = [this](const std::shared_ptr<HttpExchange>&, std::shared_ptr<Permit> permit) {
    attached_ = std::move(permit);
  };
  hooks.log = [this](bool, const std::string& line) { log_.push_back(line); };
  api_ = std::make_unique<Api>(ApiParts{*registry_, router_, store_, *auth_, *metrics_}, settings_,
                               hooks, authClocks);
  api_->load(snapshot);
  store_.stateNow.connected = true;
  store_.run();
}

DeviceId ApiTest::connect(const std::string& hostid) {
  Place& place = places_[hostid];
  if (place.port == 0) {
    place.host = "10.0.0." + std::to_string(places_.size());
    place.port = 40000;
  }
  (void)registry_->silenceFor(place);
  registry_->connected(place, hostid, "controller");
  const Device* const device = registry_->find(hostid);
  EXPECT_NE(device, nullptr) << hostid;
  return device == nullptr ? 0 : device->id;
}

void ApiTest::disconnect(const std::string& hostid) {
  registry_->lost(places_[hostid], "the test has cut it off");
}

std::string ApiTest::makeToken(const std::string& name, Role role,
                               const std::vector<std::string>& groups,
                               const std::vector<std::string>& kinds) {
  TokenWish wish;
  wish.name = name;
  wish.role = role;
  wish.groups = groups;
  wish.kinds = kinds;
  std::string secret;
  auth_->create(wish, [&](runel::Result<NewToken> token) {
    ASSERT_TRUE(token) << token.error().text();
    secret = token->secret;
  });
  store_.run();
  return secret;
}

void ApiTest::makeGroupA() {
  ASSERT_TRUE(registry_->setGroup("a", "site=a"));
}

std::shared_ptr<FakeExchange> ApiTest::ask(const std::string& method, const std::string& target,
                                           const std::string& token, const std::string& body,
                                           const Headers& headers) {
  auto exchange = std::make_shared<FakeExchange>();
  HttpRequest& request = exchange->asked;
  request.method = method;
  request.target = target;
  request.path = target.substr(0, target.find('?'));
  for (std::size_t at = target.find('?'); at != std::string::npos;) {
    const std::size_t end = target.find('&', at + 1);
    const std::string pair = target.substr(at + 1, end == std::string::npos ? end : end - at - 1);
    const std::size_t equals = std::min(pair.find('='), pair.size());
    request.query.emplace_back(pair.substr(0, equals),
                               equals < pair.size() ? pair.substr(equals + 1) : "");
    at = end;
  }
  request.headers = headers;
  if (!token.empty()) {
    request.headers.emplace_back("authorization", "Bearer " + token);
  }
  if (!body.empty()) {
    request.headers.emplace_back("content-type", "application/json");
    request.body = body;
  }
  request.peer = peer_;
  request.tls = tls_;
  request.clientCertificate = certificate_;
  request.host = "localhost";
  api_->handle(exchange);
  store_.run();
  return exchange;
}

Got ApiTest::got(const std::shared_ptr<FakeExchange>& exchange) {
  Got got;
  EXPECT_LE(exchange->responses, 1);
  if (exchange->stream != nullptr) {
    got.status = 200;
    for (const FakeEventStream::Sent& event : exchange->stream->sent) {
      answerFile().add(exchange->asked, 200, "text/event-stream", event.data);
    }
    return got;
  }
  if (!exchange->answer) {
    return got;
  }
  got.status = exchange->answer->status;
  got.text = exchange->answer->body;
  for (const auto& [name, value] : exchange->answer->headers) {
    got.headers[name] = value;
    EXPECT_EQ(value.find_first_of("\r\n"), std::string::npos) << name;
  }
  got.json = Json::parse(got.text, nullptr, false);
  answerFile().add(exchange->asked, got.status, got.headers["Content-Type"], got.text);
  return got;
}

Got ApiTest::call(const std::string& method, const std::string& target, const std::string& token,
                  const Json& body, const Headers& headers) {
  return got(ask(method, target, token, body.is_null() ? "" : body.dump(), headers));
}

Answer ApiTest::answered(const std::string& output, const std::string& numbers) {
  return {Outcome::answered, Reason::none, "",
          Payload("SlaveTask 0 0 " + std::to_string(output.size()) + ":" + output + " " + numbers)};
}

}  // namespace runelgw
