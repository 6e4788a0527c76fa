// SPDX-License-Identifier: Apache-2.0
#include "fakes/gateway/fake_device.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <runel/request.h>

namespace runelgw::test {
namespace {

constexpr runel::Milliseconds kAgain{100};
constexpr runel::Milliseconds kMinute{60000};

sockaddr_in loopback(const std::string& host, std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1) {
    std::abort();
  }
  return address;
}

}  // namespace

std::string frameOf(const std::string& payload) {
  return "\x01" + std::to_string(payload.size()) + "\x02" + payload;
}

std::string replyOf(const std::string& output) {
  return "SlaveTask 0 0 " + std::to_string(output.size()) + ":" + output + " 0 0 0 0 0";
}

std::string requestOf(const std::vector<std::string>& words, int execParam) {
  std::string record = "SlaveTask " + std::to_string(words.size());
  for (const std::string& word : words) {
    record += " " + std::to_string(word.size()) + ":" + word;
  }
  return record + " " + std::to_string(execParam) + " 0: 0 0 0 0 0";
}

bool runUntil(runel::Loop& loop, const std::function<bool()>& done) {
  const auto end = runel::Clock::now() + kMinute;
  while (!done() && runel::Clock::now() < end) {
    loop.turn(runel::Milliseconds(20));
  }
  return done();
}

FakeDevice::FakeDevice(runel::Loop& loop, std::uint16_t port, Settings settings)
    : loop_(loop), master_(port), settings_(std::move(settings)) {
  connect();
}

FakeDevice::~FakeDevice() {
  loop_.cancel(again_);
  drop();
}

void FakeDevice::connect() {
  drop();
  loop_.cancel(again_);
  socket_.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_in to = loopback("127.0.0.1", master_);
  sockaddr_in from = loopback(settings_.source, 0);
  socklen_t size = sizeof from;
  auto* own = reinterpret_cast<sockaddr*>(&from);  // the generic type of the socket calls
  if (bind(socket_.get(), own, size) != 0 ||
      ::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0 ||
      getsockname(socket_.get(), own, &size) != 0) {
    std::perror("FakeDevice");
    socket_.reset();
    return;
  }
  port_ = ntohs(from.sin_port);
  codec_.emplace(zell::ByteCountProtocol::kNoSocket);
  out_ = settings_.preamble;
  if (!loop_.watch(socket_.get(), EPOLLIN, [this](std::uint32_t) { ready(); })) {
    std::abort();
  }
  send();
}

void FakeDevice::drop() {
  if (socket_.valid()) {
    loop_.forget(socket_.get());
    socket_.reset();
  }
}

void FakeDevice::close() {
  drop();
}

void FakeDevice::reset() {
  const linger none{1, 0};
  (void)setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &none, sizeof none);  // it is a socket
  drop();
}

void FakeDevice::setReading(bool on) {
  reading_ = on;
  watch();
}

void FakeDevice::watch() {
  loop_.change(socket_.get(), (reading_ ? std::uint32_t{EPOLLIN} : 0U) |
                                  (out_.empty() ? 0U : std::uint32_t{EPOLLOUT}));
}

void FakeDevice::ready() {
  send();
  if (!reading_) {
    return;
  }
  char part[65536];
  const ssize_t got = recv(socket_.get(), part, sizeof part, MSG_DONTWAIT);
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
    return;
  }
  if (got <= 0) {
    ++ends;
    drop();
    if (settings_.returns) {
      again_ = loop_.after(kAgain, [this] { connect(); });
    }
    return;
  }
  bytes += static_cast<std::uint64_t>(got);
  raw.append(part, std::min(static_cast<std::size_t>(got), kRaw - raw.size()));
  codec_->acceptBytes(std::string(part, static_cast<std::size_t>(got)));
  std::string payload;
  while (socket_.valid() && codec_->recvMessage(payload)) {
    take(std::move(payload));
  }
}

void FakeDevice::take(std::string&& payload) {
  zell::SlaveTask task;
  if (!task.parse(std::move(payload)) || task.args().empty()) {
    ++malformed;
    say(frameOf("SlaveTask 0 0 0: 4 0 1 22 0"));
    return;
  }
  const std::string& name = task.args()[0];
  if (name == "hostid" || name == "devicetype") {
    ++questions;
    if (answersIdentity) {
      reply(name == "hostid" ? settings_.hostid : settings_.deviceType);
    }
    return;
  }
  tasks.push_back(name + (task.args().size() > 1 ? " " + task.args()[1] : ""));
  const std::optional<std::string> output = react(task);
  if (output && isOpen()) {
    reply(*output);
  }
}

void FakeDevice::reply(const std::string& output) {
  say(frameOf(replyOf(output)));
}

void FakeDevice::say(const std::string& bytes_) {
  out_ += bytes_;
  send();
}

void FakeDevice::send() {
  if (!socket_.valid() || out_.empty()) {
    return;
  }
  const ssize_t taken =
      ::send(socket_.get(), out_.data(), out_.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (taken > 0) {
    out_.erase(0, static_cast<std::size_t>(taken));
  }
  watch();
}

}  // namespace runelgw::test
