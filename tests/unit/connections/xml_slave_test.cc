// SPDX-License-Identifier: Apache-2.0
// The relay: buffering, relaying, and log lines.
#include "connections/xml_slave.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <syslog.h>

#include "unit/connections/relay_fixture.h"

namespace zell::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string kPing = "<ping/>\r\n";

class XmlSlaveTest : public RelayFixture {
 protected:
  // The only log line of driving @p relay with @p packet.
  LogEntry lineOf(XmlSlave& relay, const std::string& packet) {
    log.clear();
    give(relay, packet);
    EXPECT_EQ(log.entries().size(), 1U);
    return log.entries().empty() ? LogEntry{-1, ""} : log.entries().front();
  }
};

TEST_F(XmlSlaveTest, IsAnXmlHandlerOfItsSocket) {
  EXPECT_EQ(agent.protocol(), 3);
  EXPECT_EQ(agent.socket(), agentSockets.near());
}

TEST_F(XmlSlaveTest, RelaysAClauseToThePeersSocketWithCrLf) {
  link();
  give(agent, "<a/>\r\n");
  EXPECT_EQ(masterSockets.received(), "<a/>\r\n");
  EXPECT_EQ(agentSockets.received(), "");
}

TEST_F(XmlSlaveTest, ClearsTheLineEndAfterAClause) {
  link();
  give(agent, "<a/>\r\n");
  EXPECT_EQ(contentsOf(agent), "");
  EXPECT_THAT(log.entries(), IsEmpty());
}

TEST_F(XmlSlaveTest, RelaysInBothDirections) {
  link();
  give(agent, "<a/>");
  give(bridge, "<b/>");
  EXPECT_EQ(masterSockets.received(), "<a/>\r\n");
  EXPECT_EQ(agentSockets.received(), "<b/>\r\n");
}

TEST_F(XmlSlaveTest, HoldsAnOpenClauseUntilItsClosingTagArrives) {
  link();
  give(agent, "<a>x");
  EXPECT_EQ(masterSockets.received(), "");
  EXPECT_EQ(log.countContaining("closing not found"), 1);
  give(agent, "</a>\r\n");
  EXPECT_EQ(masterSockets.received(), "<a>x</a>\r\n");
}

TEST_F(XmlSlaveTest, RelaysSeveralClausesOfAPacketInOrder) {
  link();
  give(agent, "<a/><b>y</b>");
  EXPECT_EQ(masterSockets.received(), "<a/>\r\n<b>y</b>\r\n");
}

TEST_F(XmlSlaveTest, RelaysContentUnchanged) {
  link();
  const std::string clause = std::string("<a>\0\xff\r\n\x7f</a>", 12);
  give(agent, clause);
  EXPECT_EQ(masterSockets.received(), clause + "\r\n");
}

TEST_F(XmlSlaveTest, CutsOneClauseOnRequest) {
  agent.appendPacket(" <a/> <b/>");
  EXPECT_TRUE(agent.nextXmlClause());
  EXPECT_EQ(agent.clause(), "<a/>");
  EXPECT_EQ(contentsOf(agent), "  <b/>");
}

TEST_F(XmlSlaveTest, KeepsAllInputWithoutAPeer) {
  give(agent, "<a/>\r\n");
  give(agent, "<b/>");
  EXPECT_EQ(contentsOf(agent), "<a/>\r\n<b/>");
}

TEST_F(XmlSlaveTest, ShowsTheNewPacketWhenThereIsNoPeer) {
  give(agent, "<a/>\r\n");
  EXPECT_EQ(lineOf(agent, "<b/>\r\n"),
            (LogEntry{LOG_WARNING, "(PID) handleMessage: no peer_ link, buffering '<b/>..'"}));
}

TEST_F(XmlSlaveTest, ShowsAPacketOfSixtyBytesWholeAndCutsALongerOne) {
  const std::string sixty(60, 'x');
  EXPECT_EQ(lineOf(agent, sixty).text,
            "(PID) handleMessage: no peer_ link, buffering '" + sixty + "'");
  EXPECT_EQ(lineOf(agent, sixty + "y").text,
            "(PID) handleMessage: no peer_ link, buffering '" + std::string(57, 'x') + "...'");
}

TEST_F(XmlSlaveTest, LogsThatThePeerIsMissingWhenDriven) {
  EXPECT_EQ(lineOf(agent, "").text, "(PID) handleMessage: no peer_ link, buffering ''");
}

TEST_F(XmlSlaveTest, LinkingRelaysKeptInputImmediately) {
  give(agent, "<a/>\r\n<b>");
  agent.setPeer(&bridge);
  EXPECT_EQ(masterSockets.received(), "<a/>\r\n");
  EXPECT_EQ(contentsOf(agent), "\r\n<b>");
}

TEST_F(XmlSlaveTest, UnlinkingOnlyUnlinks) {
  link();
  give(agent, "<a>");
  log.clear();
  agent.setPeer(nullptr);
  EXPECT_THAT(log.entries(), IsEmpty());
  EXPECT_EQ(contentsOf(agent), "<a>");
  give(agent, "</a>");
  EXPECT_EQ(masterSockets.received(), "");
}

