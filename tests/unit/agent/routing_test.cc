// SPDX-License-Identifier: Apache-2.0
// The handler of a new socket, the log of its packets, and the work at the end of a pass.
#include <stdexcept>
#include <string>

#include <syslog.h>

#include "support/temp_dir.h"
#include "unit/agent/agent_case.h"

namespace zell::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class RoutingTest : public AgentCase {
 protected:
  RoutingTest() { device.files["/file"] = ""; }

  TestRunel server{"192.0.2.1", false, 0};
};

TEST_F(RoutingTest, NewSocketHasNoHandlerAndIsNotLogged) {
  const Peer peer = server.accept();
  EXPECT_FALSE(server.serves(peer.socket()));
  EXPECT_THAT(log.entries(), IsEmpty());
}

TEST_F(RoutingTest, NewSocketIsLoggedWhenVerbose) {
  TestRunel verbose("192.0.2.1", false, 1);
  const Peer peer = verbose.accept();
  EXPECT_THAT(
      log.entries(),
      ElementsAre(line(LOG_DEBUG, "handle_incoming_connection: waiting for first input, socket ",
                       peer.socket())));
}

TEST_F(RoutingTest, EmptyFirstBufferIsAnErrorAndChangesNothing) {
  const Peer peer = server.accept();
  char byte = '<';
  server.handle_data_read(peer.socket(), &byte, 0, 5111);
  server.handle_data_read(peer.socket(), nullptr, 1, 5111);
  const LogEntry error =
      line(LOG_ERR, "handle_data_read: new socket but buffer is empty, socket ", peer.socket());
  EXPECT_THAT(log.entries(), ElementsAre(error, error));
  EXPECT_FALSE(server.serves(peer.socket()));
}

TEST_F(RoutingTest, BlankFirstPacketIsDiscardedAndTheNextOneClassified) {
  const Peer peer = server.accept();
  server.read(peer, " \t\r\n");
  server.read(peer, " ");
  const LogEntry discarded =
      line(LOG_DEBUG, "handle_data_read: discarding first packet (all whitespace) socket ",
           peer.socket());
  EXPECT_THAT(log.entries(), ElementsAre(discarded, discarded));
  EXPECT_FALSE(server.serves(peer.socket()));
  server.read(peer, kExists);
  EXPECT_EQ(peer.received(), reply(""));
}

TEST_F(RoutingTest, ByteOneMakesAByteCountClient) {
  const Peer peer = server.accept();
  server.read(peer, kExists);
  EXPECT_THAT(
      log.entries(),
      ElementsAre(line(LOG_INFO, "handle_data_read: creating byte count client connection, socket ",
                       peer.socket())));
  ASSERT_NE(server.handlerOf<ByteCountSlave>(peer), nullptr);
  EXPECT_EQ(server.handlerOf<ByteCountSlave>(peer)->socket(), peer.socket());
  EXPECT_EQ(peer.received(), reply(""));
  EXPECT_EQ(server.slave_, nullptr);
}

TEST_F(RoutingTest, LaterPacketsGoToTheHandlerForAnyFirstByte) {
  const Peer peer = server.accept();
  server.read(peer, kExists.substr(0, 1));
  server.read(peer, kExists.substr(1));
  EXPECT_EQ(peer.received(), reply(""));
  server.read(peer, "<a/>");
  EXPECT_EQ(log.countContaining("creating"), 1);
  EXPECT_EQ(log.countContaining("bad frame"), 1);
}

TEST_F(RoutingTest, ByteCountClientsMayBeMany) {
  const Peer first = server.accept();
  const Peer second = server.accept();
  server.read(first, kExists);
  server.read(second, kExists + kExists);
  EXPECT_EQ(first.received(), reply(""));
  EXPECT_EQ(second.received(), reply("") + reply(""));
}

