// SPDX-License-Identifier: Apache-2.0
// A client of the attach protocol, with a router that answers in any order. The session must never
// send more than the client takes, must keep its promises about requests and their ends, and must
// leave nothing behind. Each step is a byte that chooses it, two bytes of a length, and so many
// bytes.
#include <unistd.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include <zell/slave_task.h>

#include "fakes/gateway/fake_router.h"
#include "fuzz.h"
#include "gateway/attach/attach.h"

namespace {

using runelgw::Answer;
using runelgw::AttachDirectory;
using runelgw::DeviceId;
using runelgw::Outcome;
using runelgw::Payload;
using runelgw::Reason;
using zell::fuzz::require;

constexpr std::size_t kWindow = 262144;

struct Socket : public runelgw::WebSocket {
  void sendText(std::string text) override {
    require(!closed && !text.empty() && text.front() == '{' && text.back() == '}');
    waiting += text.size();
  }
  void sendBinary(std::string bytes) override {
    require(!closed && bytes.size() > 4);
    sent[bytes.substr(0, 4)] += bytes.size() - 4;
    waiting += bytes.size();
  }
  [[nodiscard]] std::size_t queued() const override { return waiting; }
  void pauseReading(bool pause) override { paused = pause; }
  void close(unsigned code, std::string reason) override {
    require(!closed && code >= 1000 && !reason.empty());
    closed = true;
  }
  [[nodiscard]] bool gone() const override { return closed; }

  std::map<std::string, std::size_t> sent;  // by the bytes of the channel
  std::size_t waiting = 0;
  bool paused = false;
  bool closed = false;
};

struct FuzzPermit : public runelgw::Permit {
  [[nodiscard]] std::string label() const override { return "fuzzer"; }
  [[nodiscard]] bool valid() const override { return true; }
  [[nodiscard]] bool maySee(DeviceId device) const override { return device != 3; }
  [[nodiscard]] bool may(runelgw::TaskKind kind, DeviceId) const override {
    return kind != runelgw::TaskKind::power;
  }
  void record(std::string_view, DeviceId, const Answer&) override { ++records; }
  std::size_t records = 0;
};

struct Directory : public AttachDirectory {
  [[nodiscard]] std::optional<Entry> find(const std::string& name) const override {
    return name.size() != 1
               ? std::nullopt
               : std::optional(Entry{static_cast<DeviceId>(name[0] % 4), name, name,
                                     name[0] % 4 == 0 ? Reason::offline : Reason::none});
  }
  [[nodiscard]] runel::Result<Part> list(const std::string&, const std::string&,
                                         const runelgw::Permit&, std::size_t) const override {
    return Part{{"{\"device\":\"a\"}"}, "a"};
  }
};

// What the router gets was examined.
void checkCall(const runelgw::Call& call) {
  std::string bytes;
  require(call.request.read(0, static_cast<std::size_t>(call.request.size()), bytes));
  zell::SlaveTask task;
  if (task.parse(bytes) && !task.args().empty()) {
    const std::string& name = task.args()[0];
    require(name != "kill" && name != "wait" && name != "reboot" && name != "restart");
    require(name != "exec" || task.execParam() > 0);
  }
}

class Run {
 public:
  Run() { session_->opened(socket_); }

  void step(unsigned choice, const std::string& bytes) {
    switch (choice % 8) {
      case 0:
      case 1:
        session_->message(bytes, false);
        break;
      case 2:
      case 3:
        session_->message(bytes, true);
        break;
      case 4:
        answer({Outcome::answered, Reason::none, "", Payload(bytes)}, choice);
        break;
      case 5:
        answer({choice % 16 < 8 ? Outcome::notRun : Outcome::unknown,
                static_cast<Reason>(1 + choice / 16 % 11),
                "why",
                {}},
               choice);
        break;
      case 6:
        socket_->waiting = 0;
        session_->sent();
        break;
      default:
        loop_.turn(runel::Milliseconds(0));
        break;
    }
    for (const auto& sent : router_.sent) {
      checkCall(sent.call);
    }
    require(router_.sent.size() <= 2048);
  }

  // All credit that the client has granted is at most @p granted for each channel.
  void end(std::uint64_t granted) {
    for (const auto& [channel, bytes] : socket_->sent) {
      require(bytes <= kWindow + granted);
    }
    if (!socket_->closed) {
      session_->closed("the end");
    }
    require(router_.sent.empty());
    session_.reset();
    require(socket_.use_count() == 1 && spool_->used() == 0);
  }

 private:
  void answer(Answer answer, unsigned choice) {
    if (router_.sent.empty()) {
      return;
    }
    std::swap(router_.sent[choice / 8 % router_.sent.size()], router_.sent.front());
    router_.answer(std::move(answer));
  }

  runel::Loop loop_;
  runelgw::FakeRouter router_;
  Directory directory_;
  std::shared_ptr<runelgw::PayloadSpool> spool_ =
      std::make_shared<runelgw::PayloadSpool>("/tmp", 65536);
  std::shared_ptr<FuzzPermit> permit_ = std::make_shared<FuzzPermit>();
  std::shared_ptr<Socket> socket_ = std::make_shared<Socket>();
  std::shared_ptr<runelgw::WebSocketHandler> session_ = runelgw::makeAttachSession(
      permit_, {loop_, router_, directory_, spool_}, {300, 4, 1000, runel::Milliseconds(0)});
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string input = zell::fuzz::toString(data, size);
  Run run;
  bool credited = false;
  while (input.size() >= 3) {
    const auto byte = [&](std::size_t place) { return static_cast<unsigned char>(input[place]); };
    const unsigned choice = byte(0);
    const std::size_t length = byte(1) * 256U + byte(2);
    const std::string bytes = input.substr(3, length);
    input.erase(0, 3 + bytes.size());
    credited = credited || bytes.find("credit") != std::string::npos ||
               bytes.find('\\') != std::string::npos;  // which may spell it
    run.step(choice, bytes);
  }
  run.end(credited ? std::uint64_t{1} << 41U : 0);
  return 0;
}