TEST_F(XmlSlaveTest, InputIsPendingWithAPeerAndBufferedBytes) {
  EXPECT_FALSE(agent.inputPending());
  give(agent, "<a>");
  EXPECT_FALSE(agent.inputPending());
  agent.setPeer(&bridge);
  EXPECT_TRUE(agent.inputPending());
  give(agent, "</a>");
  EXPECT_FALSE(agent.inputPending());
}

TEST_F(XmlSlaveTest, BlanksBeforeASelfClosingTagStayUntilOnlyBlanksAreLeft) {
  agent.appendPacket("  <a/>");
  EXPECT_TRUE(agent.nextXmlClause());
  EXPECT_EQ(contentsOf(agent), "  ");
  EXPECT_FALSE(agent.nextXmlClause());
  EXPECT_EQ(contentsOf(agent), "");
}

TEST_F(XmlSlaveTest, BlanksBeforeAnElementAreRemovedWithIt) {
  agent.appendPacket("  <b></b>");
  EXPECT_TRUE(agent.nextXmlClause());
  EXPECT_EQ(contentsOf(agent), "");
}

TEST_F(XmlSlaveTest, PingsCollapseWhileThereIsNoPeer) {
  give(agent, kPing);
  log.clear();
  give(agent, kPing);
  EXPECT_EQ(contentsOf(agent), kPing);
  EXPECT_THAT(log.entries(),
              ElementsAre(LogEntry{LOG_DEBUG, "(PID) appendPacket: discarding <ping/>"},
                          LogEntry{LOG_WARNING,
                                   "(PID) handleMessage: no peer_ link, buffering '<ping/>..'"}));
}

TEST_F(XmlSlaveTest, PingsCollapseWhileTheRelayIsBlocked) {
  link();
  give(agent, "<a>");
  give(agent, kPing);
  give(agent, kPing);
  EXPECT_EQ(contentsOf(agent), "<a>" + kPing);
}

TEST_F(XmlSlaveTest, PingsPassWithoutWaitingInput) {
  link();
  give(agent, kPing);
  give(agent, kPing);
  EXPECT_EQ(masterSockets.received(), kPing + kPing);
}

TEST_F(XmlSlaveTest, APingAfterOtherInputIsKept) {
  give(agent, kPing);
  give(agent, "<a/>\r\n");
  give(agent, kPing);
  EXPECT_EQ(contentsOf(agent), kPing + "<a/>\r\n" + kPing);
}

TEST_F(XmlSlaveTest, APingIsDroppedAfterAPingInPieces) {
  give(agent, "<a/><ping");
  give(agent, "/>\r\n");
  give(agent, kPing);
  EXPECT_EQ(contentsOf(agent), "<a/>" + kPing);
}

TEST_F(XmlSlaveTest, OnlyAPacketThatIsThePingIsDropped) {
  give(agent, kPing);
  give(agent, "<ping/>");
  give(agent, "<ping/>\n");
  give(agent, kPing + kPing);
  EXPECT_EQ(contentsOf(agent), kPing + "<ping/><ping/>\n" + kPing + kPing);
}

TEST_F(XmlSlaveTest, APingIsDroppedWhenExactlyEightBytesWait) {
  give(agent, "12345678");
  give(agent, kPing);
  EXPECT_EQ(contentsOf(agent), "12345678");
  EXPECT_EQ(log.count("(PID) appendPacket: discarding <ping/>"), 1);
}

TEST_F(XmlSlaveTest, APingIsKeptWhenSevenOrNineBytesWait) {
  give(agent, "1234567");
  give(agent, kPing);
  EXPECT_EQ(contentsOf(agent), "1234567" + kPing);
  give(bridge, "123456789");
  give(bridge, kPing);
  EXPECT_EQ(contentsOf(bridge), "123456789" + kPing);
}

TEST_F(XmlSlaveTest, TheEightBytesMayBeBlanksOfEarlierTags) {
  link();
  give(agent, "    <a/>  <b");
  EXPECT_EQ(contentsOf(agent), "      <b");
  give(agent, kPing);
  EXPECT_EQ(contentsOf(agent), "      <b");
}

TEST_F(XmlSlaveTest, BytesThatAreNotATagBlockTheRelayPermanently) {
  link();
  const LogEntry warning{LOG_WARNING, "(PID) nextXmlClause: expecting '<' at 0, got 'hello<a/>'"};
  EXPECT_EQ(lineOf(agent, "hello<a/>"), warning);
  EXPECT_EQ(lineOf(agent, ""), warning);
  EXPECT_EQ(lineOf(agent, ""), warning);
  EXPECT_EQ(contentsOf(agent), "hello<a/>");
  EXPECT_EQ(masterSockets.received(), "");
  EXPECT_TRUE(agent.inputPending());
}

TEST_F(XmlSlaveTest, LogsThePositionOfBytesThatAreNotATag) {
  link();
  EXPECT_EQ(lineOf(agent, " <b/>\r\n\tx").text,
            "(PID) nextXmlClause: expecting '<' at 4, got ' ...x'");
}

