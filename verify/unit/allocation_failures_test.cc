// SPDX-License-Identifier: Apache-2.0
// Fails each allocation of the agent server's work: once, or with all that follow. An exception may
// propagate. Every reply that is sent is correct, no memory leaks, and the same work succeeds
// afterwards.
#include <functional>
#include <new>
#include <string>
#include <vector>

#include "unit/agent/agent_case.h"
#include "verify/unit/failing_new.h"

namespace zell::test {
namespace {

constexpr long kAllThatFollow = 1L << 40;

class AllocationFailureTest : public AgentCase {
 protected:
  AllocationFailureTest() {
    device.files["/file"] = std::string(3000, 'x');
    device.directories["/dir"] = {std::string(300, 'a'), std::string(300, 'b')};
    device.tree = std::string(3000, 't');
  }

  using Scenario = std::function<void(TestRunel& server)>;

  // Runs @p scenario on a new server. An exception ends it, as it would end the daemon.
  static void live(const Scenario& scenario) {
    try {
      TestRunel server("192.0.2.1", false, 0);
      scenario(server);
    } catch (const std::bad_alloc&) {
    }
  }

  // The number of allocations in a run without failures, which does all work.
  static long countIn(const Scenario& scenario) {
    live(scenario);  // allocates the data that is kept between runs
    const FailingNew count(0, 0);
    live(scenario);
    return allocationsAsked();
  }

  void failEach(const Scenario& scenario) {
    const long all = countIn(scenario);
    ASSERT_GT(all, 10);
    for (long first = 1; first <= all && !HasFailure(); ++first) {
      for (const long times : {1L, kAllThatFollow}) {
        SCOPED_TRACE("allocation " + std::to_string(first) + ", times " + std::to_string(times));
        forget();
        const long before = allocationsAlive();
        {
          const FailingNew failing(first, times);
          live(scenario);
        }
        forget();
        EXPECT_EQ(allocationsAlive(), before);
      }
    }
  }

  // Releases the memory of the test's recorders.
  void forget() {
    log.clear();
    std::vector<std::string>().swap(device.calls);
  }
};

// Sends @p tasks to the server one by one. Each reply that arrives must be the expected one.
void expectCorrectOrNoReplies(TestRunel& server, const Peer& peer,
                              const std::vector<std::vector<std::string>>& tasks,
                              const std::vector<std::string>& replies) {
  for (std::size_t i = 0; i < tasks.size(); ++i) {
    server.read(peer, request(tasks[i]));
    const std::string got = peer.received();
    EXPECT_TRUE(got.empty() || got == replies[i]) << tasks[i][0] << ": " << got;
  }
}

TEST_F(AllocationFailureTest, AnswersOfTasksAreRightOrNotSent) {
  const std::vector<std::vector<std::string>> tasks = {
      {"read", "/file"}, {"readdir", "/dir"}, {"walktree", "/"}, {"hostid"}, {"stat", "/file"}};
  std::vector<std::string> replies;
  {
    TestRunel server("192.0.2.1", false, 0);
    const Peer peer = server.accept();
    for (const auto& task : tasks) {
      server.read(peer, request(task));
      replies.push_back(peer.received());
      ASSERT_FALSE(replies.back().empty());
    }
  }
  failEach([&](TestRunel& server) {
    const Peer peer = server.accept();
    expectCorrectOrNoReplies(server, peer, tasks, replies);
  });
}

TEST_F(AllocationFailureTest, WhatIsStoredIsWhole) {
  const std::string content(3000, 'n');
  int stored = 0;
  device.onCall = [&](const std::string& call) {
    const bool stores = call.rfind("writeFile", 0) == 0 || call.rfind("appendFile", 0) == 0 ||
                        call.rfind("storeUmState", 0) == 0;
    stored += stores ? 1 : 0;
    EXPECT_TRUE(!stores || call.substr(call.size() - content.size()) == content) << call;
  };
  failEach([&](TestRunel& server) {
    const Peer peer = server.accept();
    server.read(peer, request({"write", "/a", content}));
    server.read(peer, request({"append", "/b", content}));
    server.read(peer, request({"updateumstate", "key", content}));
  });
  EXPECT_GT(stored, 100);
  device.onCall = nullptr;
}

// The bridge must never keep a pointer to a deleted peer.
TEST_F(AllocationFailureTest, RelayedClausesAreWhole) {
  failEach([](TestRunel& server) {
    const Peer master = server.connect();
    const Peer first = server.accept();
    server.read(first, "<first>" + std::string(100, 'x') + "</first>");
    const Peer bridge = server.connect();
    const Peer agent = server.accept();
    server.read(agent, "<second/>");
    server.read(bridge, "<third/>");
    server.read(agent, "<fourth/>");
    server.handle_loop();
    (void)server.drop_socket(agent.socket());
    const std::string got = agent.received();
    EXPECT_TRUE(got.empty() || got == "<third/>\r\n") << got;
  });
}

}  // namespace
}  // namespace zell::test
