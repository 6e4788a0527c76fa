// SPDX-License-Identifier: Apache-2.0
// Thousands of random changes of the tables inside handlers, compared with a simple model.
#include <algorithm>
#include <map>
#include <random>
#include <set>

#include <sys/socket.h>

#include "unit/server/loop_fixture.h"

namespace zell::test {
namespace {

constexpr int kPasses = 3000;
constexpr std::size_t kMostConnections = 40;
constexpr std::size_t kMostHosts = 12;
constexpr int kMostActionsPerPass = 60;

/// The expected tables, and the sockets that the current pass has not served yet.
struct Model {
  std::set<int> inbound;
  std::vector<int> hosts;    // sockets in list order, -1 while unconnected
  std::vector<int> hostIds;  // in list order, which is ascending
  std::set<int> readyInbound;
  std::set<int> readyHosts;
};

class RandomActions : public HostLoop, public ::testing::WithParamInterface<unsigned> {
 protected:
  void SetUp() override {
    HostLoop::SetUp();
    server_.m_hosts.clear();
    server_.set_timeout(0);
    server_.onData = [this](int fd, const std::string&) { served(fd); };
    server_.onOutgoing = [this](int fd) { connected(fd); };
    server_.onSelect = [this](int result) { return passBegins(result), false; };
    server_.onDropSocket = [this](int fd) { return dropInbound(fd); };
    server_.onDropHostConnection = [this](int fd) { return dropHost(fd); };
  }

  void TearDown() override {
    far_.clear();
    HostLoop::TearDown();
  }

  std::size_t upTo(std::size_t count) {
    return std::uniform_int_distribution<std::size_t>(0, count - 1)(random_);
  }

  template <typename Container>
  typename Container::value_type oneOf(const Container& some) {
    return *std::next(some.begin(), static_cast<std::ptrdiff_t>(upTo(some.size())));
  }

  // Called by the server.

  void passBegins(int result) {
    model_.readyInbound.clear();
    model_.readyHosts.clear();
    for (const int fd : model_.inbound) {
      if (result > 0 && FD_ISSET(fd, &server_.m_read_set)) {
        model_.readyInbound.insert(fd);
      }
    }
    for (const int fd : model_.hosts) {
      if (result > 0 && fd != -1 && FD_ISSET(fd, &server_.m_read_set)) {
        model_.readyHosts.insert(fd);
      }
    }
    actionsLeft_ = kMostActionsPerPass;
    inboundEnded_ = hostsEnded_ = false;
    lastInbound_ = lastHost_ = -1;
  }

  void served(int fd) {
    ++servedCount_;
    if (model_.inbound.count(fd) != 0) {
      EXPECT_EQ(model_.readyInbound.erase(fd), 1U) << "served without being readable: " << fd;
      EXPECT_FALSE(inboundEnded_) << "the scan went on behind a dropped connection";
      EXPECT_GT(fd, lastInbound_);
      lastInbound_ = fd;
    } else {
      const auto place = std::find(model_.hosts.begin(), model_.hosts.end(), fd);
      ASSERT_NE(place, model_.hosts.end()) << "served a socket that is in no table: " << fd;
      EXPECT_EQ(model_.readyHosts.erase(fd), 1U) << "served without being readable: " << fd;
      EXPECT_FALSE(hostsEnded_) << "the scan went on behind a dropped connection";
      const int id = model_.hostIds[static_cast<std::size_t>(place - model_.hosts.begin())];
      EXPECT_GT(id, lastHost_);
      lastHost_ = id;
    }
    actSomewhat(fd);
  }

  void connected(int fd) {
    far_[fd] = acceptFrom(master_);
    std::size_t place = 0;
    while (place < server_.m_hosts.size() && server_.hostSocket(place) != fd) {
      ++place;
    }
    ASSERT_LT(place, model_.hosts.size());
    EXPECT_EQ(model_.hosts[place], -1) << "a connected host was connected again";
    model_.hosts[place] = fd;
    actSomewhat(fd);
  }

  int dropInbound(int fd) {
    const bool known = model_.inbound.erase(fd) == 1;
    model_.readyInbound.erase(fd);
    const int result = server_.ServerBase::drop_socket(fd);
    EXPECT_EQ(result, known ? -1 : 0);
    if (known) {
      far_.erase(fd);
      inboundEnded_ = inboundEnded_ || !acting_;
    }
    return result;
  }

  int dropHost(int fd) {
    const auto place = std::find(model_.hosts.begin(), model_.hosts.end(), fd);
    const bool known = place != model_.hosts.end();
    if (known) {
      *place = -1;
    }
    model_.readyHosts.erase(fd);
    const int result = server_.ServerBase::drop_host_connection(fd);
    EXPECT_EQ(result, known ? -1 : 0);
    if (known) {
      far_.erase(fd);
      hostsEnded_ = hostsEnded_ || !acting_;
    }
    return result;
  }

  // The actions of the handlers.

  void actSomewhat(int own) {
    const bool outer = std::exchange(acting_, true);
    for (std::size_t i = upTo(3); i > 0 && actionsLeft_ > 0; --i) {
      --actionsLeft_;
      act(own);
      compare();
    }
    acting_ = outer;
  }

  void act(int own) {
    switch (upTo(16)) {
      case 0:
        return dropOwn(own);
      case 1:
      case 2:
        return dropSomeInbound();
      case 3:
        return dropSomeHost();
      case 4:
        EXPECT_EQ(server_.drop_socket(9999) | server_.drop_host_connection(9999), 0);
        return;
      case 5:
      case 6:
      case 7:
        return addInbound();
      case 8:
      case 9:
        return addHost();
      case 10:
        return removeHost();
      case 11:
        return connectHosts();
      case 12:
        return upTo(20) == 0 ? closeHosts() : addHost();
      case 13:
        return upTo(20) == 0 ? closeConnections() : addInbound();
      case 14:
        return closeSomePeer();
      default:
        return sendFromSomePeer();
    }
  }

