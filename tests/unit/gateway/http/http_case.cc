// SPDX-License-Identifier: Apache-2.0
#include "unit/gateway/http/http_case.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <utility>

#include <boost/asio/io_context.hpp>

namespace runelgw::test {
namespace {

constexpr std::chrono::seconds kLongestRun(60);
constexpr std::size_t kPart = 1024;
constexpr std::size_t kAll = 1U << 30U;

}  // namespace

RawClient::RawClient(Pump pump, std::uint16_t port, const std::string& address, int receiveBuffer)
    : pump_(std::move(pump)) {
  const bool six = address.find(':') != std::string::npos;
  socket_.reset(socket(six ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (receiveBuffer > 0) {
    setsockopt(socket_.get(), SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
  }
  sockaddr_storage storage{};
  socklen_t size = sizeof(sockaddr_in);
  if (six) {
    auto* to = reinterpret_cast<sockaddr_in6*>(&storage);
    to->sin6_family = AF_INET6;
    to->sin6_port = htons(port);
    inet_pton(AF_INET6, address.c_str(), &to->sin6_addr);
    size = sizeof *to;
  } else {
    auto* to = reinterpret_cast<sockaddr_in*>(&storage);
    to->sin_family = AF_INET;
    to->sin_port = htons(port);
    inet_pton(AF_INET, address.c_str(), &to->sin_addr);
  }
  if (connect(socket_.get(), reinterpret_cast<sockaddr*>(&storage), size) != 0) {
    ADD_FAILURE() << "cannot connect to " << address << ':' << port << ", errno " << errno;
  }
}

std::size_t RawClient::sendSome(const std::string& bytes) {
  const ssize_t sent =
      ::send(socket_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  return sent < 0 ? 0 : static_cast<std::size_t>(sent);
}

void RawClient::send(const std::string& bytes) {
  std::size_t sent = 0;
  const bool done = pump_([&] {
    sent += sendSome(bytes.substr(sent));
    return sent < bytes.size();
  });
  EXPECT_TRUE(done) << "the server took " << sent << " of " << bytes.size() << " bytes";
}

void RawClient::shutdownSending() {
  shutdown(socket_.get(), SHUT_WR);
}

void RawClient::reset() {
  const linger discard{1, 0};
  setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &discard, sizeof discard);
  socket_.reset();
}

void RawClient::receive(std::size_t enough) {
  char buffer[65536];
  while (!ended_ && received_.size() < enough) {
    const std::size_t most = std::min(sizeof buffer, enough - received_.size());
    const ssize_t count = recv(socket_.get(), buffer, most, MSG_DONTWAIT);
    if (count > 0) {
      received_.append(buffer, static_cast<std::size_t>(count));
    } else if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
      ended_ = true;
    } else {
      return;
    }
  }
}

std::string RawClient::until(const std::string& text) {
  pump_([&] {
    receive(received_.size() + kPart);
    return !ended_ && received_.find(text) == std::string::npos;
  });
  const std::size_t place = received_.find(text);
  if (place == std::string::npos) {
    ADD_FAILURE() << "the server sent only:\n" << received_;
    return std::exchange(received_, std::string());
  }
  return bytes(place + text.size());
}

std::string RawClient::bytes(std::size_t count) {
  pump_([&] {
    receive(count);
    return !ended_ && received_.size() < count;
  });
  if (received_.size() < count) {
    ADD_FAILURE() << "the server sent only " << received_.size() << " of " << count << " bytes:\n"
                  << received_.substr(0, 1000);
  }
  std::string taken = received_.substr(0, count);
  received_.erase(0, taken.size());
  return taken;
}

std::string RawClient::response() {
  std::string head = until("\r\n\r\n");
  const std::string length = headerOf(head, "Content-Length");
  return length == "(absent)" ? head : head + bytes(std::strtoul(length.c_str(), nullptr, 10));
}

std::string RawClient::untilEnd() {
  const bool done = pump_([&] {
    receive(received_.size() + kAll);
    return !ended_;
  });
  EXPECT_TRUE(done) << "the server does not close the connection";
  return std::exchange(received_, std::string());
}

bool RawClient::ended() {
  receive(received_.size() + kAll);
  return ended_;
}

std::string headerOf(const std::string& response, const std::string& name) {
  const std::string line = "\r\n" + name + ": ";
  const std::size_t place = response.find(line);
  if (place == std::string::npos || place > response.find("\r\n\r\n")) {
    return "(absent)";
  }
  const std::size_t begin = place + line.size();
  return response.substr(begin, response.find("\r\n", begin) - begin);
}

int statusOf(const std::string& response) {
  const bool formed =
      response.compare(0, 9, "HTTP/1.1 ") == 0 || response.compare(0, 9, "HTTP/1.0 ") == 0;
  return formed ? std::atoi(response.c_str() + 9) : 0;
}

std::string bodyOf(const std::string& response) {
  const std::size_t end = response.find("\r\n\r\n");
  return end == std::string::npos ? std::string() : response.substr(end + 4);
}

struct HttpCase::Loop {
  boost::asio::io_context context{1};
};

HttpCase::HttpCase() : loop_(std::make_unique<Loop>()) {}

HttpCase::~HttpCase() {
  exchanges.clear();
  server_.reset();
  settle();
}

boost::asio::io_context& HttpCase::context() {
  return loop_->context;
}

HttpSettings HttpCase::local() {
  HttpSettings settings;
  settings.listeners = {{"127.0.0.1", 0, false}};
  return settings;
}

void HttpCase::start(HttpSettings settings, Handler handler) {
  if (!handler) {
    handler = [](const std::shared_ptr<HttpExchange>& exchange) {
      exchange->respond(
          textResponse(200, exchange->request().method + ' ' + exchange->request().path));
    };
  }
  if (settings.listeners.size() == 1 && settings.listeners[0].port == HttpListener{}.port) {
    settings.listeners = local().listeners;
  }
  server_ = std::make_unique<HttpServer>(loop_->context, std::move(settings), std::move(handler));
  const auto opened = server_->open();
  ASSERT_TRUE(opened.ok()) << opened.error().text();
}

bool HttpCase::pump(const std::function<bool()>& pending) {
  const auto end = std::chrono::steady_clock::now() + kLongestRun;
  while (pending()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    loop_->context.restart();
    loop_->context.run_one_for(std::chrono::milliseconds(2));
  }
  return true;
}

void HttpCase::settle() {
  loop_->context.restart();
  loop_->context.poll();
}

void HttpCase::runFor(std::chrono::milliseconds time) {
  loop_->context.restart();
  loop_->context.run_for(time);
}

RawClient HttpCase::client(int receiveBuffer) {
  return RawClient([this](const std::function<bool()>& pending) { return pump(pending); },
                   server_->port(), "127.0.0.1", receiveBuffer);
}

std::string HttpCase::answerTo(const std::string& request) {
  RawClient one = client();
  one.send(request);
  one.shutdownSending();
  return one.untilEnd();
}

}  // namespace runelgw::test
