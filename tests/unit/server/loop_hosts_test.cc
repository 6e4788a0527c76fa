// SPDX-License-Identifier: Apache-2.0
// Connections to hosts in the loop: reading, losing, reconnecting.
#include <utility>

#include "unit/server/loop_fixture.h"

namespace zell::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

TEST_F(HostLoop, PassesPacketsWithTheHostsPort) {
  UniqueFd far;
  server_.onStarted = [&] {
    far = acceptFrom(master_);
    sendAll(far, "task");
  };
  int fd = -1;
  server_.onData = [&](int socket, const std::string&) { fd = socket; };
  server_.runUntil([&] { return fd != -1; });
  EXPECT_EQ(server_.count("data " + std::to_string(fd) + " port 6012 task"), 1);
}

TEST_F(HostLoop, ReconnectsALostHostInTheSamePass) {
  UniqueFd far;
  int first = -1;
  server_.onStarted = [&] {
    far = acceptFrom(master_);
    first = server_.hostSocket(0);
    far.reset();
    (void)lines();
  };
  server_.runPasses(1);
  const std::string number = std::to_string(first);
  EXPECT_THAT(
      lines(),
      ElementsAre(
          "WARNING (PID) empty read from outbound socket " + number + ", to 127.0.0.1, it's dead",
          "INFO (PID) process_read declared the outbound connection " + number + " dead",
          "INFO (PID) closing connection 127.0.0.1, socket " + number,
          "INFO (PID) established connection to 127.0.0.1, port 6012, socket " + number,
          "INFO (PID) closing host 127.0.0.1, socket " + number));
  EXPECT_THAT(server_.calls,
              ElementsAre("startup", "outgoing " + number, "started", "select 1",
                          "drop host " + number, "outgoing " + number, "loop", "shutdown"));
}

TEST_F(HostLoop, RetriesAnAbsentHostAtTheEndOfEachPass) {
  master_.reset();
  int passes = 0;
  server_.onLoop = [&] {
    if (++passes == 3) {
      master_ = listenOn(kMasterPort);
    }
  };
  server_.runUntil([&] { return server_.hostSocket(0) != -1; });
  EXPECT_EQ(passes, 4);
  EXPECT_THAT(server_.calls.back(), "shutdown");
  EXPECT_EQ(server_.events().size(), 4U) << "startup, started, outgoing, shutdown";
}

TEST_F(HostLoop, DropsAnOutboundConnectionInTheExceptSet) {
  UniqueFd far;
  int fd = -1;
  server_.onStarted = [&] {
    far = acceptFrom(master_);
    fd = server_.hostSocket(0);
    sendUrgent(far);
    (void)lines();
  };
  server_.runPasses(1);
  const std::vector<std::string> texts = log.texts();
  ASSERT_GE(texts.size(), 2U);
  EXPECT_EQ(texts[0], "(PID) outbound connection " + std::to_string(fd) + " disconnected");
  EXPECT_EQ(texts[1], "(PID) closing connection 127.0.0.1, socket " + std::to_string(fd));
}

TEST_F(HostLoop, LosesOneHostInAPass) {
  server_.add_host("127.0.0.1", kMasterPort);
  server_.onStarted = [&] {
    for (int i = 0; i < 2; ++i) {
      acceptFrom(master_).reset();
    }
    master_.reset();
  };
  std::vector<std::pair<bool, bool>> connected;
  server_.onLoop = [&] {
    connected.emplace_back(server_.hostSocket(0) != -1, server_.hostSocket(1) != -1);
  };
  server_.runPasses(2);
  EXPECT_THAT(connected, ElementsAre(std::make_pair(false, true), std::make_pair(false, false)));
}

TEST_F(HostLoop, EndsWhenAnExceptionalHostCannotBeFound) {
  UniqueFd far;
  int fd = -1;
  server_.onStarted = [&] {
    far = acceptFrom(master_);
    fd = server_.hostSocket(0);
    sendUrgent(far);
    (void)lines();
  };
  server_.onDropHostConnection = [](int) { return 0; };
  EXPECT_EQ(server_.runPasses(5), 0);
  const std::string number = std::to_string(fd);
  EXPECT_THAT(lines(), ElementsAre("INFO (PID) outbound connection " + number + " disconnected",
                                   "ERR (PID) *** error: cannot find outbound connection " +
                                       number + ", exiting",
                                   "INFO (PID) closing host 127.0.0.1, socket " + number));
  EXPECT_EQ(server_.count("loop"), 1) << "the pass goes on to its end, and no other follows";
}

TEST_F(HostLoop, EndsWhenADeadHostCannotBeFound) {
  int fd = -1;
  server_.onStarted = [&] {
    acceptFrom(master_).reset();
    fd = server_.hostSocket(0);
    (void)lines();
  };
  server_.onDropHostConnection = [](int) { return 0; };
  EXPECT_EQ(server_.runPasses(5), 0);
  const std::string number = std::to_string(fd);
  EXPECT_THAT(
      lines(),
      ElementsAre(
          "WARNING (PID) empty read from outbound socket " + number + ", to 127.0.0.1, it's dead",
          "INFO (PID) process_read declared the outbound connection " + number + " dead",
          "ERR (PID) *** error: drop_host_connection cannot find the outbound "
          "connection " +
              number + ", exiting",
          "INFO (PID) closing host 127.0.0.1, socket " + number));
  EXPECT_EQ(server_.count("loop"), 1);
}

TEST_F(HostLoop, EndsTheScanWhenAHostCannotBeFound) {
  server_.add_host("127.0.0.1", kMasterPort);
  std::vector<UniqueFd> far;
  server_.onStarted = [&] {
    acceptFrom(master_).reset();
    far.push_back(acceptFrom(master_));
    sendAll(far.back(), "behind");
  };
  server_.onDropHostConnection = [](int) { return 0; };
  server_.runPasses(5);
  EXPECT_EQ(log.countContaining("exiting"), 1);
  EXPECT_THAT(server_.calls, Not(Contains(HasSubstr("behind"))));
}

}  // namespace
}  // namespace zell::test
