// SPDX-License-Identifier: Apache-2.0
// The devices' side of a master's port, in the test's process.
#ifndef TESTS_UNIT_CLIENT_SCRIPTED_DEVICE_H_
#define TESTS_UNIT_CLIENT_SCRIPTED_DEVICE_H_

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "base/unique_fd.h"

namespace runel {

inline sockaddr_in loopback(const std::string& host, std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  EXPECT_EQ(inet_pton(AF_INET, host.c_str(), &address.sin_addr), 1);
  return address;
}

inline std::string frameOf(const std::string& payload) {
  return "\x01" + std::to_string(payload.size()) + "\x02" + payload;
}

inline std::string recordOf(const std::string& output) {
  return "SlaveTask 0 0 " + std::to_string(output.size()) + ":" + output + " 0 0 0 0 0";
}

/// One connection of a device to a master, in any role. Reads and answers only in `serve`.
class ScriptedDevice {
 public:
  explicit ScriptedDevice(std::uint16_t port, std::string hostid = "fake",
                          const std::string& source = "127.0.0.1")
      : hostid_(std::move(hostid)), socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_in from = loopback(source, 0);
    const sockaddr_in to = loopback("127.0.0.1", port);
    EXPECT_EQ(bind(socket_.get(), reinterpret_cast<const sockaddr*>(&from), sizeof from), 0);
    EXPECT_EQ(connect(socket_.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to), 0);
  }

  /// Reads what is there and answers complete requests.
  void serve() {
    char part[65536];
    ssize_t got = recv(socket_.get(), part, sizeof part, MSG_DONTWAIT);
    while (got > 0) {
      came.append(part, static_cast<std::size_t>(got));
      got = recv(socket_.get(), part, sizeof part, MSG_DONTWAIT);
    }
    ended = ended || got == 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
    while (answers && takeRequest()) {
      say(frameOf(answerTo(last)));
    }
  }
  /// Removes the next complete request from what came and keeps it in `last`.
  bool takeRequest() {
    const std::size_t end = came.find('\x02', taken_);
    if (end == std::string::npos) {
      return false;
    }
    const std::size_t size = std::stoul(came.substr(taken_ + 1, end - taken_ - 1));
    if (came.size() - end - 1 < size) {
      return false;
    }
    last = came.substr(end + 1, size);
    taken_ = end + 1 + size;
    return answered_ == 0 || (--answered_, takeRequest());
  }
  void say(const std::string& bytes) const {
    EXPECT_EQ(send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  /// Answers the master's questions after the connect ahead of them, so that no test depends on
  /// the time of an answer.
  void sayIdentity() {
    say(frameOf(recordOf(hostid_)) + frameOf(recordOf("server")));
    answered_ = 2;
  }
  void close() { socket_.reset(); }
  void resetConnection() {
    const linger none{1, 0};
    ASSERT_EQ(setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &none, sizeof none), 0);
    socket_.reset();
  }
  /// Drops the connection without sending anything: this kernel then does not know it.
  void vanish() {
    const int on = 1;
    ASSERT_EQ(setsockopt(socket_.get(), IPPROTO_TCP, TCP_REPAIR, &on, sizeof on), 0);
    socket_.reset();
  }
  [[nodiscard]] bool isOpen() const { return socket_.valid(); }
  [[nodiscard]] std::uint16_t port() const {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    EXPECT_EQ(getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    return ntohs(address.sin_port);
  }

  std::string came;                        ///< all received bytes
  std::string last;                        ///< the payload of the last request
  std::string special = recordOf("done");  ///< the answer to all other requests
  bool answers = true;
  bool ended = false;

 private:
  [[nodiscard]] std::string answerTo(const std::string& request) const {
    if (request.find(" 6:hostid") != std::string::npos) {
      return recordOf(hostid_);
    }
    if (request.find(" 10:devicetype") != std::string::npos) {
      return recordOf("server");
    }
    return special;
  }

  const std::string hostid_;
  zell::UniqueFd socket_;
  std::size_t taken_ = 0;
  int answered_ = 0;  // the number of coming requests that are answered already
};

}  // namespace runel

#endif  // TESTS_UNIT_CLIENT_SCRIPTED_DEVICE_H_
