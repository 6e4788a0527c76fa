// SPDX-License-Identifier: Apache-2.0
// A request without a server, and what it was answered with.
#ifndef FAKES_GATEWAY_FAKE_EXCHANGE_H_
#define FAKES_GATEWAY_FAKE_EXCHANGE_H_

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "gateway/http/http.h"

namespace runelgw {

class FakeEventStream : public EventStream {
 public:
  struct Sent {
    std::string id, event, data;
  };

  bool send(const std::string& id, const std::string& event, const std::string& data) override {
    if (ended) {
      return false;
    }
    sent.push_back({id, event, data});
    return true;
  }
  [[nodiscard]] std::size_t queued() const override { return 0; }
  void close() override { ended = true; }
  [[nodiscard]] bool gone() const override { return ended; }
  void onGone(std::function<void()> gone) override { (void)gone; }

  std::vector<Sent> sent;
  bool ended = false;
};

class FakeExchange : public HttpExchange {
 public:
  [[nodiscard]] const HttpRequest& request() const override { return asked; }
  void respond(HttpResponse response) override {
    ++responses;
    answer = std::move(response);
  }
  [[nodiscard]] std::shared_ptr<EventStream> startEvents(HttpFields headers) override {
    (void)headers;
    stream = std::make_shared<FakeEventStream>();
    return stream;
  }
  void upgrade(std::shared_ptr<WebSocketHandler> handler, std::string subprotocol) override {
    (void)handler;
    upgraded = std::move(subprotocol);
  }
  [[nodiscard]] bool gone() const override { return false; }
  void onGone(std::function<void()> gone) override { (void)gone; }

  HttpRequest asked;
  std::optional<HttpResponse> answer;
  int responses = 0;
  std::shared_ptr<FakeEventStream> stream;
  std::optional<std::string> upgraded;
};

}  // namespace runelgw

#endif  // FAKES_GATEWAY_FAKE_EXCHANGE_H_