  void dropOwn(int own) {
    if (model_.inbound.count(own) != 0) {
      server_.drop_socket(own);
    } else if (std::count(model_.hosts.begin(), model_.hosts.end(), own) != 0) {
      server_.drop_host_connection(own);
    }
  }

  void dropSomeInbound() {
    if (!model_.inbound.empty()) {
      server_.drop_socket(oneOf(model_.inbound));
    }
  }

  void dropSomeHost() {
    const int fd = model_.hosts.empty() ? -1 : oneOf(model_.hosts);
    if (fd != -1) {
      server_.drop_host_connection(fd);
    }
  }

  // With a byte to read: a reused number must not be served in this pass.
  void addInbound() {
    if (model_.inbound.size() >= kMostConnections) {
      return;
    }
    int fds[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    server_.m_connections[fds[0]] = Connection{kPort, false, true, 9, fds[0], ""};
    model_.inbound.insert(fds[0]);
    far_[fds[0]].reset(fds[1]);
    sendAll(far_[fds[0]], "x");
  }

  void addHost() {
    if (model_.hosts.size() >= kMostHosts) {
      return;
    }
    server_.add_host("127.0.0.1", kMasterPort);
    model_.hosts.push_back(-1);
    model_.hostIds.push_back(++newestHost_);
  }

  void removeHost() {
    server_.remove_host("127.0.0.1", kMasterPort);
    const auto place = std::find(model_.hosts.begin(), model_.hosts.end(), -1);
    if (place != model_.hosts.end()) {
      model_.hostIds.erase(model_.hostIds.begin() + (place - model_.hosts.begin()));
      model_.hosts.erase(place);
    }
  }

  void connectHosts() {
    if (depth_ < 3) {
      ++depth_;
      server_.connect_hosts();
      --depth_;
    }
  }

  void closeHosts() {
    server_.close_hosts();
    for (const int fd : model_.hosts) {
      far_.erase(fd);
    }
    model_.hosts.clear();
    model_.hostIds.clear();
    model_.readyHosts.clear();
  }

  void closeConnections() {
    server_.close_connections(-1);
    for (const int fd : model_.inbound) {
      far_.erase(fd);
    }
    model_.inbound.clear();
    model_.readyInbound.clear();
  }

  void closeSomePeer() {
    if (!far_.empty()) {
      std::next(far_.begin(), static_cast<std::ptrdiff_t>(upTo(far_.size())))->second.reset();
    }
  }

  void sendFromSomePeer() {
    if (!far_.empty()) {
      const auto& peer =
          std::next(far_.begin(), static_cast<std::ptrdiff_t>(upTo(far_.size())))->second;
      if (peer.valid()) {
        (void)send(peer.get(), "y", 1, MSG_NOSIGNAL | MSG_DONTWAIT);
      }
    }
  }

  void compare() {
    EXPECT_EQ(server_.inbound(), std::vector<int>(model_.inbound.begin(), model_.inbound.end()));
    std::vector<int> hosts;
    for (const Host& host : server_.m_hosts) {
      hosts.push_back(host.socket);
    }
    EXPECT_EQ(hosts, model_.hosts);
    if (HasFailure()) {
      ServerBase::s_run = false;
    }
  }

  /// Every socket that was readable at the start of the pass and still exists was served, unless
  /// the scan ended at a dead one.
  void passEnds() {
    if (!inboundEnded_) {
      EXPECT_TRUE(model_.readyInbound.empty()) << "not served: " << *model_.readyInbound.begin();
    }
    if (!hostsEnded_) {
      EXPECT_TRUE(model_.readyHosts.empty()) << "not served: " << *model_.readyHosts.begin();
    }
    ends_ += (inboundEnded_ ? 1 : 0) + (hostsEnded_ ? 1 : 0);
    acting_ = true;
    for (int i = 0; i < 4; ++i) {
      sendFromSomePeer();
    }
    actionsLeft_ = 6;
    actSomewhat(-1);
    acting_ = false;
    server_.calls.clear();
    log.clear();
  }

  Model model_;
  std::mt19937 random_{GetParam()};
  std::map<int, UniqueFd> far_;  // the other ends, by server socket
  int newestHost_ = 0;
  int actionsLeft_ = 0;
  int depth_ = 0;
  bool acting_ = false;  // inside a handler's actions: the test drops, not the loop
  bool inboundEnded_ = false;
  bool hostsEnded_ = false;
  int lastInbound_ = -1;
  int lastHost_ = -1;
  int servedCount_ = 0;
  int ends_ = 0;
};

TEST_P(RandomActions, KeepTheTablesAsTheModelHasThem) {
  SCOPED_TRACE("seed " + std::to_string(GetParam()));
  server_.onStarted = [this] {
    for (int i = 0; i < 10; ++i) {
      addInbound();
    }
  };
  int passes = 0;
  server_.onLoop = [&] {
    passEnds();
    compare();
  };
  server_.runUntil([&] { return ++passes == kPasses || HasFailure(); });
  EXPECT_EQ(passes, kPasses);
  EXPECT_GT(servedCount_, kPasses) << "too little happened";
  EXPECT_GT(ends_, kPasses / 20) << "too few peers closed";
  RecordProperty("served", servedCount_);
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomActions, ::testing::Values(1U, 20U, 333U, 4444U));

}  // namespace
}  // namespace zell::test