TEST_F(RoutingTest, LeadingBlanksAreSkippedAndDelivered) {
  const Peer client = server.accept();
  server.read(client, "\r\n\t " + kExists);
  EXPECT_EQ(client.received(), reply(""));
  const Peer agent = server.accept();
  server.read(agent, "\r\n <a>open");
  ASSERT_NE(server.agent_, nullptr);
  EXPECT_EQ(server.agent_->buffer().first(99), "\r\n <a>open");
}

class StrayTest : public RoutingTest, public ::testing::WithParamInterface<std::string> {};

TEST_P(StrayTest, GetsNoHandlerUntilAPacketAsksForOne) {
  const Peer peer = server.accept();
  server.read(peer, GetParam());
  server.read(peer, GetParam());
  const LogEntry ignored =
      line(LOG_INFO, "handle_data_read: ignoring telnet connection, socket ", peer.socket());
  EXPECT_THAT(log.entries(), ElementsAre(ignored, ignored));
  EXPECT_FALSE(server.serves(peer.socket()));
  EXPECT_FALSE(peer.ended());
  server.read(peer, kExists);
  EXPECT_NE(server.handlerOf<ByteCountSlave>(peer), nullptr);
}

INSTANTIATE_TEST_SUITE_P(FirstBytes, StrayTest,
                         ::testing::Values("hello\r\n", " x<a/>", std::string(1, '\0'), "\x02",
                                           "\xff\xfb\x01", "\v<a/>", "\f\x01", ">", "version 1",
                                           std::string(4096, 'x')));

TEST_F(RoutingTest, OpeningBracketMakesAnAgentThatTheAliasNames) {
  const Peer peer = server.accept("198.51.100.9");
  server.read(peer, "<a/>");
  EXPECT_THAT(log.entries(),
              ElementsAre(line(LOG_INFO, "handle_data_read: creating agent socket handler, socket ",
                               peer.socket()),
                          line(LOG_WARNING, "handleMessage: no peer_ link, buffering '<a/>'")));
  EXPECT_EQ(server.handlerOf<XmlSlave>(peer), server.agent_);
  ASSERT_NE(server.agent_, nullptr);
  EXPECT_EQ(server.agent_->socket(), peer.socket());
  EXPECT_THAT(contentOf("/etc/hosts"), ::testing::EndsWith("\n198.51.100.9 update-master\n"));
}

TEST_F(RoutingTest, AgentCausesASecondConnectionToTheMaster) {
  const Peer peer = server.accept();
  server.read(peer, "<a/>");
  ASSERT_EQ(server.m_hosts.size(), 2U);
  EXPECT_EQ(server.m_hosts.back().name, "192.0.2.1");
  EXPECT_EQ(server.m_hosts.back().port, 5112);
  EXPECT_EQ(server.m_hosts.back().socket, -1);
}

TEST_F(RoutingTest, AgentIsLoggedBeforeTheHostsFileIsRewritten) {
  ASSERT_EQ(std::rename("/etc/hosts", "/etc/hosts.kept"), 0);
  const Peer peer = server.accept("198.51.100.9");
  server.read(peer, "<a/>");
  EXPECT_THAT(log.entries(),
              ElementsAre(line(LOG_INFO, "handle_data_read: creating agent socket handler, socket ",
                               peer.socket()),
                          line(LOG_WARNING, "setEtcHosts: cannot open /etc/hosts"),
                          line(LOG_WARNING, "handleMessage: no peer_ link, buffering '<a/>'")));
  EXPECT_EQ(contentOf("/etc/hosts"), "127.0.0.1 localhost\n198.51.100.9 update-master\n");
  ASSERT_EQ(std::rename("/etc/hosts.kept", "/etc/hosts"), 0);
}

TEST_F(RoutingTest, AddressOfAnInboundConnectionIsThatOfItsPeer) {
  const Peer peer = server.accept("198.51.100.9");
  EXPECT_EQ(server.getConnectionAddress(peer.socket()), "198.51.100.9");
  EXPECT_THAT(log.entries(), IsEmpty());
}

