// SPDX-License-Identifier: Apache-2.0
// Compares the relay with SlowRelay, step by step, on random streams in random packets.
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/slow_relay.h"
#include "unit/connections/relay_fixture.h"

namespace zell::test {
namespace {

// The number of streams; RUNELD_PROPERTY_CASES overrides the default.
unsigned long cases() {
  const char* const asked = std::getenv("RUNELD_PROPERTY_CASES");
  return asked == nullptr ? 10000 : std::strtoul(asked, nullptr, 10);
}

// One random stream and its split into packets.
class Script {
 public:
  explicit Script(unsigned seed) : random_(seed) {
    const std::vector<std::string> pieces = choosePieces();
    for (std::size_t count = below(24); count > 0; --count) {
      stream_ += pieces[below(pieces.size())];
    }
    longest_ = std::vector<std::size_t>{1, 6, 40, 1000}[below(4)];
    pings_ = below(2) == 0;
  }

  [[nodiscard]] bool done() const { return at_ == stream_.size(); }
  std::string nextPacket() {
    if (pings_ && below(4) == 0) {
      return "<ping/>\r\n";
    }
    const std::string packet = stream_.substr(at_, 1 + below(longest_));
    at_ += packet.size();
    return packet;
  }
  std::size_t below(std::size_t limit) {
    return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random_);
  }

 private:
  // Pieces of streams. Most streams exclude those that block a relay permanently, because otherwise
  // little would pass.
  std::vector<std::string> choosePieces() {
    const std::string name(1 + below(50), 'n');
    std::vector<std::string> pieces = {
        "<a/>", "<b c='d'/>",     "<a>x</a>",     "<b>\r\n</b>",    "<ping/>\r\n",    " ",
        "\r\n", "<a><b/>></a>\t", "<a></ab></a>", "<" + name + ">", "</" + name + ">"};
    if (below(2) == 0) {
      pieces.insert(pieces.end(), {"<a>", "</a>", "<b>", "</b>", "<ab>", "</ab>", ">", "/>", "x"});
    }
    if (below(4) == 0) {
      pieces.insert(pieces.end(), {"<>", "</>", "<", "/", "<//a>", std::string(1, '\0'), "\x7f"});
    }
    if (below(6) == 0) {
      pieces.insert(pieces.end(), {"\x01", "\x02"});
    }
    // Only a few names, so that they recur.
    std::vector<std::string> some;
    for (std::size_t count = 1 + below(8); count > 0; --count) {
      some.push_back(pieces[below(pieces.size())]);
    }
    return some;
  }

  std::mt19937 random_;
  std::string stream_;
  std::size_t at_ = 0;
  std::size_t longest_ = 1;
  bool pings_ = false;
};

class RelayRulesTest : public RelayFixture {
 protected:
  // One end of the relay and its reference.
  struct Subject {
    explicit Subject(int socket) : relay(socket) {}
    XmlSlave relay;
    SlowRelay rules;
  };

  void step(Script& script, Subject& subject) {
    switch (script.below(12)) {
      case 0:
        subject.relay.setPeer(&bridge);
        subject.rules.setPeer(true);
        break;
      case 1:
        if (script.below(3) == 0) {
          subject.relay.setPeer(nullptr);
          subject.rules.setPeer(false);
        }
        break;
      case 2:
        give(subject.relay, "");
        subject.rules.handleMessage("");
        break;
      default: {
        const std::string packet = script.nextPacket();
        give(subject.relay, packet);
        subject.rules.handleMessage(packet);
      }
    }
  }

  void compare(Subject& subject) {
    EXPECT_EQ(masterSockets.received(), subject.rules.sent);
    EXPECT_EQ(contentsOf(subject.relay), subject.rules.buffer);
    EXPECT_EQ(log.entries(), subject.rules.log);
    EXPECT_EQ(subject.relay.stopRequested(), subject.rules.stop);
    EXPECT_EQ(subject.relay.inputPending(), subject.rules.inputPending());
    relayed += subject.rules.sent.size();
    for (const LogEntry& line : subject.rules.log) {
      ++lines[line.text.substr(0, 24)];
    }
    subject.rules.sent.clear();
    subject.rules.log.clear();
    log.clear();
  }

  void run(unsigned seed) {
    Script script(seed);
    Subject subject(agentSockets.near());
    if (script.below(2) == 0) {
      subject.relay.setPeer(&bridge);
      subject.rules.setPeer(true);
    }
    while (!script.done() && !HasFailure()) {
      step(script, subject);
      compare(subject);
    }
  }

  std::size_t relayed = 0;
  std::map<std::string, unsigned long> lines;  // number of log lines of each kind
};

TEST_F(RelayRulesTest, HoldForRandomStreamsInRandomPackets) {
  const unsigned long count = cases();
  for (unsigned seed = 1; seed <= count && !HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    run(seed);
  }
  // The streams are useful only if much passes and each rule applies.
  EXPECT_GE(relayed, 10 * count);
  EXPECT_EQ(lines.size(), 6U);
  for (const auto& [kind, times] : lines) {
    EXPECT_GE(times, count / 50) << kind;
  }
}

}  // namespace
}  // namespace zell::test
