// SPDX-License-Identifier: Apache-2.0
// Handlers that change the list of hosts while the loop walks it.
#include <functional>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "unit/server/loop_fixture.h"

namespace zell::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// Hosts that are all readable in one pass.
class HostReentrancy : public HostLoop {
 protected:
  static constexpr std::size_t kHosts = 4;

  void TearDown() override {
    far_.clear();
    HostLoop::TearDown();
  }

  /// Runs one pass in which every host is readable. @p handler gets the place of each.
  void serveAll(const std::function<void(std::size_t place)>& handler) {
    while (server_.m_hosts.size() < kHosts) {
      server_.add_host("127.0.0.1", kMasterPort);
    }
    server_.onStarted = [&] {
      for (std::size_t i = 0; i < kHosts; ++i) {
        far_.push_back(acceptFrom(master_));
        sockets_.push_back(server_.hostSocket(i));
        sendAll(far_.back(), "x");
      }
      (void)lines();
    };
    server_.onData = [&](int fd, const std::string&) {
      for (std::size_t place = 0; place < kHosts; ++place) {
        if (sockets_[place] == fd) {
          served_.push_back(place);
          handler(place);
          return;
        }
      }
      ADD_FAILURE() << "served a socket that no host had: " << fd;
    };
    server_.onLoop = [&] { hosts_ = server_.m_hosts.size(); };
    server_.runPasses(1);
  }

  std::vector<UniqueFd> far_;
  std::vector<int> sockets_;         // by place, before the pass
  std::vector<std::size_t> served_;  // the places served in the pass
  std::size_t hosts_ = 0;            // after it
};

TEST_F(HostReentrancy, AllAreServedInListOrder) {
  serveAll([](std::size_t) {});
  EXPECT_THAT(served_, ElementsAre(0U, 1U, 2U, 3U));
}

TEST_F(HostReentrancy, AHandlerDropsItsOwnConnection) {
  serveAll([&](std::size_t place) {
    if (place == 1) {
      EXPECT_EQ(server_.drop_host_connection(sockets_[1]), -1);
    }
  });
  EXPECT_THAT(served_, ElementsAre(0U, 1U, 2U, 3U));
  EXPECT_EQ(log.countContaining("established connection"), 1) << "made again in the same pass";
}

TEST_F(HostReentrancy, AHandlerRemovesItsOwnHost) {
  serveAll([&](std::size_t place) {
    if (place == 1) {
      server_.drop_host_connection(sockets_[1]);
      server_.remove_host("127.0.0.1", kMasterPort);
    }
  });
  EXPECT_THAT(served_, ElementsAre(0U, 1U, 2U, 3U));
  EXPECT_EQ(hosts_, 3U);
}

TEST_F(HostReentrancy, AHandlerRemovesTheNextHost) {
  serveAll([&](std::size_t place) {
    if (place == 1) {
      server_.drop_host_connection(sockets_[2]);
      server_.remove_host("127.0.0.1", kMasterPort);
    }
  });
  EXPECT_THAT(served_, ElementsAre(0U, 1U, 3U));
  EXPECT_EQ(hosts_, 3U);
}

TEST_F(HostReentrancy, AHandlerRemovesAnEarlierHost) {
  serveAll([&](std::size_t place) {
    if (place == 2) {
      server_.drop_host_connection(sockets_[0]);
      server_.remove_host("127.0.0.1", kMasterPort);
    }
  });
  EXPECT_THAT(served_, ElementsAre(0U, 1U, 2U, 3U));
}

TEST_F(HostReentrancy, TheLastHandlerRemovesItsOwnHost) {
  serveAll([&](std::size_t place) {
    if (place == kHosts - 1) {
      server_.drop_host_connection(sockets_[place]);
      server_.remove_host("127.0.0.1", kMasterPort);
    }
  });
  EXPECT_THAT(served_, ElementsAre(0U, 1U, 2U, 3U));
  EXPECT_EQ(hosts_, 3U);
}

TEST_F(HostReentrancy, AHandlerRemovesItsOwnAndTheNextHost) {
  serveAll([&](std::size_t place) {
    if (place == 1) {
      for (const int victim : {1, 2}) {
        server_.drop_host_connection(sockets_[static_cast<std::size_t>(victim)]);
        server_.remove_host("127.0.0.1", kMasterPort);
      }
    }
  });
  EXPECT_THAT(served_, ElementsAre(0U, 1U, 3U));
}

TEST_F(HostReentrancy, EveryHandlerRemovesItsOwnHost) {
  serveAll([&](std::size_t place) {
    server_.drop_host_connection(sockets_[place]);
    server_.remove_host("127.0.0.1", kMasterPort);
  });
  EXPECT_THAT(served_, ElementsAre(0U, 1U, 2U, 3U));
  EXPECT_EQ(hosts_, 0U);
}

TEST_F(HostReentrancy, AHandlerClosesAllHosts) {
  serveAll([&](std::size_t) { server_.close_hosts(); });
  EXPECT_THAT(served_, ElementsAre(0U));
  EXPECT_EQ(hosts_, 0U);
}

TEST_F(HostReentrancy, AHandlerClosesAllHostsAndAddsOne) {
  serveAll([&](std::size_t) {
    server_.close_hosts();
    server_.add_host("127.0.0.1", kMasterPort);
  });
  EXPECT_THAT(served_, ElementsAre(0U));
  EXPECT_EQ(hosts_, 1U);
  EXPECT_EQ(log.countContaining("established connection"), 1) << "at the end of the pass";
}