TEST_F(RoutingTest, AddressOfAnyOtherSocketIsThatOfTheDevice) {
  EXPECT_EQ(server.getConnectionAddress(77), "127.0.0.1");
  EXPECT_THAT(log.entries(), ElementsAre(line(LOG_ERR,
                                              "getConnectionAddress: socket 77 is not in "
                                              "m_connections")));
  EXPECT_EQ(&server.getConnectionAddress(77), &server.getConnectionAddress(78));
}

// The log of a packet, by verbosity.
class PacketLogTest : public AgentCase {
 protected:
  // The log lines about a packet, on a connection with a handler.
  std::vector<LogEntry> shown(int verbose, const std::string& packet) {
    TestRunel server("192.0.2.1", false, verbose);
    const Peer peer = server.accept();
    struct Quiet : RunelConnection {
      using RunelConnection::RunelConnection;
      void handleMessage(std::string& /*packet*/) override {}
    };
    server.serveWith(peer, std::make_unique<Quiet>(peer.socket(), 1));
    log.clear();
    socket = peer.socket();
    server.read(peer, packet);
    return log.entries();
  }
  LogEntry got(std::size_t length, const std::string& text) const {
    return line(LOG_DEBUG, "handle_data_read: (", socket, ") got ", length, " '", text, "'");
  }

  int socket = -1;
};

TEST_F(PacketLogTest, ShowsNothingBelowTwo) {
  EXPECT_THAT(shown(0, "packet"), IsEmpty());
  EXPECT_THAT(shown(1, "packet"), IsEmpty());
}

TEST_F(PacketLogTest, ShowsOneLineAtTwo) {
  const auto lines = shown(2, "a\r\nb\x01");
  EXPECT_THAT(lines, ElementsAre(got(5, "a..b.")));
}

TEST_F(PacketLogTest, ShowsTheFirstSixtyBytesInThatLine) {
  auto lines = shown(2, std::string(60, 'x'));
  EXPECT_THAT(lines, ElementsAre(got(60, std::string(60, 'x'))));
  lines = shown(2, std::string(4096, 'x'));
  EXPECT_THAT(lines, ElementsAre(got(4096, std::string(57, 'x') + "...")));
}

TEST_F(PacketLogTest, ShowsTheWholePacketFromThree) {
  for (const int verbose : {3, 4, 99}) {
    const auto lines = shown(verbose, "a\r\nb");
    EXPECT_THAT(lines, ElementsAre(got(4, "a..b"), LogEntry{LOG_DEBUG, "received: 4 bytes"},
                                   LogEntry{LOG_DEBUG, "bytes 0-1024: a\r\nb"}));
  }
}

TEST_F(PacketLogTest, ShowsALongPacketInChunks) {
  const std::string packet =
      std::string(1024, 'a') + std::string(1024, 'b') + std::string(1024, 'c') + "d";
  const auto lines = shown(3, packet);
  EXPECT_THAT(lines, ElementsAre(got(3073, std::string(57, 'a') + "..."),
                                 LogEntry{LOG_DEBUG, "received: 3073 bytes"},
                                 LogEntry{LOG_DEBUG, "bytes 0-1024: " + std::string(1024, 'a')},
                                 LogEntry{LOG_DEBUG, "bytes 1024-2048: " + std::string(1024, 'b')},
                                 LogEntry{LOG_DEBUG, "bytes 2048-3072: " + std::string(1024, 'c')},
                                 LogEntry{LOG_DEBUG, "bytes 3072-4096: d"}));
}

TEST_F(PacketLogTest, ShowsNoEmptyChunkAfterAFullOne) {
  const auto lines = shown(3, std::string(1024, 'a'));
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[2].text, "bytes 0-1024: " + std::string(1024, 'a'));
}

TEST_F(PacketLogTest, ShowsAChunkUpToItsFirstZeroByte) {
  const auto lines = shown(3, std::string("ab\0cd", 5));
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0], got(5, "ab.cd"));
  EXPECT_EQ(lines[1].text, "received: 5 bytes");
  EXPECT_EQ(lines[2].text, "bytes 0-1024: ab");
}

