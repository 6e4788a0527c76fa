// SPDX-License-Identifier: Apache-2.0
// A device in the test's process: one connection to a gateway, in any role.
#ifndef TESTS_FAKES_GATEWAY_FAKE_DEVICE_H_
#define TESTS_FAKES_GATEWAY_FAKE_DEVICE_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <runel/loop.h>
#include <zell/byte_count_protocol.h>
#include <zell/slave_task.h>

#include "base/unique_fd.h"

namespace runelgw::test {

/// Connects from its own address and answers requests on the loop of the test. Thousands of them
/// may share one loop.
class FakeDevice {
 public:
  struct Settings {
    std::string hostid = "fake";
    std::string deviceType = "server";
    std::string source = "127.0.0.1";  ///< any address of the loopback
    std::string preamble;              ///< sent first, such as the header of a proxy
    bool returns = false;              ///< connects again when its connection ends, like the daemon
  };
  /// The output of the reply to a request. Without a value it does not answer, now.
  using React = std::function<std::optional<std::string>(const zell::SlaveTask& task)>;

  FakeDevice(runel::Loop& loop, std::uint16_t port, Settings settings);
  ~FakeDevice();
  FakeDevice(const FakeDevice&) = delete;
  FakeDevice& operator=(const FakeDevice&) = delete;

  /// Answers what is not a question for its identity. By default with an empty text.
  React react = [](const zell::SlaveTask&) { return std::string(); };
  /// False: it does not even answer the questions for its identity.
  bool answersIdentity = true;

  /// Answers with @p output: for a request that `react` did not answer.
  void reply(const std::string& output);
  /// Sends any bytes.
  void say(const std::string& bytes);
  /// Stops reading, or reads on. A device that does not read is slow.
  void setReading(bool on);
  /// Ends the connection in order, or with a reset, or without telling the peer.
  void close();
  void reset();
  /// Connects (again).
  void connect();

  [[nodiscard]] bool isOpen() const { return socket_.valid(); }
  [[nodiscard]] std::uint16_t port() const { return port_; }
  [[nodiscard]] const std::string& host() const { return settings_.source; }

  std::vector<std::string> tasks;  ///< "NAME FIRSTARGUMENT" of each request but those for identity
  std::size_t questions = 0;       ///< requests for its identity
  std::uint64_t bytes = 0;         ///< received on all its connections
  std::size_t ends = 0;            ///< connections that the gateway has ended
  std::size_t malformed = 0;       ///< requests that are not records
  std::string raw;                 ///< the first received bytes, at most `kRaw`
  static constexpr std::size_t kRaw = 65536;

 private:
  void ready();
  void take(std::string&& payload);
  void send();
  void watch();
  void drop();

  runel::Loop& loop_;
  const std::uint16_t master_;
  const Settings settings_;
  zell::UniqueFd socket_;
  std::optional<zell::ByteCountProtocol> codec_;
  std::string out_;
  bool reading_ = true;
  std::uint16_t port_ = 0;
  runel::Timer again_;
};

/// A frame of any payload.
[[nodiscard]] std::string frameOf(const std::string& payload);
/// The record of a successful reply.
[[nodiscard]] std::string replyOf(const std::string& output);
/// The record of a request.
[[nodiscard]] std::string requestOf(const std::vector<std::string>& words, int execParam = 0);

/// Steps @p loop until @p done, at most a minute. Returns the last result of @p done.
[[nodiscard]] bool runUntil(runel::Loop& loop, const std::function<bool()>& done);

}  // namespace runelgw::test

#endif  // TESTS_FAKES_GATEWAY_FAKE_DEVICE_H_
