// SPDX-License-Identifier: Apache-2.0
// Many devices over one WebSocket.
#ifndef RUNELCTL_GATEWAY_MULTIPLEXER_H_
#define RUNELCTL_GATEWAY_MULTIPLEXER_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <runel/loop.h>
#include <runel/result.h>

#include "gateway/attach_message.h"
#include "gateway/device_channel.h"
#include "gateway/web_socket.h"

namespace runelctl {

struct MultiplexerOptions {
  /// Of each device, from the moment that it is wanted.
  runel::Milliseconds connectTimeout{10000};
  runel::Milliseconds deadline{27000};  ///< of each request, at the gateway
};

/// Connects when a device is wanted. When the connection is lost, all devices are lost, each
/// request with its outcome; the next wanted device connects again, after a pause that grows.
/// Nothing is repeated.
class Multiplexer : public ChannelHost {
 public:
  using Listed = runel::Result<std::vector<ListedDevice>>;

  Multiplexer(runel::Loop& loop, const MultiplexerOptions& options, WebSocketMaker make);
  ~Multiplexer() override;

  /// The other end of a dialed connection.
  void take(zell::UniqueFd socket, std::shared_ptr<runel::DialedLine> line);
  /// Asks for the devices that match @p query. Calls @p done once.
  void list(const std::string& query, std::function<void(Listed)> done);

 private:
  enum class Link { none, pausing, opening, open };
  struct List {
    std::string query;
    std::function<void(Listed)> done;
    runel::Clock::time_point since = runel::Clock::now();
    std::vector<ListedDevice> devices{};
    std::size_t parts = 0;
  };

  void wanted(DeviceChannel& channel) override;
  std::uint64_t give(DeviceChannel& channel, std::string_view bytes) override;
  [[nodiscard]] std::uint64_t begun() const override;
  [[nodiscard]] bool congested() const override;
  void grant(DeviceChannel& channel, std::size_t bytes) override;
  void over(DeviceChannel& channel, bool told) override;

  void need();
  void open();
  void opened();
  void received(const std::string& message, bool binary);
  [[nodiscard]] bool takeBytes(std::string_view message);
  [[nodiscard]] bool takeMessage(const AttachMessage& message);
  [[nodiscard]] bool takeDevices(const AttachMessage& message);
  [[nodiscard]] bool takeError(const AttachMessage& message);
  void resumeAll();
  void violated(const std::string& how);
  void closed(const runel::Error& why);
  void pause(const runel::Error& why);
  void refuseWaiting(const runel::Error& why, runel::Clock::time_point before);
  [[nodiscard]] bool someoneWaits() const;
  void finishList(std::uint32_t number, const Listed& result);
  void sendText(std::string text);
  void announce(const DeviceChannel& channel);

  runel::Loop& loop_;
  const MultiplexerOptions options_;
  const WebSocketMaker make_;
  Link link_ = Link::none;
  std::unique_ptr<WebSocket> socket_;
  std::uint64_t generation_ = 0;  // of socket_: an earlier one may still call
  bool everOpen_ = false;
  bool congested_ = false;
  std::optional<runel::Error> closing_;  // why the gateway will close the WebSocket, as it has told
  runel::Milliseconds pause_{0};
  runel::Timer timer_;
  std::uint32_t lastNumber_ = 0;
  std::map<std::uint32_t, std::unique_ptr<DeviceChannel>> channels_;
  std::set<std::uint32_t> announced_;  // the channels that the gateway has heard of, on socket_
  std::map<std::uint32_t, List> lists_;
};

}  // namespace runelctl

#endif  // RUNELCTL_GATEWAY_MULTIPLEXER_H_
