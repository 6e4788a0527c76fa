// SPDX-License-Identifier: Apache-2.0
// Compares SendRoom with the free space in the send buffer.
#include "connections/send_room.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "support/slow_peer.h"
#include "support/socket_pair.h"

namespace zell::test {
namespace {

// The parameter is the size of each write.
class SendRoomTest : public testing::TestWithParam<std::size_t> {
 protected:
  // Writes until no room is left. No write may block. Returns the number of bytes.
  static std::size_t fill(SendRoom& room, int socket) {
    const std::string text(GetParam(), 'x');
    std::size_t all = 0;
    while (room.take(text.size())) {
      const ssize_t sent = send(socket, text.data(), text.size(), MSG_DONTWAIT);
      EXPECT_EQ(sent, static_cast<ssize_t>(text.size())) << "after " << all;
      if (sent < 0) {
        break;
      }
      all += text.size();
    }
    return all;
  }
};

TEST_P(SendRoomTest, IsAvailableWhenReported) {
  SlowPeer slow(std::chrono::seconds(1));
  SendRoom room(slow.sockets().near());
  EXPECT_GT(fill(room, slow.sockets().near()), GetParam());
  EXPECT_TRUE(room.canEverTake(GetParam()));
}

TEST_P(SendRoomTest, GrowsWhenThePeerReads) {
  SlowPeer slow(std::chrono::seconds(1));
  SendRoom room(slow.sockets().near());
  (void)fill(room, slow.sockets().near());
  std::size_t more = 0;
  for (int i = 0; i < 20; ++i) {
    (void)slow.wait(0, 1000);
    more += fill(room, slow.sockets().near());
  }
  EXPECT_GT(more, 10 * SlowPeer::kStep);
}

INSTANTIATE_TEST_SUITE_P(Sizes, SendRoomTest,
                         testing::Values(6U, 206U, 1500U, 5000U, 20000U, 100000U));

TEST(SendRoom, IsNeverMoreThanTheBuffer) {
  const SlowPeer slow(std::chrono::seconds(1));
  SendRoom room(slow.sockets().near());
  EXPECT_FALSE(room.take(std::size_t{1} << 20));
  EXPECT_FALSE(room.canEverTake(std::size_t{1} << 20));
  EXPECT_TRUE(room.take(1000));
}

TEST(SendRoom, IsUnlimitedWhenTheKernelDoesNotReportIt) {
  const SocketPair local = SocketPair::local();
  for (const int socket : {local.near(), -1}) {
    SendRoom room(socket);
    EXPECT_TRUE(room.take(std::size_t{1} << 30));
    EXPECT_TRUE(room.canEverTake(std::size_t{1} << 30));
  }
}

}  // namespace
}  // namespace zell::test
