// SPDX-License-Identifier: Apache-2.0
#include "connections/runel_connection.h"

#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <zell/slave_proxy_local.h>

#include "fakes/zell/fake_zell.h"
#include "support/log_capture.h"
#include "support/slots.h"

namespace zell {
namespace {

using test::FakeProxy;
using test::LogCapture;
using test::LogEntry;
using test::slotOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class PlainConnection : public RunelConnection {
 public:
  using RunelConnection::RunelConnection;
  [[nodiscard]] const SlaveProxy* proxy() const { return proxy_.get(); }
};

TEST(RunelConnectionTest, KeepsItsSocketAndProtocol) {
  const RunelConnection connection(7, RunelConnection::kXml);
  EXPECT_EQ(connection.socket(), 7);
  EXPECT_EQ(connection.protocol(), 3);
}

TEST(RunelConnectionTest, HasItsVirtualOperationsInTheirOrder) {
  const std::vector<int> slots{slotOf(&RunelConnection::inputPending),
                               slotOf(&RunelConnection::handleMessage),
                               slotOf(&RunelConnection::stopRequested)};
  EXPECT_EQ(slots, test::slotsBehindDestructors(slots.size()));
}

TEST(RunelConnectionTest, NumbersTheProtocols) {
  EXPECT_EQ(RunelConnection::kPrompt, 1);
  EXPECT_EQ(RunelConnection::kByteCount, 2);
  EXPECT_EQ(RunelConnection::kXml, 3);
}

TEST(RunelConnectionTest, NamesTheProtocolVersions) {
  EXPECT_THAT(kProtocolVersions, ElementsAre(::testing::StrEq("<error>"), ::testing::StrEq("2.6"),
                                             ::testing::StrEq("2.4")));
}

class SocketNumberTest : public ::testing::TestWithParam<int> {};

TEST_P(SocketNumberTest, IsSilentAboutAPossibleNumber) {
  const LogCapture log;
  const RunelConnection connection(GetParam(), RunelConnection::kPrompt);
  EXPECT_EQ(connection.socket(), GetParam());
  EXPECT_THAT(log.entries(), IsEmpty());
}
INSTANTIATE_TEST_SUITE_P(Possible, SocketNumberTest, ::testing::Values(0, 1, 1023, 65535));

class BogusSocketTest : public ::testing::TestWithParam<int> {};

TEST_P(BogusSocketTest, LogsOneLineAndServesTheSocket) {
  const LogCapture log;
  const PlainConnection connection(GetParam(), RunelConnection::kPrompt);
  EXPECT_THAT(log.entries(), ElementsAre(LogEntry{LOG_ERR, "(PID) RunelConnection: bogus socket_ " +
                                                               std::to_string(GetParam())}));
  EXPECT_EQ(connection.socket(), GetParam());
  EXPECT_NE(connection.proxy(), nullptr);
}
INSTANTIATE_TEST_SUITE_P(Impossible, BogusSocketTest,
                         ::testing::Values(65536, 65537, 2147483647, -1, -2, -2147483647 - 1));

TEST(RunelConnectionTest, HasASeparateLocalProxy) {
  const PlainConnection first(7, RunelConnection::kPrompt);
  const PlainConnection second(8, RunelConnection::kPrompt);
  EXPECT_NE(dynamic_cast<const SlaveProxyLocal*>(first.proxy()), nullptr);
  EXPECT_NE(dynamic_cast<const SlaveProxyLocal*>(second.proxy()), nullptr);
  EXPECT_NE(first.proxy(), second.proxy());
}

TEST(RunelConnectionTest, DestroysItsProxyWhenDestroyedThroughTheBase) {
  struct Derived : RunelConnection {
    explicit Derived(bool* ended) : RunelConnection(7, kPrompt), ended_(ended) {}
    ~Derived() override { *ended_ = FakeProxy::living().size() == 1; }
    bool* ended_;
  };
  bool livedUntilTheDerivedEnd = false;
  std::unique_ptr<RunelConnection> connection = std::make_unique<Derived>(&livedUntilTheDerivedEnd);
  ASSERT_EQ(FakeProxy::living().size(), 1U);
  connection.reset();
  EXPECT_TRUE(livedUntilTheDerivedEnd);
  EXPECT_EQ(FakeProxy::living().size(), 0U);
}

TEST(RunelConnectionTest, LogsThatInputPendingIsNotImplementedAndReturnsFalse) {
  const LogCapture log;
  RunelConnection connection(7, RunelConnection::kPrompt);
  EXPECT_FALSE(connection.inputPending());
  EXPECT_FALSE(connection.inputPending());
  const LogEntry line{LOG_ERR, "inputPending: no implementation"};
  EXPECT_THAT(log.entries(), ElementsAre(line, line));
}

TEST(RunelConnectionTest, LogsThatHandleMessageIsNotImplementedAndKeepsThePacket) {
  const LogCapture log;
  RunelConnection connection(7, RunelConnection::kPrompt);
  std::string packet;
  connection.handleMessage(packet);
  packet = "words";
  connection.handleMessage(packet);
  EXPECT_EQ(packet, "words");
  const LogEntry line{LOG_ERR, "handleMessage: no implementation"};
  EXPECT_THAT(log.entries(), ElementsAre(line, line));
}

TEST(RunelConnectionTest, NeverRequestsAStopAndLogsNothing) {
  const LogCapture log;
  RunelConnection connection(7, RunelConnection::kPrompt);
  EXPECT_FALSE(connection.stopRequested());
  EXPECT_THAT(log.entries(), IsEmpty());
}

}  // namespace
}  // namespace zell