TEST_F(PacketLogTest, ShowsPercentSignsUnchanged) {
  const auto lines = shown(3, "%s%n%d");
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0], got(6, "%s%n%d"));
  EXPECT_EQ(lines[2].text, "bytes 0-1024: %s%n%d");
}

TEST_F(PacketLogTest, IsWrittenBetweenTheClassificationAndTheHandler) {
  TestRunel server("192.0.2.1", false, 2);
  const Peer peer = server.accept();
  log.clear();
  server.read(peer, "\x01");
  socket = peer.socket();
  EXPECT_THAT(
      log.entries(),
      ElementsAre(
          line(LOG_INFO, "handle_data_read: creating byte count client connection, socket ",
               socket),
          got(1, "."),
          line(LOG_DEBUG, "handleMessage: got packet, but it is not a complete message '.'")));
}

TEST_F(PacketLogTest, ShowsNoPacketWithoutAHandler) {
  TestRunel server("192.0.2.1", false, 3);
  const Peer peer = server.accept();
  log.clear();
  server.read(peer, "hello");
  EXPECT_THAT(log.entries(),
              ElementsAre(line(LOG_INFO, "handle_data_read: ignoring telnet connection, socket ",
                               peer.socket())));
}

// A handler with the behaviour that the test sets.
struct Scripted : RunelConnection {
  using RunelConnection::RunelConnection;
  bool inputPending() override { return pending && pending(); }
  void handleMessage(std::string& packet) override {
    packets.push_back(packet);
    if (onMessage) {
      onMessage(packet);
    }
  }
  bool stopRequested() override {
    ++asked;
    return stop;
  }

  std::function<void(std::string&)> onMessage;
  std::function<bool()> pending;
  std::vector<std::string> packets;
  int asked = 0;
  bool stop = false;
};

class ServeTest : public RoutingTest {
 protected:
  Scripted& scripted(const Peer& peer, int protocol = 1) {
    return server.serveWith(peer, std::make_unique<Scripted>(peer.socket(), protocol));
  }
};

TEST_F(ServeTest, PassesAllBytes) {
  const Peer peer = server.accept();
  Scripted& handler = scripted(peer);
  const std::string bytes("a\0b\xff\n", 5);
  server.read(peer, bytes);
  EXPECT_THAT(handler.packets, ElementsAre(bytes));
}

TEST_F(ServeTest, PassesAModifiableString) {
  const Peer peer = server.accept();
  Scripted& handler = scripted(peer);
  handler.onMessage = [](std::string& packet) { packet.clear(); };
  server.read(peer, "bytes");
  EXPECT_EQ(handler.asked, 1);
  EXPECT_THAT(log.entries(), IsEmpty());
}

TEST_F(ServeTest, LogsAStandardExceptionWithItsReadableNameAndContinues) {
  ServerBase::s_run = true;
  struct OutOfPaper : std::runtime_error {
    using std::runtime_error::runtime_error;
  };
  const Peer peer = server.accept();
  Scripted& handler = scripted(peer);
  handler.onMessage = [](std::string&) { throw std::runtime_error("no %s paper"); };
  server.read(peer, "print");
  EXPECT_THAT(
      log.entries(),
      ElementsAre(line(LOG_ERR, "handle_data_read: exception std::runtime_error: no %s paper")));
  EXPECT_TRUE(ServerBase::s_run);
  EXPECT_EQ(handler.asked, 0);
  EXPECT_TRUE(server.serves(peer.socket()));
  handler.onMessage = [](std::string&) { throw std::out_of_range(""); };
  server.read(peer, "again");
  EXPECT_EQ(log.entries().back(), line(LOG_ERR, "handle_data_read: exception std::out_of_range: "));
}

TEST_F(ServeTest, PassesOtherExceptionsToItsCaller) {
  const Peer peer = server.accept();
  scripted(peer).onMessage = [](std::string&) { throw 7; };
  EXPECT_THROW(server.read(peer, "x"), int);
  EXPECT_THAT(log.entries(), IsEmpty());
}

