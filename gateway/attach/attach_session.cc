// SPDX-License-Identifier: Apache-2.0
#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <utility>

#include "gateway/attach/attach.h"
#include "gateway/attach/attach_channel.h"
#include "gateway/attach/attach_text.h"
#include "gateway/attach/number_set.h"

namespace runelgw {
namespace {

// More is queued for the client only when it reads.
constexpr std::size_t kFillUpTo = 1048576;
// Answers to text messages need no credit: a client that does not read them is not read either.
constexpr std::size_t kMostQueued = 4194304;
constexpr std::size_t kChannelBytes = 4;
constexpr std::size_t kMostListed = 200;
constexpr std::size_t kMostNumberRanges = 100000;

std::string sentenceOf(Reason reason) {
  switch (reason) {
    case Reason::waiting:
      return "the device waits for approval";
    case Reason::denied:
      return "the device is denied";
    case Reason::quarantined:
      return "several connections claim to be the device";
    default:
      return "the device is not connected";
  }
}

// The channels of one client.
class AttachSession : public WebSocketHandler,
                      public AttachHost,
                      public std::enable_shared_from_this<AttachSession> {
 public:
  AttachSession(std::shared_ptr<Permit> permit, const AttachParts& parts,
                const AttachSettings& settings)
      : permit_(std::move(permit)), parts_(parts), settings_(settings) {}
  ~AttachSession() override { leave(); }
  AttachSession(const AttachSession&) = delete;
  AttachSession& operator=(const AttachSession&) = delete;

  void opened(std::shared_ptr<WebSocket> socket) override;
  void message(std::string bytes, bool binary) override;
  void sent() override;
  void closed(const std::string& reason) override;

  [[nodiscard]] const AttachParts& parts() const override { return parts_; }
  [[nodiscard]] const AttachSettings& settings() const override { return settings_; }
  [[nodiscard]] Permit& permit() override { return *permit_; }
  void sendText(std::string text) override { socket_->sendText(std::move(text)); }
  void sendBytes(std::string bytes) override { socket_->sendBinary(std::move(bytes)); }
  void ready(std::uint32_t channel) override;
  void hold(std::uint32_t channel) override { held_.insert(channel); }
  [[nodiscard]] Router::Done answerTo(std::uint32_t channel, std::uint64_t request) override;
  [[nodiscard]] std::size_t& answerBytes() override { return answerBytes_; }

 private:
  using Channels = std::map<std::uint32_t, std::unique_ptr<AttachChannel>>;

  void takeBytes(std::string_view message);
  void takeText(const std::string& text);
  void attach(const AttachMessage& message);
  void list(const AttachMessage& message);
  [[nodiscard]] AttachChannel* channelOf(std::uint32_t number);
  void answered(std::uint32_t channel, std::uint64_t request, Answer answer);
  void pump();
  void resumeHeld();
  void waitForTick();
  void tick();
  void violated(const std::string& text);
  void endWith(const std::string& code, unsigned closeCode, const std::string& text);
  void leave();

  const std::shared_ptr<Permit> permit_;
  const AttachParts parts_;
  const AttachSettings settings_;
  std::shared_ptr<WebSocket> socket_;  // empty before opened() and after the end
  Channels channels_;
  NumberSet used_;
  std::deque<std::uint32_t> ready_;  // channels that may have something to send
  std::set<std::uint32_t> held_;
  std::size_t answerBytes_ = 0;
  bool pausing_ = false;
  runel::Timer timer_;
};

void AttachSession::opened(std::shared_ptr<WebSocket> socket) {
  socket_ = std::move(socket);
  waitForTick();
}

void AttachSession::message(std::string bytes, bool binary) {
  if (!socket_) {
    return;
  }
  if (binary) {
    takeBytes(bytes);
  } else {
    takeText(bytes);
  }
  pump();
  if (socket_ && !pausing_ && socket_->queued() > kMostQueued) {
    pausing_ = true;
    socket_->pauseReading(true);
  }
}

void AttachSession::sent() {
  pump();
  if (socket_ && pausing_ && socket_->queued() <= kFillUpTo) {
    pausing_ = false;
    socket_->pauseReading(false);
  }
}

void AttachSession::closed(const std::string&) {
  leave();
}

// Bytes for a channel that has ended may have been on their way.
void AttachSession::takeBytes(std::string_view message) {
  if (message.size() < kChannelBytes) {
    violated("a binary message begins with the number of a channel");
    return;
  }
  std::uint32_t number = 0;
  for (const char byte : message.substr(0, kChannelBytes)) {
    number = number << 8U | static_cast<unsigned char>(byte);
  }
  AttachChannel* const channel = channelOf(number);
  if (channel && !channel->receive(message.substr(kChannelBytes))) {
    violated("channel " + std::to_string(number) + " has sent more than its credit");
  }
}

// Ends the session if @p number was never the number of a channel.
AttachChannel* AttachSession::channelOf(std::uint32_t number) {
  const auto found = channels_.find(number);
  if (found != channels_.end()) {
    return found->second.get();
  }
  if (!used_.has(number)) {
    violated("channel " + std::to_string(number) + " was never attached");
  }
  return nullptr;
}

void AttachSession::takeText(const std::string& text) {
  std::string problem;
  const auto message = parseAttachMessage(text, problem);
  if (!message) {
    violated(problem);
    return;
  }
  switch (message->type) {
    case AttachMessage::Type::attach:
      attach(*message);
      break;
    case AttachMessage::Type::detach:
      if (channelOf(message->number)) {
        channels_.erase(message->number);
      }
      break;
    case AttachMessage::Type::credit: {
      AttachChannel* const channel = channelOf(message->number);
      if (channel && !channel->addCredit(message->bytes)) {
        violated("the credit of channel " + std::to_string(message->number) + " is too large");
      }
      break;
    }
    case AttachMessage::Type::list:
      list(*message);
      break;
    case AttachMessage::Type::other:
      break;
  }
}

void AttachSession::attach(const AttachMessage& message) {
  const std::uint32_t number = message.number;
  if (used_.has(number) || used_.ranges() >= kMostNumberRanges) {
    violated(used_.has(number) ? "channel " + std::to_string(number) + " was used before"
                               : "the numbers of channels have too many gaps");
    return;
  }
  used_.add(number);
  const auto device = parts_.directory.find(message.text);
  if (!device || !permit_->maySee(device->id)) {
    sendText(refusedText(number, Reason::offline, "no such device is known"));
  } else if (device->absent != Reason::none) {
    sendText(refusedText(number, device->absent, sentenceOf(device->absent)));
  } else if (channels_.size() >= settings_.mostChannels) {
    sendText(refusedText(number, Reason::busy, "this client has too many channels"));
  } else {
    channels_[number] =
        std::make_unique<AttachChannel>(*this, number, device->id, message.deadline);
    sendText(attachedText(number, *device));
  }
}

void AttachSession::list(const AttachMessage& message) {
  const auto part = parts_.directory.list(message.text, message.cursor, *permit_, kMostListed);
  sendText(part ? devicesText(message.number, *part)
                : errorText("query", message.number, part.error().text()));
}

Router::Done AttachSession::answerTo(std::uint32_t channel, std::uint64_t request) {
  return [weak = weak_from_this(), channel, request](Answer answer) {
    if (const auto self = weak.lock()) {
      self->answered(channel, request, std::move(answer));
    }
  };
}

void AttachSession::answered(std::uint32_t channel, std::uint64_t request, Answer answer) {
  const auto found = channels_.find(channel);
  if (found != channels_.end()) {
    found->second->answered(request, std::move(answer));
    pump();
  }
}

void AttachSession::ready(std::uint32_t channel) {
  const auto found = channels_.find(channel);
  if (found != channels_.end() && !found->second->marked()) {
    found->second->mark(true);
    ready_.push_back(channel);
  }
}

// The channels send in turn.
void AttachSession::pump() {
  resumeHeld();
  while (socket_ && !ready_.empty() && socket_->queued() < kFillUpTo) {
    const std::uint32_t number = ready_.front();
    ready_.pop_front();
    const auto found = channels_.find(number);
    if (found == channels_.end()) {
      continue;
    }
    AttachChannel& channel = *found->second;
    channel.mark(false);
    const bool more = channel.give();
    if (channel.unreadable()) {
      endWith("storage", kCloseInternalError, "an answer cannot be read from the temporary file");
    } else if (channel.isOver()) {
      channels_.erase(found);
    } else if (more) {
      ready(number);
    }
    resumeHeld();
  }
}

void AttachSession::resumeHeld() {
  if (answerBytes_ > settings_.answerBytes) {
    return;
  }
  for (const std::uint32_t number : std::exchange(held_, {})) {
    const auto found = channels_.find(number);
    if (found != channels_.end()) {
      found->second->resume();
    }
  }
}

void AttachSession::waitForTick() {
  timer_ = parts_.loop.after(settings_.tick, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) {
      self->tick();
    }
  });
}

