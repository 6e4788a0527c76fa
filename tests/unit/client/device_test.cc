// SPDX-License-Identifier: Apache-2.0
// The blocking device against a scripted peer in a thread.
#include <runel/device.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <runel/transfer.h>

#include "base/unique_fd.h"
#include "client/core/frame_stream.h"
#include "support/loopback.h"
#include "support/task_wire.h"
#include "support/temp_dir.h"

namespace runel {
namespace {

constexpr int kMostConnections = 20;

std::string replyText(const std::string& output, const std::string& status = "0 0 0 0 0") {
  return "SlaveTask 0 0 " + std::to_string(output.size()) + ":" + output + " " + status;
}

std::string failure(int number) {
  return replyText("", "1 0 1 " + std::to_string(number) + " 0");
}

// Serves one connection after the other on the loopback.
class ThreadPeer {
 public:
  // The reply to a payload; without a value the peer closes the connection.
  using Script = std::function<std::optional<std::string>(const std::string& payload)>;

  explicit ThreadPeer(Script script)
      : script_(std::move(script)), listener_(zell::test::listenOnLoopback(port_)) {
    thread_ = std::thread([this] { serve(); });
  }
  ~ThreadPeer() {
    ended_ = true;
    (void)shutdown(listener_.get(), SHUT_RDWR);  // wakes accept
    thread_.join();
  }
  ThreadPeer(const ThreadPeer&) = delete;
  ThreadPeer& operator=(const ThreadPeer&) = delete;

  [[nodiscard]] Address address() const { return Address("127.0.0.1", port_); }
  [[nodiscard]] int connections() const { return connections_; }
  [[nodiscard]] int requests() const { return requests_; }

 private:
  void serve() {
    while (!ended_ && connections_ < kMostConnections) {
      const zell::UniqueFd peer(accept(listener_.get(), nullptr, nullptr));
      if (peer.valid()) {
        ++connections_;
        serveOne(peer.get());
      }
    }
  }

