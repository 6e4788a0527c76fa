// SPDX-License-Identifier: Apache-2.0
// A server on the loopback and clients that send exact bytes, in one thread.
#ifndef TESTS_UNIT_GATEWAY_HTTP_HTTP_CASE_H_
#define TESTS_UNIT_GATEWAY_HTTP_HTTP_CASE_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/unique_fd.h"
#include "gateway/http/http.h"

namespace runelgw::test {

/// Runs the server while @p pending is true, at most for a generous time. Returns whether it became
/// false.
using Pump = std::function<bool(const std::function<bool()>& pending)>;

/// A client without knowledge of HTTP.
class RawClient {
 public:
  RawClient(Pump pump, std::uint16_t port, const std::string& address = "127.0.0.1",
            int receiveBuffer = 0);

  /// Sends all @p bytes; runs the server when it does not take them.
  void send(const std::string& bytes);
  /// Sends what the socket takes now. Returns the number of bytes.
  std::size_t sendSome(const std::string& bytes);
  void shutdownSending();
  void close() { socket_.reset(); }
  /// Closes so that the server sees a reset.
  void reset();

  /// Runs the server until @p text has been received. Returns all bytes up to its end, and removes
  /// them.
  std::string until(const std::string& text);
  /// Runs the server until @p count bytes have been received. Returns and removes them.
  std::string bytes(std::size_t count);
  /// One answer: the head and the body with Content-Length.
  std::string response();
  /// Runs the server until it closes the connection. Returns all bytes until then.
  std::string untilEnd();
  /// Whether the server has closed the connection by now.
  bool ended();
  [[nodiscard]] int fd() const { return socket_.get(); }

 private:
  // Receives what is there, in parts, until at least @p enough bytes wait.
  void receive(std::size_t enough);

  Pump pump_;
  zell::UniqueFd socket_;
  std::string received_;
  bool ended_ = false;
};

/// The value of a header in @p response, or "(absent)".
std::string headerOf(const std::string& response, const std::string& name);
/// The number in the status line.
int statusOf(const std::string& response);
std::string bodyOf(const std::string& response);

class HttpCase : public testing::Test {
 public:
  HttpCase();
  ~HttpCase() override;

 protected:
  using Handler = std::function<void(std::shared_ptr<HttpExchange>)>;

  /// Starts the server. The default handler answers each request at once: its method and path.
  void start(HttpSettings settings = {}, Handler handler = {});
  /// The settings with one listener on 127.0.0.1 and a free port.
  static HttpSettings local();
  bool pump(const std::function<bool()>& pending);
  /// Lets the server do what it can do now.
  void settle();
  /// Lets the server run for @p time.
  void runFor(std::chrono::milliseconds time);
  RawClient client(int receiveBuffer = 0);
  /// The whole answer to @p request on a new connection, until its end.
  std::string answerTo(const std::string& request);

  HttpServer& server() { return *server_; }
  void destroyServer() { server_.reset(); }
  void stopServer(std::function<void()> done) { server_->stop(std::move(done)); }
  boost::asio::io_context& context();

  std::vector<std::shared_ptr<HttpExchange>> exchanges;  // of the handler `keep`
  Handler keep() {
    return [this](std::shared_ptr<HttpExchange> exchange) {
      exchanges.push_back(std::move(exchange));
    };
  }

 private:
  struct Loop;
  std::unique_ptr<Loop> loop_;
  std::unique_ptr<HttpServer> server_;
};

}  // namespace runelgw::test

#endif  // TESTS_UNIT_GATEWAY_HTTP_HTTP_CASE_H_
