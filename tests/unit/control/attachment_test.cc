// SPDX-License-Identifier: Apache-2.0
// A process that uses a device through the master.
#include "control/attachment.h"

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <runel/async_master.h>
#include <runel/loop.h>

#include "base/unique_fd.h"
#include "client/core/frame_stream.h"
#include "support/sizes.h"
#include "support/socket_pair.h"
#include "unit/client/scripted_device.h"
#include "unit/control/streams.h"

namespace runelctl {
namespace {

using runel::frameOf;
using runel::recordOf;
using runel::ScriptedDevice;
using zell::UniqueFd;
using zell::test::kMiB;
using zell::test::SocketPair;

std::string request(const std::string& path) {
  return "SlaveTask 2 4:read " + std::to_string(path.size()) + ":" + path + " 0 0 0 0 0";
}

class AttachmentTest : public ::testing::Test {
 protected:
  AttachmentTest()
      : master(loop, runel::MasterOptions().setListen("127.0.0.1", 0),
               [this](const runel::MasterEvent& event) {
                 connected = connected || event.type() == runel::MasterEvent::Type::connected;
               }) {
    EXPECT_TRUE(master.open());
    device = std::make_unique<ScriptedDevice>(master.port());
    device->sayIdentity();
    runUntil([this] { return connected; });
    attach();
  }
  void attach() {
    auto user = master.attach("fake", attachment->handlers());
    ASSERT_TRUE(user);
    attachment->start(UniqueFd(dup(process.near())), *std::move(user));
  }
  void runUntil(const std::function<bool()>& done) {
    test::runUntil(loop, [&] {
      if (device->isOpen()) {
        device->serve();
      }
      return done();
    });
  }
  void say(const std::string& bytes) {
    ASSERT_EQ(send(process.far(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  /// The next answers that the process gets.
  std::vector<std::string> hear(std::size_t count) {
    std::vector<std::string> answers;
    runUntil([&] {
      heard_.receive(process.received());
      while (auto payload = heard_.nextPayload()) {
        answers.push_back(*std::move(payload));
      }
      return answers.size() >= count;
    });
    return answers;
  }

  SocketPair process = SocketPair::local();
  runel::Loop loop;
  bool connected = false;
  int ends = 0;
  runel::AsyncMaster master;
  std::unique_ptr<ScriptedDevice> device;
  std::unique_ptr<Attachment> attachment = std::make_unique<Attachment>(loop, [this] { ++ends; });

 private:
  runel::FrameStream heard_;
};

TEST_F(AttachmentTest, PassesRequestsAndAnswersOn) {
  device->special = recordOf("bytes \x01\x02 of any value");
  say(frameOf(request("/a")) + frameOf(request("/b")));
  EXPECT_EQ(hear(2), (std::vector<std::string>{device->special, device->special}));
  EXPECT_EQ(device->last, request("/b"));
}

TEST_F(AttachmentTest, AnIncompleteFrameDoesNotReachTheDevice) {
  const std::string frame = frameOf(request("/a"));
  const std::string before = device->came;
  say(frame.substr(0, frame.size() - 1));
  for (int i = 0; i < 20; ++i) {
    loop.turn(runel::Milliseconds(1));
    device->serve();
  }
  EXPECT_EQ(device->came, before);
  say(frame.substr(frame.size() - 1));
  EXPECT_EQ(hear(1).size(), 1U);
}

TEST_F(AttachmentTest, EndsOnceWhenTheProcessLeaves) {
  process.closeFar();
  runUntil([this] { return ends > 0; });
  device->close();
  for (int i = 0; i < 20; ++i) {
    loop.turn(runel::Milliseconds(1));
  }
  EXPECT_EQ(ends, 1);
}

TEST_F(AttachmentTest, EndsOnceWhenTheDeviceIsLost) {
  device->close();
  runUntil([this] { return ends > 0; });
  say(frameOf(request("/a")));  // ignored
  process.closeFar();
  for (int i = 0; i < 20; ++i) {
    loop.turn(runel::Milliseconds(1));
  }
  EXPECT_EQ(ends, 1);
}

TEST_F(AttachmentTest, ClosesTheConnectionWhenItIsDestroyed) {
  attachment.reset();
  shutdown(process.near(), SHUT_RDWR);  // the test's own descriptor of this end
  EXPECT_TRUE(process.ended());
}

TEST_F(AttachmentTest, AnAnswerAfterTheProcessHasLeftIsDropped) {
  device->answers = false;
  say(frameOf(request("/a")));
  runUntil([this] { return device->takeRequest(); });
  process.closeFar();
  runUntil([this] { return ends > 0; });
  attachment.reset();
  device->say(frameOf(recordOf("late")));
  for (int i = 0; i < 20; ++i) {
    loop.turn(runel::Milliseconds(1));
  }
  EXPECT_EQ(master.devices().size(), 1U) << "the device stays";
}

TEST_F(AttachmentTest, TheDeviceWaitsForAProcessThatReadsSlowly) {
  constexpr std::size_t kAnswers = 64;
  const std::string answer = frameOf(recordOf(std::string(kMiB, 'x')));
  device->answers = false;
  for (std::size_t i = 0; i < kAnswers; ++i) {
    say(frameOf(request("/" + std::to_string(i))));
  }
  runUntil([&] {
    while (device->takeRequest()) {
    }
    return device->last == request("/63");
  });
  std::atomic<std::size_t> said = 0;
  std::thread sender([&] {
    for (; said < kAnswers; ++said) {
      device->say(answer);
    }
  });
  std::size_t before = 0;
  do {  // until nothing moves: the process reads nothing
    before = said;
    for (int i = 0; i < 50; ++i) {
      loop.turn(runel::Milliseconds(2));
    }
  } while (said != before);
  EXPECT_LT(before, kAnswers / 2) << "answers are kept in memory";
  std::size_t heard = 0;
  runel::FrameStream frames;
  test::runUntil(loop, [&] {
    frames.receive(process.received());
    while (frames.nextPayload()) {
      ++heard;
    }
    return heard == kAnswers;
  });
  sender.join();
}

}  // namespace
}  // namespace runelctl