void AttachSession::tick() {
  timer_ = runel::Timer();
  if (!socket_) {
    return;
  }
  if (!permit_->valid()) {
    endWith("unauthorized", kClosePolicy, "the token is not valid any more");
    return;
  }
  for (const auto& [number, channel] : channels_) {
    channel->tick();
  }
  waitForTick();
}

void AttachSession::violated(const std::string& text) {
  endWith("protocol", kClosePolicy, text);
}

void AttachSession::endWith(const std::string& code, unsigned closeCode, const std::string& text) {
  if (!socket_) {
    return;
  }
  const auto socket = socket_;
  leave();
  socket->sendText(errorText(code, 0, text));
  socket->close(closeCode, text);
}

void AttachSession::leave() {
  parts_.loop.cancel(timer_);
  timer_ = runel::Timer();
  socket_.reset();
  ready_.clear();
  held_.clear();
  channels_.clear();
}

}  // namespace

std::shared_ptr<WebSocketHandler> makeAttachSession(std::shared_ptr<Permit> permit,
                                                    const AttachParts& parts,
                                                    const AttachSettings& settings) {
  return std::make_shared<AttachSession>(std::move(permit), parts, settings);
}

void attachClient(const std::shared_ptr<HttpExchange>& exchange, std::shared_ptr<Permit> permit,
                  const AttachParts& parts, const AttachSettings& settings) {
  const HttpRequest& request = exchange->request();
  if (request.wantsWebSocket() && !request.offersSubprotocol(kAttachProtocol)) {
    exchange->respond(
        textResponse(400, std::string("the subprotocol ") + kAttachProtocol + " is needed\n"));
    return;
  }
  exchange->upgrade(makeAttachSession(std::move(permit), parts, settings), kAttachProtocol);
}

}  // namespace runelgw
