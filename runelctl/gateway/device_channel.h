// SPDX-License-Identifier: Apache-2.0
// One device that this process uses through the gateway.
#ifndef RUNELCTL_GATEWAY_DEVICE_CHANNEL_H_
#define RUNELCTL_GATEWAY_DEVICE_CHANNEL_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include <sys/epoll.h>

#include <runel/error.h>
#include <runel/loop.h>

#include "base/unique_fd.h"
#include "client/core/link_event.h"
#include "client/io/dialer.h"
#include "gateway/attach_message.h"
#include "gateway/frame_watch.h"

namespace runelctl {

class DeviceChannel;

/// Who moves the messages of channels.
class ChannelHost {
 public:
  ChannelHost() = default;
  virtual ~ChannelHost() = default;
  ChannelHost(const ChannelHost&) = delete;
  ChannelHost& operator=(const ChannelHost&) = delete;

  /// The channel knows which device it is for.
  virtual void wanted(DeviceChannel& channel) = 0;
  /// Sends @p bytes of the channel to the gateway. Returns the number of the message.
  virtual std::uint64_t give(DeviceChannel& channel, std::string_view bytes) = 0;
  /// Messages up to this number may have reached the gateway.
  [[nodiscard]] virtual std::uint64_t begun() const = 0;
  /// Whether so much waits to be sent that channels must pause.
  [[nodiscard]] virtual bool congested() const = 0;
  /// Grants credit for @p bytes.
  virtual void grant(DeviceChannel& channel, std::size_t bytes) = 0;
  /// The channel has ended. It is destroyed later. @p told: the gateway knows.
  virtual void over(DeviceChannel& channel, bool told) = 0;
};

/// Moves the bytes of frames between a socket of this process and the gateway, and knows of each
/// request what has become of it. Each function for a message returns false if the message violates
/// the protocol.
class DeviceChannel {
 public:
  DeviceChannel(runel::Loop& loop, ChannelHost& host, std::uint32_t number, zell::UniqueFd socket,
                std::shared_ptr<runel::DialedLine> line);
  ~DeviceChannel();
  DeviceChannel(const DeviceChannel&) = delete;
  DeviceChannel& operator=(const DeviceChannel&) = delete;

  [[nodiscard]] std::uint32_t number() const { return number_; }
  [[nodiscard]] const std::string& device() const { return device_; }
  /// Since when it has waited.
  [[nodiscard]] runel::Clock::time_point since() const { return since_; }
  /// It knows its device and is not attached.
  [[nodiscard]] bool waits() const { return state_ == State::waiting; }
  [[nodiscard]] bool isOpen() const { return state_ == State::open; }

  ///@{
  /// Messages of the gateway.
  [[nodiscard]] bool attached();
  [[nodiscard]] bool receive(std::string_view bytes);
  [[nodiscard]] bool addCredit(std::uint64_t bytes);
  [[nodiscard]] bool failed(const runel::Error& why);
  [[nodiscard]] bool sent();
  [[nodiscard]] bool progress();
  [[nodiscard]] bool lost(const runel::Error& why);
  ///@}

  /// It cannot be attached.
  void refuse(const runel::Error& why);
  /// The connection to the gateway is lost. Without an effect before it is attached.
  void cut(const runel::Error& why);
  /// The state of the connection to the gateway has changed.
  void resume();

 private:
  enum class State { greeting, waiting, open, ending };

  void handle(std::uint32_t events);
  void readGreeting();
  void read();
  void take(std::string_view bytes);
  void settle();
  [[nodiscard]] bool mayRead() const;
  void tell(runel::LinkEvent::About about, const runel::Error& error);
  [[nodiscard]] bool endOldest();
  void put(std::string_view bytes);
  void flush();
  void end(bool told);
  void watch();

  runel::Loop& loop_;
  ChannelHost& host_;
  const std::uint32_t number_;
  zell::UniqueFd socket_;
  const std::shared_ptr<runel::DialedLine> line_;
  const runel::Clock::time_point since_ = runel::Clock::now();
  State state_ = State::greeting;
  std::string device_;  // the greeting while it is read

  FrameWatch requests_;
  FrameWatch answers_;
  std::deque<std::uint64_t> pending_;  // where in the stream the requests without an answer end
  std::size_t early_ = 0;              // 1: the request that is not complete has failed
  std::uint64_t answered_ = 0;         // where the last request with an answer ends
  // The number of each message that may still be held back, and where in the stream it ends.
  std::deque<std::pair<std::uint64_t, std::uint64_t>> given_;

  std::uint64_t credit_ = kFirstCredit;  // that the gateway has granted
  std::size_t allowed_ = kFirstCredit;   // what the gateway may send
  std::size_t taken_ = 0;                // its bytes for which no credit was granted
  std::uint32_t watched_ = EPOLLIN;      // events of the socket
  std::string out_;                      // what the socket has not taken
  bool told_ = false;                    // while it is ending: the gateway knows
};

}  // namespace runelctl

#endif  // RUNELCTL_GATEWAY_DEVICE_CHANNEL_H_