TEST_F(ServeTest, TaskThatThrowsIsLoggedAndTheConnectionContinues) {
  const Peer peer = server.accept();
  device.onCall = [](const std::string& call) {
    if (call == "hostId") {
      throw std::bad_alloc();
    }
  };
  server.read(peer, request({"hostid"}));
  EXPECT_EQ(log.count("(PID) handle_data_read: exception std::bad_alloc: std::bad_alloc"), 1);
  server.read(peer, kExists);
  EXPECT_EQ(peer.received(), reply(""));
}

TEST_F(ServeTest, StopsTheServerWhenTheHandlerRequestsIt) {
  ServerBase::s_run = true;
  const Peer peer = server.accept();
  Scripted& handler = scripted(peer);
  server.read(peer, "x");
  EXPECT_TRUE(ServerBase::s_run);
  EXPECT_EQ(handler.asked, 1);
  handler.stop = true;
  server.read(peer, "y");
  EXPECT_FALSE(ServerBase::s_run);
  EXPECT_THAT(log.entries(),
              ElementsAre(line(LOG_DEBUG, "handle_data_read: stopping server by request")));
}

TEST_F(ServeTest, StopsAfterThePendingAnswers) {
  ServerBase::s_run = true;
  const Peer peer = server.accept();
  server.read(peer, request({"restart"}) + kExists);
  EXPECT_FALSE(ServerBase::s_run);
  EXPECT_EQ(peer.received(), reply(""));
}

TEST_F(ServeTest, StopRequestedBeforeAnExceptionTakesEffectAtTheNextRead) {
  ServerBase::s_run = true;
  const Peer peer = server.accept();
  device.onCall = [](const std::string& call) {
    if (call == "hostId") {
      throw std::bad_alloc();
    }
  };
  server.read(peer, request({"restart"}) + request({"hostid"}) + kExists);
  EXPECT_TRUE(ServerBase::s_run);
  EXPECT_EQ(peer.received(), "");
  server.handle_loop();  // runs the remaining requests, and does not check for a stop
  EXPECT_EQ(peer.received(), reply(""));
  EXPECT_TRUE(ServerBase::s_run);
  server.read(peer, " ");
  EXPECT_FALSE(ServerBase::s_run);
}

TEST_F(ServeTest, StopRequestedInTheLoopTakesEffectAtTheNextRead) {
  ServerBase::s_run = true;
  const Peer peer = server.accept();
  device.onCall = [](const std::string& call) {
    if (call == "hostId") {
      throw std::bad_alloc();
    }
  };
  server.read(peer, request({"hostid"}) + request({"restart"}) + kExists);
  server.handle_loop();
  EXPECT_EQ(peer.received(), reply(""));
  EXPECT_TRUE(ServerBase::s_run);
  server.read(peer, kExists);
  EXPECT_FALSE(ServerBase::s_run);
}

class LoopTest : public ServeTest {
 protected:
  // The log of the last of a hundred calls: the traces count from the start of the program.
  std::vector<LogEntry> tracedPass() {
    std::vector<LogEntry> traced;
    for (int pass = 0; pass < 100; ++pass) {
      log.clear();
      verbose.handle_loop();
      if (!log.entries().empty()) {
        EXPECT_TRUE(traced.empty()) << "traced twice in a hundred passes";
        traced = log.entries();
      }
    }
    return traced;
  }

  TestRunel verbose{"192.0.2.1", false, 2};
};

TEST_F(LoopTest, PollsTheLedsOnceAndOnceMoreForEachHandler) {
  server.handle_loop();
  EXPECT_EQ(device.polls, 1);
  const Peer first = server.accept();
  const Peer second = server.accept();
  const Peer unclassified = server.accept();
  (void)scripted(first);
  (void)scripted(second);
  server.handle_loop();
  EXPECT_EQ(device.polls, 1 + 3);
}

