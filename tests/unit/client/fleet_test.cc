// SPDX-License-Identifier: Apache-2.0
// The fleet, on devices that answer, fail, wait, or close the connection.
#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <runel/fleet.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "drivers.h"

namespace runel {
namespace {

using Numbers = std::vector<std::size_t>;
using Names = std::vector<std::string>;

std::string frame(const std::string& fields) {
  const std::string record = "SlaveTask 0 0 " + fields;
  return "\x01" + std::to_string(record.size()) + "\x02" + record;
}

std::string nameOfDevice(std::size_t number) {
  return "d" + std::to_string(number);
}

zell::UniqueFd boundSocket(std::uint16_t& port) {
  zell::UniqueFd made(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  socklen_t size = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  EXPECT_EQ(bind(made.get(), generic, size), 0);
  EXPECT_EQ(getsockname(made.get(), generic, &size), 0);
  port = ntohs(address.sin_port);
  return made;
}

/// What a device does with a request.
enum class Act { answer, fail, wait, close };

// Devices at one port of several loopback addresses, on the loop of the fleet.
class Devices {
 public:
  /// They refuse connections until `open` is called.
  explicit Devices(Loop& loop) : loop_(loop), listener_(boundSocket(port_)) {}
  ~Devices() {
    loop_.forget(listener_.get());
    for (const auto& connection : connections_) {
      loop_.forget(connection.first);
    }
  }
  Devices(const Devices&) = delete;
  Devices& operator=(const Devices&) = delete;

  void open() {
    EXPECT_EQ(listen(listener_.get(), 64), 0);
    EXPECT_TRUE(loop_.watch(listener_.get(), EPOLLIN, [this](std::uint32_t) { accept(); }));
  }
  [[nodiscard]] Address at(std::size_t number) const {
    return Address("127.0.1." + std::to_string(number + 1), port_).named(nameOfDevice(number));
  }
  [[nodiscard]] std::vector<Address> some(std::size_t count) const {
    std::vector<Address> all;
    for (std::size_t number = 0; number < count; ++number) {
      all.push_back(at(number));
    }
    return all;
  }
  void answer(int fd, const std::string& bytes) {
    EXPECT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  /// Answers all requests of devices that wait.
  void answerWaiting() {
    for (const int fd : std::exchange(waiting_, {})) {
      answer(fd, frame("2:ok 0 0 0 0 0"));
    }
  }

  /// The next acts of each device. Without one it answers.
  std::map<std::size_t, std::deque<Act>> acts;
  /// The devices whose requests have arrived, in order.
  Numbers asked;
  std::vector<std::string> requests;
  int connected = 0;

 private:
  void accept() {
    sockaddr_in local{};
    socklen_t size = sizeof local;
    zell::UniqueFd made(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    EXPECT_EQ(getsockname(made.get(), reinterpret_cast<sockaddr*>(&local), &size), 0);
    const std::size_t number = (ntohl(local.sin_addr.s_addr) & 255U) - 1;
    const int fd = made.get();
    ++connected;
    connections_[fd] = std::move(made);
    EXPECT_TRUE(loop_.watch(fd, EPOLLIN, [this, fd, number](std::uint32_t) { read(fd, number); }));
  }
  void read(int fd, std::size_t number) {
    char part[65536];
    const ssize_t got = recv(fd, part, sizeof part, MSG_DONTWAIT);
    if (got <= 0) {
      hangUp(fd);
      return;
    }
    asked.push_back(number);
    requests.emplace_back(part, static_cast<std::size_t>(got));
    std::deque<Act>& next = acts[number];
    const Act act = next.empty() ? Act::answer : next.front();
    if (!next.empty()) {
      next.pop_front();
    }
    perform(act, fd);
  }
  void perform(Act act, int fd) {
    if (act == Act::answer) {
      answer(fd, frame("2:ok 0 0 0 0 0"));
    } else if (act == Act::fail) {
      answer(fd, frame("0: 1 0 1 13 0"));
    } else if (act == Act::wait) {
      waiting_.push_back(fd);
    } else {
      hangUp(fd);
    }
  }
  void hangUp(int fd) {
    loop_.forget(fd);
    connections_.erase(fd);
    waiting_.erase(std::remove(waiting_.begin(), waiting_.end(), fd), waiting_.end());
  }

  Loop& loop_;
  std::uint16_t port_ = 0;
  zell::UniqueFd listener_;
  std::map<int, zell::UniqueFd> connections_;
  std::vector<int> waiting_;
};

class FleetTest : public ::testing::Test {
 protected:
  FleetTest() { devices.open(); }

  void runUntil(const test::Done& done) { ASSERT_TRUE(test::runUntil(loop, done)); }
  void turnSome() {
    for (int i = 0; i < 20; ++i) {
      loop.turn(Milliseconds(1));
    }
  }
  AsyncFleet::Handlers keep() {
    AsyncFleet::Handlers handlers;
    handlers.done = [this](FleetReport done) { report = std::move(done); };
    return handlers;
  }
  template <typename Work>
  FleetReport run(const Work& work, std::vector<Address> list) {
    AsyncFleet fleet(loop, std::move(list), options);
    fleet.run(work, keep());
    runUntil([this] { return report.has_value(); });
    return *report;
  }
  FleetReport ask(std::vector<Address> list) { return run(hostid, std::move(list)); }
  void retry(int times) { options.setDevice(DeviceOptions().setRetries(times, Milliseconds(1))); }

  Loop loop;
  Devices devices{loop};
  FleetOptions options;
  std::optional<FleetReport> report;
  const Request hostid{{"hostid"}};
  const Request append{{"append", "/x", "data"}};
  const Request write{{"write", "/x", "data"}};
};

Error onlyError(const FleetReport& report) {
  EXPECT_EQ(report.results().size(), 1U);
  const Result<Reply>& reply = report.results().front().reply;
  return reply ? Error(Kind::local, Cause::other, "it succeeded") : reply.error();
}

Error errorOfDevice(const FleetReport& report, std::size_t index) {
  for (const FleetResult& result : report.results()) {
    if (result.index == index && !result.reply) {
      return result.reply.error();
    }
  }
  return {Kind::local, Cause::other, "it succeeded"};
}

TEST_F(FleetTest, ReportsTheRepliesOfAllDevices) {
  devices.acts[1] = {Act::fail};
  const FleetReport done = ask(devices.some(3));
  EXPECT_FALSE(done.ok());
  EXPECT_EQ(done.failed(), Names{"d1"});
  EXPECT_TRUE(done.skipped().empty());
  ASSERT_EQ(done.results().size(), 3U);
  for (const FleetResult& result : done.results()) {
    EXPECT_EQ(result.name, nameOfDevice(result.index));
    EXPECT_EQ(result.attempts, 1);
    EXPECT_EQ(result.reply.ok(), result.index != 1);
    EXPECT_EQ(result.reply ? result.reply->output() : result.reply.error().text(),
              result.index != 1 ? "ok" : "hostid: Permission denied");
  }
}

TEST_F(FleetTest, WithoutDevicesItIsDoneInTheNextStep) {
  AsyncFleet fleet(loop, {}, options);
  fleet.run(hostid, keep());
  EXPECT_FALSE(report.has_value()) << "called within run";
  runUntil([this] { return report.has_value(); });
  EXPECT_TRUE(report->ok());
}

TEST_F(FleetTest, LimitsTheDevicesInParallel) {
  options.setParallel(2);
  for (std::size_t number = 0; number < 5; ++number) {
    devices.acts[number] = {Act::wait};
  }
  AsyncFleet fleet(loop, devices.some(5), options);
  fleet.run(hostid, keep());
  for (const std::size_t most : {2U, 4U, 5U}) {
    runUntil([&] { return devices.asked.size() == most; });
    turnSome();
    EXPECT_EQ(devices.asked.size(), most);
    devices.answerWaiting();
  }
  runUntil([this] { return report.has_value(); });
  EXPECT_TRUE(report->ok());
}

TEST_F(FleetTest, AWaveStartsWhenThePreviousOneHasEnded) {
  ASSERT_TRUE(options.setWaves("1,20%,rest"));
  std::vector<std::string> waves;
  AsyncFleet::Handlers handlers = keep();
  handlers.waveEnded = [&](std::size_t wave, std::size_t failed, bool stopped) {
    waves.push_back(std::to_string(wave) + (stopped ? " stopped " : " of ") +
                    std::to_string(devices.asked.size()));
    EXPECT_EQ(failed, 0U);
  };
  AsyncFleet fleet(loop, devices.some(10), options);
  fleet.run(hostid, std::move(handlers));
  runUntil([this] { return report.has_value(); });
  EXPECT_EQ(waves, (std::vector<std::string>{"1 of 1", "2 of 3"}));
  EXPECT_EQ(devices.asked.size(), 10U);
}

TEST_F(FleetTest, AFailureStopsTheNextWave) {
  ASSERT_TRUE(options.setWaves("1,2,rest"));
  devices.acts[2] = {Act::fail};
  std::size_t stoppedAfter = 0;
  AsyncFleet::Handlers handlers = keep();
  handlers.waveEnded = [&](std::size_t wave, std::size_t failed, bool stopped) {
    stoppedAfter = stopped ? wave : 0;
    EXPECT_EQ(failed, stopped ? 1U : 0U);
  };
  AsyncFleet fleet(loop, devices.some(5), options);
  fleet.run(hostid, std::move(handlers));
  runUntil([this] { return report.has_value(); });
  EXPECT_EQ(stoppedAfter, 2U);
  EXPECT_EQ(report->failed(), Names{"d2"});
  EXPECT_EQ(report->skipped(), (Names{"d3", "d4"}));
}

TEST_F(FleetTest, MaxFailuresDoNotStopTheNextWave) {
  ASSERT_TRUE(options.setWaves("1,2,rest"));
  options.setMaxFailures(1);
  devices.acts[0] = {Act::fail};
  EXPECT_EQ(ask(devices.some(5)).results().size(), 5U);
  report.reset();
  devices.acts[0] = devices.acts[1] = {Act::fail};
  const FleetReport stopped = ask(devices.some(5));
  EXPECT_EQ(stopped.failed(), (Names{"d0", "d1"}));
  EXPECT_EQ(stopped.skipped(), (Names{"d3", "d4"}));
}

TEST_F(FleetTest, FailFastStartsNoFurtherDevice) {
  options.setFailFast(true).setParallel(1);
  devices.acts[1] = {Act::fail};
  const FleetReport done = ask(devices.some(4));
  EXPECT_EQ(devices.asked, (Numbers{0, 1}));
  EXPECT_EQ(done.skipped(), (Names{"d2", "d3"}));
}

// On a busy machine a short deadline may be over before the request is sent.
TEST_F(FleetTest, TheDeadlineEndsAnAttempt) {
  devices.acts[0] = {Act::wait};
  for (Milliseconds deadline{20}; devices.asked.empty() && deadline.count() < 20000;
       deadline *= 2) {
    options.setDeadline(deadline);
    report.reset();
    const Error error = onlyError(ask(devices.some(1)));
    EXPECT_EQ(error.kind(), Kind::timeout);
    EXPECT_EQ(error.cause(), Cause::deadline);
    EXPECT_EQ(error.number(), ETIMEDOUT);
  }
  EXPECT_EQ(onlyError(*report).outcome(), Outcome::unknown);
}

TEST_F(FleetTest, ADeviceMayHaveOtherTimeoutsThanTheRest) {
  devices.acts[0] = {Act::wait};
  options.setDevice(0, DeviceOptions().setTimeout(Milliseconds(20)));
  const FleetReport done = ask(devices.some(2));
  EXPECT_EQ(done.failed(), (Names{"d0"}));
  EXPECT_EQ(errorOfDevice(done, 0).cause(), Cause::silence);
}

TEST_F(FleetTest, ADeviceMayHaveOtherRetriesThanTheRest) {
  devices.acts[0] = {Act::close};
  devices.acts[1] = {Act::close};
  options.setDevice(1, DeviceOptions().setRetries(1, Milliseconds(1)));
  EXPECT_EQ(ask(devices.some(2)).failed(), (Names{"d0"}));
}

TEST_F(FleetTest, ADeviceMayHaveAnotherDeadlineThanTheRest) {
  devices.acts[1] = {Act::wait};
  options.setDeadline(Milliseconds(20)).setDeadline(0, std::nullopt);
  const FleetReport done = ask(devices.some(2));
  EXPECT_EQ(done.failed(), (Names{"d1"}));
  EXPECT_EQ(errorOfDevice(done, 1).cause(), Cause::deadline);
}

TEST_F(FleetTest, ADeadlineWithoutARequestIsNotSent) {
  options.setDeadline(Milliseconds(5));
  const AsyncFleet::Job idle = [](AsyncDevice&, const AsyncFleet::Finish&) {};
  EXPECT_EQ(onlyError(run(idle, devices.some(1))).outcome(), Outcome::notSent);
}

TEST_F(FleetTest, ARefusedConnectionIsRetried) {
  Devices late(loop);
  retry(2);
  int attempts = 0;
  const AsyncFleet::Job job = [&](AsyncDevice& device, const AsyncFleet::Finish& finish) {
    if (++attempts == 2) {
      late.open();
    }
    device.ask(append, [finish](const Reply& reply) {
      finish(reply.answered() ? Result<Reply>(reply) : reply.error());
    });
  };
  const FleetReport done = run(job, late.some(1));
  EXPECT_TRUE(done.ok());
  EXPECT_EQ(done.results().front().attempts, 2);
  EXPECT_EQ(late.asked, Numbers{0});
}

TEST_F(FleetTest, ARefusedConnectionFailsAfterItsRetries) {
  std::uint16_t port = 0;
  const zell::UniqueFd refusing = boundSocket(port);
  retry(2);
  const FleetReport done = run(append, {Address("127.0.0.1", port)});
  EXPECT_EQ(onlyError(done).cause(), Cause::connect);
  EXPECT_EQ(onlyError(done).outcome(), Outcome::notSent);
  EXPECT_EQ(done.results().front().attempts, 3);
}

TEST_F(FleetTest, AnAppendThatMayHaveRunIsNotRepeated) {
  retry(2);
  devices.acts[0] = {Act::close};
  const FleetReport done = run(append, devices.some(1));
  EXPECT_EQ(devices.asked, Numbers{0});
  EXPECT_EQ(onlyError(done).cause(), Cause::closed);
  EXPECT_EQ(onlyError(done).outcome(), Outcome::unknown);
}

TEST_F(FleetTest, AWriteThatMayHaveRunIsRepeated) {
  retry(2);
  devices.acts[0] = {Act::close, Act::close};
  const FleetReport done = run(write, devices.some(1));
  EXPECT_TRUE(done.ok());
  EXPECT_EQ(devices.asked, (Numbers{0, 0, 0}));
  EXPECT_EQ(done.results().front().attempts, 3);
}

TEST_F(FleetTest, AnAppendThatHasRunIsNotRepeatedForALaterRequest) {
  retry(2);
  devices.acts[0] = {Act::answer, Act::close};
  const AsyncFleet::Job job = [&](AsyncDevice& device, const AsyncFleet::Finish& finish) {
    device.ask(append, [&device, finish](const Reply& reply) {
      EXPECT_TRUE(reply.ok());
      device.ask(Request({"read", "/x"}), [finish](const Reply& read) { finish(read.error()); });
    });
  };
  EXPECT_EQ(run(job, devices.some(1)).results().front().attempts, 1);
  EXPECT_EQ(devices.asked, (Numbers{0, 0}));
}

TEST_F(FleetTest, AFailureOfTheDeviceIsNotRepeated) {
  retry(2);
  devices.acts[0] = {Act::fail};
  EXPECT_EQ(onlyError(run(write, devices.some(1))).kind(), Kind::device);
  EXPECT_EQ(devices.asked, Numbers{0});
}

TEST_F(FleetTest, TheDeadlineOfAnAppendIsNotRepeated) {
  retry(2);
  devices.acts[0] = {Act::wait, Act::wait, Act::wait};
  for (Milliseconds deadline{20}; devices.asked.empty() && deadline.count() < 20000;
       deadline *= 2) {
    options.setDeadline(deadline);
    report.reset();
    EXPECT_FALSE(run(append, devices.some(1)).ok());
  }
  EXPECT_EQ(devices.asked, Numbers{0});
}

TEST_F(FleetTest, CancelEndsRunningJobsAndSkipsTheOthers) {
  options.setParallel(2);
  retry(2);
  devices.acts[0] = devices.acts[1] = {Act::wait};
  AsyncFleet fleet(loop, devices.some(3), options);
  fleet.run(hostid, keep());
  runUntil([this] { return devices.asked.size() == 2; });
  fleet.cancel();
  fleet.cancel();
  EXPECT_FALSE(report.has_value()) << "called within cancel";
  runUntil([this] { return report.has_value(); });
  EXPECT_EQ(report->failed(), (Names{"d0", "d1"}));
  EXPECT_EQ(report->skipped(), Names{"d2"});
  EXPECT_EQ(report->results().front().reply.error().cause(), Cause::cancelled);
  EXPECT_EQ(report->results().front().reply.error().outcome(), Outcome::unknown);
}

TEST_F(FleetTest, CancelEndsThePauseBeforeARetry) {
  options.setDevice(DeviceOptions().setRetries(1, std::chrono::hours(1)));
  devices.acts[0] = {Act::close};
  AsyncFleet fleet(loop, devices.some(1), options);
  fleet.run(hostid, keep());
  runUntil([this] { return !devices.asked.empty(); });
  turnSome();
  fleet.cancel();
  runUntil([this] { return report.has_value(); });
  EXPECT_EQ(devices.asked, Numbers{0});
  EXPECT_EQ(report->failed(), Names{"d0"});
}

TEST_F(FleetTest, CancelPreventsTheRetryOfAnAttemptThatHasJustFailed) {
  retry(1);
  devices.acts[0] = {Act::close};
  AsyncFleet fleet(loop, devices.some(1), options);
  fleet.run(
      [&](AsyncDevice& device, const AsyncFleet::Finish& finish) {
        device.ask(hostid, [&fleet, finish](const Reply& reply) {
          finish(reply.error());
          fleet.cancel();
        });
      },
      keep());
  runUntil([this] { return report.has_value(); });
  EXPECT_EQ(onlyError(*report).cause(), Cause::closed);
  EXPECT_EQ(devices.asked, Numbers{0});
}

TEST_F(FleetTest, StartsNoFurtherDevicesWhenTold) {
  options.setParallel(2);
  for (const std::size_t number : {0U, 1U}) {
    devices.acts[number] = {Act::wait};
  }
  AsyncFleet fleet(loop, devices.some(3), options);
  fleet.run(hostid, keep());
  runUntil([this] { return devices.asked.size() == 2; });
  fleet.startNoFurther();
  devices.answerWaiting();
  runUntil([this] { return report.has_value(); });
  EXPECT_EQ(report->results().size(), 2U);
  EXPECT_TRUE(report->failed().empty());
  EXPECT_EQ(report->skipped(), Names{"d2"});
}

TEST_F(FleetTest, RepeatsNothingWhenToldToStartNoFurther) {
  options.setDevice(DeviceOptions().setRetries(1, std::chrono::hours(1)));
  devices.acts[0] = {Act::close};
  AsyncFleet fleet(loop, devices.some(1), options);
  fleet.run(hostid, keep());
  runUntil([this] { return !devices.asked.empty(); });
  turnSome();
  fleet.startNoFurther();
  runUntil([this] { return report.has_value(); });
  EXPECT_EQ(devices.asked, Numbers{0});
  EXPECT_EQ(report->failed(), Names{"d0"});
}

TEST_F(FleetTest, ADeviceThatStandsTwiceIsServedOnce) {
  const FleetReport done = ask({devices.at(0), devices.at(1), devices.at(0).named("again")});
  EXPECT_EQ(done.results().size(), 2U);
  EXPECT_EQ(devices.asked.size(), 2U);
}

TEST_F(FleetTest, TheDoneHandlerMayDestroyTheFleet) {
  auto fleet = std::make_unique<AsyncFleet>(loop, devices.some(3), options);
  AsyncFleet::Handlers handlers;
  handlers.done = [&](const FleetReport& done) {
    fleet.reset();
    EXPECT_EQ(done.results().size(), 3U);
  };
  fleet->run(hostid, std::move(handlers));
  runUntil([&] { return !fleet; });
  turnSome();
}

TEST_F(FleetTest, AnyHandlerMayDestroyTheFleet) {
  for (const bool inReply : {false, true}) {
    auto fleet = std::make_unique<AsyncFleet>(loop, devices.some(3), options);
    AsyncFleet::Handlers handlers = keep();
    handlers.finished = [&](const FleetResult& result) {
      fleet.reset();
      EXPECT_TRUE(result.reply.ok());
    };
    fleet->run(
        [&](AsyncDevice& device, const AsyncFleet::Finish& finish) {
          device.ask(hostid, [&fleet, inReply, finish](const Reply& reply) {
            if (inReply) {
              fleet.reset();
            }
            finish(reply);
          });
        },
        std::move(handlers));
    runUntil([&] { return !fleet; });
    turnSome();
    EXPECT_FALSE(report.has_value());
  }
}

TEST_F(FleetTest, AJobThatStartsMayDestroyTheFleet) {
  ASSERT_TRUE(options.setWaves("1,rest"));
  auto fleet = std::make_unique<AsyncFleet>(loop, devices.some(6), options);
  int started = 0;
  const auto start = [&](AsyncDevice& device, const AsyncFleet::Finish& finish) {
    if (++started == 1) {
      device.ask(hostid, [finish](const Reply& reply) { finish(reply); });
    } else {
      fleet.reset();
    }
  };
  fleet->run([&](AsyncDevice& device, const AsyncFleet::Finish& finish) { start(device, finish); },
             keep());
  runUntil([&] { return !fleet; });
  turnSome();
  EXPECT_EQ(started, 2);
}

TEST_F(FleetTest, TheFirstJobMayDestroyTheFleet) {
  auto fleet = std::make_unique<AsyncFleet>(loop, devices.some(3), options);
  int started = 0;
  fleet->run(
      [&](AsyncDevice& /*device*/, const AsyncFleet::Finish& /*finish*/) {
        ++started;
        fleet.reset();
      },
      keep());
  turnSome();
  EXPECT_EQ(started, 1);
}

TEST_F(FleetTest, ADestroyedFleetCallsNoHandler) {
  devices.acts[0] = {Act::wait};
  devices.acts[1] = {Act::close};
  retry(1);
  auto fleet = std::make_unique<AsyncFleet>(loop, devices.some(2), options);
  AsyncFleet::Handlers handlers;
  handlers.finished = [](const FleetResult&) { ADD_FAILURE(); };
  handlers.done = [](const FleetReport&) { ADD_FAILURE(); };
  fleet->run(hostid, std::move(handlers));
  runUntil([this] { return devices.asked.size() == 2; });
  fleet.reset();
  devices.answerWaiting();
  turnSome();
}

// Leaves a file on the device when its request fails.
class LeavingJob : public FleetJob {
 public:
  LeavingJob(FleetAttempt attempt, int& destroyed)
      : attempt_(std::move(attempt)), destroyed_(destroyed) {}
  ~LeavingJob() override {
    EXPECT_EQ(attempt_.device.pending(), 0U) << "the device lives longer";
    ++destroyed_;
  }

  void start() override {
    attempt_.device.ask(Request({"write", "/x.part", "data"}),
                        [this](const Reply& reply) { attempt_.finish(reply.error()); });
  }
  [[nodiscard]] std::optional<Request> cleanUp() const override {
    return Request({"unlink", "/x.part"});
  }

 private:
  const FleetAttempt attempt_;
  int& destroyed_;
};

class LeavingFleetTest : public FleetTest {
 protected:
  AsyncFleet::MakeJob leaving() {
    return [this](FleetAttempt attempt) {
      numbers.push_back(attempt.number);
      return std::make_unique<LeavingJob>(std::move(attempt), destroyed);
    };
  }
  std::vector<int> numbers;
  int destroyed = 0;
};

TEST_F(LeavingFleetTest, CleansUpOnASeparateConnectionAfterTheLastAttempt) {
  retry(1);
  // The file is removed, absent, back again, and then absent for good.
  devices.acts[0] = {Act::close, Act::close, Act::answer, Act::fail, Act::answer,
                     Act::fail,  Act::fail,  Act::fail,   Act::fail, Act::fail};
  const FleetReport done = run(leaving(), devices.some(1));
  EXPECT_EQ(numbers, (std::vector<int>{1, 2}));
  EXPECT_EQ(destroyed, 2);
  EXPECT_EQ(onlyError(done).cause(), Cause::closed);
  ASSERT_EQ(devices.requests.size(), 10U);
  EXPECT_NE(devices.requests[1].find(":write "), std::string::npos);
  for (std::size_t i = 2; i < devices.requests.size(); ++i) {
    EXPECT_NE(devices.requests[i].find(":unlink "), std::string::npos);
  }
  EXPECT_EQ(devices.connected, 3);
}

TEST_F(LeavingFleetTest, ASecondCancelDoesNotWaitForTheCleanUp) {
  devices.acts[0] = {Act::wait, Act::wait};
  AsyncFleet fleet(loop, devices.some(1), options);
  fleet.run(leaving(), keep());
  for (const std::size_t requests : {1U, 2U}) {
    runUntil([&] { return devices.requests.size() == requests; });
    EXPECT_FALSE(report.has_value());
    fleet.cancel();
  }
  runUntil([this] { return report.has_value(); });
  EXPECT_EQ(onlyError(*report).cause(), Cause::cancelled);
}

TEST_F(LeavingFleetTest, AFleetMayBeDestroyedDuringTheCleanUp) {
  devices.acts[0] = {Act::close, Act::answer};
  auto fleet = std::make_unique<AsyncFleet>(loop, devices.some(1), options);
  fleet->run(leaving(), keep());
  runUntil([this] { return devices.requests.size() == 2; });
  turnSome();  // the fleet waits before it looks again
  fleet.reset();
  std::this_thread::sleep_for(Milliseconds(300));
  turnSome();
  EXPECT_EQ(devices.requests.size(), 2U);
}

TEST_F(LeavingFleetTest, AFleetMayBeDestroyedDuringThePauseBeforeARetry) {
  options.setDevice(DeviceOptions().setRetries(1, Milliseconds(100)));
  devices.acts[0] = {Act::close};
  auto fleet = std::make_unique<AsyncFleet>(loop, devices.some(1), options);
  fleet->run(leaving(), keep());
  runUntil([this] { return destroyed == 1; });
  fleet.reset();
  std::this_thread::sleep_for(Milliseconds(150));
  turnSome();
  EXPECT_EQ(numbers, std::vector<int>{1});
}

TEST_F(FleetTest, UsesALentDevice) {
  AsyncDevice lent(loop, devices.at(1));
  std::optional<Reply> before;
  lent.ask(append, [&](Reply reply) { before = std::move(reply); });
  runUntil([&] { return before.has_value(); });
  AsyncFleet fleet(loop, devices.some(2), options);
  fleet.lend(lent);
  fleet.run(hostid, keep());
  runUntil([this] { return report.has_value(); });
  EXPECT_TRUE(report->ok());
  EXPECT_EQ(devices.connected, 2);
}

TEST_F(FleetTest, AHandlerOfALentDeviceMayDestroyTheFleet) {
  AsyncDevice lent(loop, devices.at(0));
  devices.acts[0] = {Act::close};
  auto fleet = std::make_unique<AsyncFleet>(loop, devices.some(1), options);
  fleet->lend(lent);
  fleet->run(
      [&](AsyncDevice& device, const AsyncFleet::Finish&) {
        device.ask(hostid, [&](const Reply&) { fleet.reset(); });
        device.ask(hostid, [](const Reply&) { ADD_FAILURE() << "the job has ended"; });
      },
      keep());
  runUntil([&] { return !fleet; });
  turnSome();
}

TEST_F(FleetTest, AnEarlierRequestOfALentDeviceDoesNotPreventRetries) {
  AsyncDevice lent(loop, devices.at(0));
  std::optional<Reply> before;
  lent.ask(append, [&](Reply reply) { before = std::move(reply); });
  runUntil([&] { return before.has_value(); });
  retry(1);
  devices.acts[0] = {Act::close};
  AsyncFleet fleet(loop, devices.some(1), options);
  fleet.lend(lent);
  fleet.run(hostid, keep());
  runUntil([this] { return report.has_value(); });
  EXPECT_TRUE(report->ok());
}

TEST(BlockingFleetTest, AMalformedAddressFailsUnderItsOwnText) {
  std::uint16_t port = 0;
  const zell::UniqueFd refusing = boundSocket(port);
  const std::string refused = "127.0.0.1:" + std::to_string(port);
  Fleet fleet({"a:b:c", refused, "a:b:c", refused});
  const FleetReport report = fleet.run(Request({"hostid"}));
  EXPECT_EQ(report.failed(), (Names{"a:b:c", refused}));
  for (const FleetResult& result : report.results()) {
    EXPECT_EQ(result.reply.error().kind(), result.name == refused ? Kind::link : Kind::local);
    EXPECT_EQ(result.attempts, result.name == refused ? 1 : 0);
  }
}

// Answers one request on each of @p count connections.
void serve(int listener, int count) {
  const std::string reply = frame("2:ok 0 0 0 0 0");
  for (int i = 0; i < count; ++i) {
    const zell::UniqueFd connection(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    char part[4096];
    EXPECT_GT(recv(connection.get(), part, sizeof part, 0), 0);
    EXPECT_EQ(send(connection.get(), reply.data(), reply.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(reply.size()));
    EXPECT_EQ(recv(connection.get(), part, sizeof part, 0), 0);
  }
}

TEST(BlockingFleetTest, RunsRequestsAndJobs) {
  std::uint16_t port = 0;
  const zell::UniqueFd listener = boundSocket(port);
  ASSERT_EQ(listen(listener.get(), 5), 0);
  std::thread server(serve, listener.get(), 3);
  const std::string where = ":" + std::to_string(port);
  Fleet fleet({"localhost" + where, "127.0.0.2" + where}, FleetOptions().setParallel(1));
  const FleetReport report = fleet.run(Request({"hostid"}));
  EXPECT_TRUE(report.ok());
  EXPECT_EQ(report.results().size(), 2U);

  Fleet one({"127.0.0.1" + where});
  const FleetReport job = one.run([](AsyncDevice& device, const AsyncFleet::Finish& finish) {
    device.ask(Request({"read", "/x"}), [finish](const Reply& reply) { finish(reply); });
  });
  server.join();
  ASSERT_TRUE(job.ok());
  EXPECT_EQ(job.results().front().reply->output(), "ok");
}

}  // namespace
}  // namespace runel