  void serveOne(int peer) {
    timeval limit{};
    limit.tv_usec = 50000;  // to notice the end of the test
    (void)setsockopt(peer, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    FrameStream stream;
    while (!ended_) {
      char bytes[65536];
      const ssize_t got = recv(peer, bytes, sizeof bytes, 0);
      if (got < 0 && errno == EAGAIN) {
        continue;
      }
      if (got <= 0 || !answerAll(peer, stream, std::string(bytes, static_cast<std::size_t>(got)))) {
        return;
      }
    }
  }

  bool answerAll(int peer, FrameStream& stream, const std::string& bytes) {
    stream.receive(bytes);
    while (const std::optional<std::string> payload = stream.nextPayload()) {
      ++requests_;
      const std::optional<std::string> reply = script_(*payload);
      if (!reply) {
        return false;
      }
      stream.send(*reply);
    }
    while (stream.queued() > 0) {
      const std::string_view part = stream.outgoing(1).front();
      const ssize_t taken = send(peer, part.data(), part.size(), MSG_NOSIGNAL);
      if (taken < 0) {
        return false;
      }
      stream.sent(static_cast<std::size_t>(taken));
    }
    return true;
  }

  const Script script_;
  std::uint16_t port_ = 0;
  zell::UniqueFd listener_;
  std::atomic<int> connections_{0};
  std::atomic<int> requests_{0};
  std::atomic<bool> ended_{false};
  std::thread thread_;
};

bool has(const std::string& payload, const std::string& task) {
  return payload.find(":" + task + " ") != std::string::npos;
}

ThreadPeer::Script always(const std::string& reply) {
  return [reply](const std::string&) { return reply; };
}

// Closes the first connection instead of answering.
ThreadPeer::Script loseOnce() {
  return [lost = false](const std::string&) mutable -> std::optional<std::string> {
    return std::exchange(lost, true) ? std::make_optional(replyText("")) : std::nullopt;
  };
}

DeviceOptions once() {
  return DeviceOptions().setRetries(1, Milliseconds(1));
}

TEST(DeviceTest, SendsATaskAndReturnsItsValue) {
  const ThreadPeer peer([](const std::string& payload) {
    return has(payload, "hostid") ? replyText("abc") : failure(ENOSYS);
  });
  Device device(peer.address());
  const Result<std::string> hostid = device.hostid();
  ASSERT_TRUE(hostid);
  EXPECT_EQ(*hostid, "abc");
}

TEST(DeviceTest, AMalformedAddressFailsInTheFirstCall) {
  Device device("not an address");
  const Result<std::string> hostid = device.hostid();
  ASSERT_FALSE(hostid);
  EXPECT_EQ(hostid.error().kind(), Kind::local);
  EXPECT_EQ(device.pipeline({Request({"hostid"})}).front().error().kind(), Kind::local);
}

TEST(DeviceTest, AFailedTaskIsAnAnsweredErrorWithTheDevicesNumber) {
  const ThreadPeer peer(always(failure(EACCES)));
  Device device(peer.address());
  const Result<std::string> content = device.read("/etc/shadow");
  ASSERT_FALSE(content);
  EXPECT_EQ(content.error().kind(), Kind::device);
  EXPECT_EQ(content.error().outcome(), Outcome::answered);
  EXPECT_EQ(content.error().number(), EACCES);
  EXPECT_EQ(content.error().text(), "/etc/shadow: Permission denied");
}

TEST(DeviceTest, QuestionsHaveNegativeAnswersThatAreNoErrors) {
  const ThreadPeer peer([](const std::string& payload) {
    return failure(has(payload, "fileexists") ? ENOENT : EIO);
  });
  Device device(peer.address());
  const Result<bool> exists = device.fileExists("/x");
  ASSERT_TRUE(exists);
  EXPECT_FALSE(*exists);
  EXPECT_FALSE(device.access("/x", 4)) << "EIO is no answer";
}

TEST(DeviceTest, AMalformedValueIsALinkError) {
  const ThreadPeer peer(always(replyText("nonsense")));
  Device device(peer.address());
  EXPECT_EQ(device.stat("/x").error().cause(), Cause::protocol);
  EXPECT_EQ(device.readdir("/x").error().kind(), Kind::link);
  EXPECT_EQ(device.freeBlocks("/x").error().outcome(), Outcome::answered);
}

TEST(DeviceTest, EachCallSendsItsTask) {
  std::vector<std::string> came;
  const ThreadPeer peer([&](const std::string& payload) {
    came.push_back(payload);
    return replyText("");
  });
  Device first(peer.address());
  Device device = std::move(first);
  EXPECT_TRUE(device.append("/x", "data") && device.write("/x", "data") && device.chmodx("/x"));
  EXPECT_TRUE(device.rename("/x", "/y") && device.unlink("/y"));
  EXPECT_TRUE(device.changeLeds(true, false) && device.blinkLeds("fast"));
  EXPECT_TRUE(device.updateUmState("key", "state") && device.reboot());
  EXPECT_TRUE(device.realpath("/x") && device.deviceType());
  EXPECT_TRUE(*device.processRunning("name") && *device.access("/x", 4));
  const std::vector<std::vector<std::string>> expected{{"append", "/x", "data"},
                                                       {"write", "/x", "data"},
                                                       {"chmodx", "/x"},
                                                       {"rename", "/x", "/y"},
                                                       {"unlink", "/y"},
                                                       {"changeleds", "1", "0"},
                                                       {"blinkleds", "fast"},
                                                       {"updateumstate", "key", "state"},
                                                       {"reboot"},
                                                       {"realpath", "/x"},
                                                       {"devicetype"},
                                                       {"processrunning", "name"},
                                                       {"access", "/x", "4"}};
  ASSERT_EQ(came.size(), expected.size());
  for (std::size_t i = 0; i < came.size(); ++i) {
    EXPECT_EQ(came[i], zell::test::requestRecord(expected[i]));
  }
}

TEST(DeviceTest, ValuesAreParsed) {
  const ThreadPeer peer([](const std::string& payload) {
    return replyText(has(payload, "freeblocks") ? "12"
                     : has(payload, "readdir")  ? "StringVec 2\n1:a\n2:bc\n"
                                                : "dev=1 ino=2 mode=0100600 nlink=1 uid=0 gid=0 "
                                                  "rdev=0 size=7 blksize=4096 blocks=0 "
                                                  "atime=0.000000000 mtime=5.000000000 "
                                                  "ctime=0.000000000\n");
  });
  Device device(peer.address());
  EXPECT_EQ(*device.freeBlocks("/"), 12U);
  EXPECT_EQ(*device.readdir("/"), (std::vector<std::string>{"a", "bc"}));
  EXPECT_EQ(device.stat("/x")->size, 7U);
  EXPECT_EQ(device.lstat("/x")->size, 7U);
}

TEST(DeviceTest, AnEndedConnectionIsHowARestartSucceeds) {
  const ThreadPeer peer([](const std::string& payload) {
    return has(payload, "hostid") ? std::make_optional(replyText("abc")) : std::nullopt;
  });
  Device device(peer.address());
  EXPECT_TRUE(device.restart());
  EXPECT_EQ(*device.hostid(), "abc");
  Device nowhere(Address("127.0.0.1", 9));
  EXPECT_EQ(nowhere.restart().error().number(), ECONNREFUSED);
}

TEST(DeviceTest, ATransferReportsWhatFailed) {
  const ThreadPeer peer(always(failure(EACCES)));
  const zell::test::TempDir dir;
  const std::string file = dir.write("file", "data");
  Device device(peer.address());
  const Result<TransferReport> reports[] = {
      device.pull({"/x"}, dir.path()), device.push({file}, "/x"), device.sync(dir.path(), "/x")};
  for (const Result<TransferReport>& report : reports) {
    ASSERT_TRUE(report);
    ASSERT_TRUE(report->error());
    EXPECT_EQ(report->error()->number(), EACCES);
  }
  EXPECT_EQ(device.push({dir.file("none")}, "/x").error().number(), ENOENT);
  EXPECT_EQ(device.sync(dir.file("none"), "/x").error().number(), ENOENT);
  EXPECT_EQ(Device("not an address").pull({"/x"}, dir.path()).error().kind(), Kind::local);
}

TEST(ErrorTest, KindsAndOutcomesHaveNames) {
  std::string names;
  for (const Kind kind : {Kind::link, Kind::device, Kind::program, Kind::local, Kind::timeout}) {
    names += std::string(nameOf(kind)) + ", ";
  }
  for (const Outcome outcome : {Outcome::notSent, Outcome::answered, Outcome::unknown}) {
    names += std::string(nameOf(outcome)) + ", ";
  }
  EXPECT_EQ(names,
            "link, device, program, local, timeout, not sent, answered, sent, outcome unknown, ");
}

TEST(DeviceTest, AProgramsExitStatusIsAResultAndNoError) {
  const ThreadPeer peer(always(replyText("out", "1 2 3 0 0")));
  Device device(peer.address());
  const Result<ProgramResult> program = device.exec({"false"}, std::chrono::seconds(5));
  ASSERT_TRUE(program);
  EXPECT_EQ(program->exitStatus, 3);
  EXPECT_EQ(program->output, "out");
  EXPECT_FALSE(program->ok());
}

TEST(DeviceTest, AProgramThatWasKilledHasASignalAndNoExitStatus) {
  const ThreadPeer peer(always(replyText("out", "1 3 7 0 9")));
  Device device(peer.address());
  const Result<ProgramResult> program = device.exec({"sleep", "9"});
  ASSERT_TRUE(program);
  EXPECT_EQ(program->state, ProgramState::signalled);
  EXPECT_EQ(program->signal, 9);
  EXPECT_EQ(program->exitStatus, 0);
}

TEST(DeviceTest, AProgramThatCannotBeStartedIsAnError) {
  const ThreadPeer peer(always(failure(ENOENT)));
  Device device(peer.address());
  EXPECT_EQ(device.exec({"/none"}).error().number(), ENOENT);
  EXPECT_EQ(device.start({"/none"}).error().text(), "/none: No such file or directory");
}

TEST(DeviceTest, AProgramWithoutALimitHasThatOfTheOptions) {
  const ThreadPeer peer([](const std::string& payload) {
    return replyText(payload.substr(payload.find("true") + 5, 2), "0 2 0 0 0");
  });
  const std::vector<std::string> program{"true"};
  Device plain(peer.address());
  EXPECT_EQ(plain.exec(program)->output, "0 ");
  plain.close();
  Device limited(peer.address(), DeviceOptions().setProgramLimit(std::chrono::seconds(7)));
  EXPECT_EQ(limited.exec(program)->output, "7 ");
  EXPECT_EQ(limited.exec(program, std::chrono::seconds(9))->output, "9 ");
  EXPECT_EQ(limited.exec(program, std::chrono::seconds(-1))->output, "0 ");
}

TEST(DeviceTest, TheIoTimeoutHasTwoNames) {
  const Milliseconds time(1234);
  EXPECT_EQ(DeviceOptions().setTimeout(time).ioTimeout(), time);
  EXPECT_EQ(DeviceOptions().setIoTimeout(time).timeout(), time);
  EXPECT_EQ(DeviceOptions().programLimit().count(), 0);
}

TEST(DeviceTest, ATaskThatIsSafeToRepeatIsRepeatedAfterALoss) {
  const ThreadPeer peer(loseOnce());
  Device device(peer.address(), once());
  EXPECT_TRUE(device.write("/x", "y"));
  EXPECT_EQ(peer.requests(), 2);
}

TEST(DeviceTest, ATaskThatIsNotSafeToRepeatIsSentOnce) {
  const ThreadPeer peer(loseOnce());
  Device device(peer.address(), once());
  const Result<void> appended = device.append("/x", "y");
  ASSERT_FALSE(appended);
  EXPECT_EQ(appended.error().outcome(), Outcome::unknown);
  EXPECT_EQ(peer.requests(), 1);
}

TEST(DeviceTest, NothingIsRepeatedByDefault) {
  const ThreadPeer peer(loseOnce());
  Device device(peer.address());
  EXPECT_FALSE(device.write("/x", "y"));
  EXPECT_TRUE(device.write("/x", "y"));
  EXPECT_EQ(peer.connections(), 2);
}

TEST(DeviceTest, ARefusedConnectionIsNotSentAndIsTriedAgain) {
  std::optional<Address> closed;
  { closed = ThreadPeer(always("")).address(); }
  Device device(*closed, DeviceOptions().setRetries(2, Milliseconds(20)));
  const auto begin = std::chrono::steady_clock::now();
  const Result<void> appended = device.append("/x", "y");
  ASSERT_FALSE(appended);
  EXPECT_EQ(appended.error().outcome(), Outcome::notSent);
  EXPECT_EQ(appended.error().number(), ECONNREFUSED);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, Milliseconds(60)) << "20 ms, then 40 ms";
}

TEST(DeviceTest, AnIoTimeoutLeavesTheOutcomeUnknown) {
  const ThreadPeer peer([](const std::string&) {
    std::this_thread::sleep_for(Milliseconds(200));
    return replyText("");
  });
  Device device(peer.address(), once().setTimeout(Milliseconds(20)));
  const Result<std::string> hostid = device.hostid();
  ASSERT_FALSE(hostid);
  EXPECT_EQ(hostid.error().kind(), Kind::timeout);
  EXPECT_EQ(hostid.error().outcome(), Outcome::unknown);
}

TEST(DeviceTest, APipelineAnswersInOrder) {
  const ThreadPeer peer(
      [count = 0](const std::string&) mutable { return replyText(std::to_string(count++)); });
  Device device(peer.address());
  const std::vector<Reply> replies =
      device.pipeline(std::vector<Request>(600, Request({"hostid"})));
  ASSERT_EQ(replies.size(), 600U);
  for (std::size_t i = 0; i < replies.size(); ++i) {
    EXPECT_EQ(replies[i].output(), std::to_string(i));
  }
}

TEST(DeviceTest, ABrokenPipelineTellsWhatWasNotSent) {
  const ThreadPeer peer([count = 0](const std::string&) mutable -> std::optional<std::string> {
    return ++count > 300 ? std::nullopt : std::make_optional(replyText(""));
  });
  Device device(peer.address());
  const std::vector<Reply> replies =
      device.pipeline(std::vector<Request>(900, Request({"hostid"})));
  ASSERT_EQ(replies.size(), 900U);
  const auto answered = std::count_if(replies.begin(), replies.end(),
                                      [](const Reply& reply) { return reply.answered(); });
  EXPECT_LE(answered, 300);
  EXPECT_EQ(replies.back().error().outcome(), Outcome::notSent);
  EXPECT_EQ(peer.connections(), 1);
}

TEST(DeviceTest, RestartReturnsWhenTheConnectionHasEnded) {
  const ThreadPeer peer([](const std::string&) { return std::optional<std::string>(); });
  Device device(peer.address());
  EXPECT_TRUE(device.restart());
}

TEST(DeviceTest, RestartFailsWhenTheConnectionStaysOpen) {
  // An empty payload would be an answer, so this peer only reads.
  std::uint16_t port = 0;
  const zell::UniqueFd listener = zell::test::listenOnLoopback(port);
  Device device(Address("127.0.0.1", port), DeviceOptions().setTimeout(Milliseconds(30)));
  const Result<void> restarted = device.restart();
  ASSERT_FALSE(restarted);
  EXPECT_EQ(restarted.error().outcome(), Outcome::unknown);
}

TEST(DeviceTest, IsMovable) {
  const ThreadPeer peer(always(replyText("abc")));
  Device first(peer.address());
  EXPECT_TRUE(first.hostid());
  Device second(std::move(first));
  EXPECT_TRUE(second.hostid());
  EXPECT_EQ(peer.connections(), 1);
}

}  // namespace
}  // namespace runel