TEST_F(LoopTest, AsksEveryHandlerAndDrivesThoseWithInputInAscendingOrder) {
  std::vector<int> order;
  const Peer first = server.accept();
  const Peer idle = server.accept();
  const Peer second = server.accept();
  for (const Peer* const peer : {&second, &idle, &first}) {
    Scripted& handler = scripted(*peer);
    handler.pending = [&order, peer, &idle] {
      order.push_back(peer->socket());
      return peer != &idle;
    };
    handler.onMessage = [&order, peer](std::string& packet) {
      EXPECT_EQ(packet, "");
      order.push_back(-peer->socket());
    };
  }
  server.handle_loop();
  EXPECT_THAT(order, ElementsAre(first.socket(), -first.socket(), idle.socket(), second.socket(),
                                 -second.socket()));
  EXPECT_THAT(log.entries(), IsEmpty());
}

TEST_F(LoopTest, DoesNotCheckForAStop) {
  ServerBase::s_run = true;
  const Peer peer = server.accept();
  Scripted& handler = scripted(peer);
  handler.pending = [] { return true; };
  handler.stop = true;
  server.handle_loop();
  EXPECT_EQ(handler.asked, 0);
  EXPECT_TRUE(ServerBase::s_run);
}

TEST_F(LoopTest, HasNoExceptionGuard) {
  const Peer peer = server.accept();
  scripted(peer).pending = []() -> bool { throw std::runtime_error("x"); };
  EXPECT_THROW(server.handle_loop(), std::runtime_error);
}

TEST_F(LoopTest, SkipsTheEntryOfAReplacedAgent) {
  const Peer peer = server.accept();
  server.handlers_[peer.socket()] = nullptr;
  server.handle_loop();
  EXPECT_TRUE(server.serves(peer.socket()));
  EXPECT_FALSE(peer.ended());
}

TEST_F(LoopTest, RunsTheRequestsAfterAnException) {
  const Peer peer = server.accept();
  device.onCall = [](const std::string& call) {
    if (call == "hostId") {
      throw std::runtime_error("x");
    }
  };
  server.read(peer, request({"hostid"}) + kExists);
  EXPECT_EQ(peer.received(), "");
  server.handle_loop();
  EXPECT_EQ(peer.received(), reply(""));
}

TEST_F(LoopTest, LogsWhenItDrivesAHandlerFromTwoOn) {
  for (const int level : {0, 1, 2, 3}) {
    TestRunel other("192.0.2.1", false, level);
    const Peer peer = other.accept();
    auto handler = std::make_unique<Scripted>(peer.socket(), 1);
    handler->pending = [] { return true; };
    other.serveWith(peer, std::move(handler));
    log.clear();
    other.handle_loop();
    EXPECT_EQ(log.count("(PID) handle_loop: data pending, calling handleMessage"),
              level > 1 ? 1 : 0);
  }
}

TEST_F(LoopTest, TracesEveryHundredthPassFromTwoOn) {
  const Peer first = verbose.accept();
  const Peer null = verbose.accept();
  const Peer second = verbose.accept();
  verbose.serveWith(first, std::make_unique<Scripted>(first.socket(), 2));
  verbose.handlers_[null.socket()] = nullptr;
  verbose.serveWith(second, std::make_unique<Scripted>(second.socket(), 3));
  const std::vector<LogEntry> expected = {
      line(LOG_DEBUG, "handle_loop: testing"),
      line(LOG_DEBUG, "handle_loop: examining socket ", first.socket(), ", protocol 2"),
      line(LOG_DEBUG, "handle_loop: examining socket ", second.socket(), ", protocol 3")};
  EXPECT_EQ(tracedPass(), expected);
  EXPECT_EQ(tracedPass(), expected);
}

TEST_F(LoopTest, TracesNothingBelowTwo) {
  TestRunel one("192.0.2.1", false, 1);
  for (int pass = 0; pass < 300; ++pass) {
    server.handle_loop();
    one.handle_loop();
  }
  EXPECT_THAT(log.entries(), IsEmpty());
}

}  // namespace
}  // namespace zell::test