TEST_F(HostReentrancy, AHostAddedByAHandlerIsConnectedAtTheEndOfThePass) {
  serveAll([&](std::size_t place) {
    if (place == 0) {
      server_.add_host("127.0.0.1", kMasterPort);
      EXPECT_EQ(server_.hostSocket(kHosts), -1);
    }
  });
  EXPECT_THAT(served_, ElementsAre(0U, 1U, 2U, 3U));
  EXPECT_EQ(hosts_, kHosts + 1);
  EXPECT_EQ(log.countContaining("established connection"), 1);
}

// The number of the dropped connection is reused immediately, and the new peer sends. This must not
// count as the readiness that this pass has detected.
TEST_F(HostReentrancy, AHandlerReconnectsALaterHostImmediately) {
  serveAll([&](std::size_t place) {
    if (place == 0) {
      server_.drop_host_connection(sockets_[2]);
      server_.connect_hosts();
      EXPECT_EQ(server_.hostSocket(2), sockets_[2]) << "the number was to be used again";
      far_.push_back(acceptFrom(master_));
      sendAll(far_.back(), "for the next pass");
    }
  });
  EXPECT_THAT(served_, ElementsAre(0U, 1U, 3U));
}

TEST_F(HostReentrancy, AHandlerDropsInboundConnections) {
  const UniqueFd idle = bindTo(kPort);
  serveAll([&](std::size_t place) {
    if (place == 0) {
      const int fd = fcntl(idle.get(), F_DUPFD_CLOEXEC, 0);
      server_.m_connections[fd] = Connection{kPort, false, true, 9, fd, ""};
      EXPECT_EQ(server_.drop_socket(fd), -1);
    }
  });
  EXPECT_THAT(served_, ElementsAre(0U, 1U, 2U, 3U));
}

// Inside handle_outgoing_connection, while connect_hosts walks the list.

class OutgoingReentrancy : public HostLoop {
 protected:
  void SetUp() override {
    HostLoop::SetUp();
    server_.add_host("127.0.0.1", kMasterPort);
    server_.add_host("127.0.0.1", kMasterPort);
  }

  void TearDown() override {
    server_.close_hosts();
    HostLoop::TearDown();
  }

  /// Connects all hosts; @p handler acts in the first call.
  void connectWith(const std::function<void(int fd)>& handler) {
    server_.onOutgoing = [this, &handler](int fd) {
      if (std::exchange(first_, false)) {
        handler(fd);
      }
    };
    server_.connect_hosts();
  }

  [[nodiscard]] std::vector<bool> connected() const {
    std::vector<bool> all;
    for (const Host& host : server_.m_hosts) {
      all.push_back(host.socket != -1);
    }
    return all;
  }

  bool first_ = true;
};

TEST_F(OutgoingReentrancy, AHandlerDropsItsOwnConnection) {
  connectWith([&](int fd) { server_.drop_host_connection(fd); });
  EXPECT_THAT(connected(), ElementsAre(false, true, true));
  EXPECT_EQ(server_.calls.size(), 4U);
}

TEST_F(OutgoingReentrancy, AHandlerRemovesItsOwnHost) {
  connectWith([&](int fd) {
    server_.drop_host_connection(fd);
    server_.remove_host("127.0.0.1", kMasterPort);
  });
  EXPECT_THAT(connected(), ElementsAre(true, true));
}

TEST_F(OutgoingReentrancy, AHandlerRemovesTheNextHost) {
  connectWith([&](int) { server_.remove_host("127.0.0.1", kMasterPort); });
  EXPECT_THAT(connected(), ElementsAre(true, true));
}

TEST_F(OutgoingReentrancy, AHandlerRemovesAllOthers) {
  connectWith([&](int) {
    server_.remove_host("127.0.0.1", kMasterPort);
    server_.remove_host("127.0.0.1", kMasterPort);
  });
  EXPECT_THAT(connected(), ElementsAre(true));
}

TEST_F(OutgoingReentrancy, AHandlerRemovesAllAndItsOwn) {
  connectWith([&](int fd) {
    server_.drop_host_connection(fd);
    for (int i = 0; i < 3; ++i) {
      server_.remove_host("127.0.0.1", kMasterPort);
    }
  });
  EXPECT_THAT(connected(), IsEmpty());
}

TEST_F(OutgoingReentrancy, AHandlerAddsAHost) {
  connectWith([&](int) { server_.add_host("127.0.0.1", kMasterPort); });
  server_.connect_hosts();
  EXPECT_THAT(connected(), ElementsAre(true, true, true, true));
}

TEST_F(OutgoingReentrancy, AHandlerConnectsTheOthersItself) {
  connectWith([&](int) { server_.connect_hosts(); });
  EXPECT_THAT(connected(), ElementsAre(true, true, true));
  EXPECT_EQ(server_.calls.size(), 3U) << "one connection each";
}

TEST_F(OutgoingReentrancy, ANestedHandlerRemovesTheOuterOnesHost) {
  int outer = -1;
  connectWith([&](int fd) {
    outer = fd;
    server_.onOutgoing = [&](int) {
      server_.onOutgoing = nullptr;
      server_.drop_host_connection(outer);
      server_.remove_host("127.0.0.1", kMasterPort);
    };
    server_.connect_hosts();
  });
  EXPECT_THAT(connected(), ElementsAre(true, true));
}

TEST_F(OutgoingReentrancy, AHandlerClosesAllHosts) {
  connectWith([&](int) { server_.close_hosts(); });
  EXPECT_THAT(connected(), IsEmpty());
  EXPECT_EQ(server_.calls.size(), 1U);
}

TEST_F(OutgoingReentrancy, AnExceptionLeavesTheListUsable) {
  EXPECT_THROW(connectWith([](int) { throw std::runtime_error("from a handler"); }),
               std::runtime_error);
  server_.remove_host("127.0.0.1", kMasterPort);
  server_.connect_hosts();
  EXPECT_THAT(connected(), ElementsAre(true, true));
}

}  // namespace
}  // namespace zell::test