TEST_F(XmlSlaveTest, ShowsTheFirstBytesOfALongBlockedBuffer) {
  link();
  EXPECT_EQ(lineOf(agent, std::string(100000, 'x')).text,
            "(PID) nextXmlClause: expecting '<' at 0, got '" + std::string(57, 'x') + "...'");
}

TEST_F(XmlSlaveTest, WarnsOfATagThatHasNoEndOnEachDrive) {
  link();
  const LogEntry warning{LOG_WARNING, "(PID) nextXmlClause: cannot find '>' at 2, got '..<a b'"};
  EXPECT_EQ(lineOf(agent, "\r\n<a b"), warning);
  EXPECT_EQ(lineOf(agent, ""), warning);
}

TEST_F(XmlSlaveTest, WarnsOfAClauseThatHasNoEndOnEachDrive) {
  link();
  const LogEntry warning{
      LOG_WARNING, "(PID) nextXmlClause: closing not found, size = 10, buffer ='<a>1234567...'"};
  EXPECT_EQ(lineOf(agent, "<a>1234567"), warning);
  EXPECT_EQ(lineOf(agent, ""), warning);
}

TEST_F(XmlSlaveTest, ShowsNoTailOfAnOpenClauseOfFortyBytes) {
  link();
  const std::string forty = "<a>" + std::string(37, 'x');
  EXPECT_EQ(lineOf(agent, forty).text,
            "(PID) nextXmlClause: closing not found, size = 40, buffer ='" + forty + "...'");
}

TEST_F(XmlSlaveTest, ShowsBothEndsOfALongerOpenClause) {
  link();
  const std::string forty = "<a>" + std::string(37, 'x');
  EXPECT_EQ(lineOf(agent, forty + "y").text,
            "(PID) nextXmlClause: closing not found, size = 41, buffer ='" + forty + "..." +
                forty.substr(1) + "y'");
}

TEST_F(XmlSlaveTest, ShowsTheBytesOfAnOpenClauseUnchanged) {
  link();
  EXPECT_EQ(lineOf(agent, "\t<a>\x7f\n").text,
            "(PID) nextXmlClause: closing not found, size = 6, buffer ='\t<a>\x7f\n...'");
}

TEST_F(XmlSlaveTest, AZeroByteEndsTheLoggedPartOfAnOpenClause) {
  link();
  EXPECT_EQ(lineOf(agent, std::string("<a>\0x", 5)).text,
            "(PID) nextXmlClause: closing not found, size = 5, buffer ='<a>...'");
}

TEST_F(XmlSlaveTest, ATagWithAttributesBlocksTheRelay) {
  link();
  give(agent, "<a id=\"1\">v</a><b/>");
  EXPECT_EQ(masterSockets.received(), "");
  EXPECT_EQ(log.countContaining("closing not found, size = 19"), 1);
}

TEST_F(XmlSlaveTest, AFrameByteRequestsAStopAndIsKept) {
  link();
  EXPECT_FALSE(agent.stopRequested());
  EXPECT_EQ(lineOf(agent, "<a>\x01</a>"),
            (LogEntry{LOG_ERR,
                      "(PID) *** error: nextXmlClause found byte count sentinels in input "
                      "'<a>.</a>'"}));
  EXPECT_TRUE(agent.stopRequested());
  EXPECT_EQ(contentsOf(agent), "<a>\x01</a>");
}

TEST_F(XmlSlaveTest, AFrameByteBlocksTheClausesBeforeIt) {
  link();
  give(agent, "<a/><b/>\x02");
  EXPECT_EQ(masterSockets.received(), "");
  EXPECT_TRUE(agent.stopRequested());
}

TEST_F(XmlSlaveTest, AFrameByteCountsAfterBlockingBytes) {
  link();
  give(agent, "junk");
  EXPECT_FALSE(agent.stopRequested());
  give(agent, "more\x02");
  EXPECT_TRUE(agent.stopRequested());
}

TEST_F(XmlSlaveTest, TheStopRequestStaysAndTheErrorIsRepeated) {
  link();
  give(agent, "\x01");
  EXPECT_EQ(lineOf(agent, "").priority, LOG_ERR);
  EXPECT_EQ(lineOf(agent, "<a/>").priority, LOG_ERR);
  EXPECT_TRUE(agent.stopRequested());
  EXPECT_EQ(masterSockets.received(), "");
}

TEST_F(XmlSlaveTest, AFrameByteIsDetectedOnlyWithAPeer) {
  give(agent, "<a/>\x01");
  EXPECT_FALSE(agent.stopRequested());
  agent.setPeer(&bridge);
  EXPECT_TRUE(agent.stopRequested());
  EXPECT_EQ(masterSockets.received(), "");
}

TEST_F(XmlSlaveTest, TheMemoryOfALargeClauseIsFreed) {
  link();
  const std::string clause = "<a>" + std::string(100000, 'x') + "</a>";
  give(agent, clause);
  EXPECT_EQ(masterSockets.received(), clause + "\r\n");
  EXPECT_LE(agent.clause().capacity(), ClauseBuffer::kKeptCapacity);
}

}  // namespace
}  // namespace zell::test
