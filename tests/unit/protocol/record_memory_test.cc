// SPDX-License-Identifier: Apache-2.0
// The memory of a record, which may contain a file of 256 MiB.
#include <ostream>
#include <streambuf>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <zell/slave_task.h>

#include "protocol/protocol.h"
#include "support/allocation_count.h"
#include "support/sizes.h"

namespace zell {
namespace {

using test::AllocationCount;
using test::kMiB;

std::string writeRequest(std::size_t size) {
  const std::string length = std::to_string(size);
  return "SlaveTask 3 5:write 2:/f " + length + ':' + std::string(size, 'x') + " 0 0: 0 0 0 0 0";
}

// Counts the pieces in which a record is written, and discards them.
class CountingBuffer : public std::streambuf {
 public:
  int writes = 0;
  std::streamsize bytes = 0;

 protected:
  std::streamsize xsputn(const char* /*text*/, std::streamsize count) override {
    ++writes;
    bytes += count;
    return count;
  }
  int_type overflow(int_type byte) override {
    ++writes;
    ++bytes;
    return byte;
  }
};

TEST(RecordMemoryTest, TheLongestArgumentTakesOverTheMessagesMemory) {
  std::string message = writeRequest(64 * kMiB);
  SlaveTask task;
  const AllocationCount memory;
  task.parse(std::move(message));
  EXPECT_LT(memory.bytes(), 4096u);
  ASSERT_EQ(task.args().size(), 3u);
  EXPECT_EQ(task.args()[1], "/f");
  EXPECT_EQ(task.args()[2].size(), 64 * kMiB);
  EXPECT_EQ(task.args()[2].find_first_not_of('x'), std::string::npos);
}

TEST(RecordMemoryTest, ALongOutputTakesOverTheMessagesMemory) {
  std::string message = "SlaveTask 1 4:read 0 " + std::to_string(64 * kMiB) + ':' +
                        std::string(64 * kMiB, 'x') + " 1 2 3 4 5";
  SlaveTask task;
  const AllocationCount memory;
  ASSERT_TRUE(task.parse(std::move(message)));
  const std::string output = task.takeOutput();
  EXPECT_LT(memory.bytes(), 4096u);
  EXPECT_EQ(output.size(), 64 * kMiB);
  EXPECT_EQ(output.find_first_not_of('x'), std::string::npos);
  EXPECT_EQ(task.args(), std::vector<std::string>{"read"});
  EXPECT_EQ(task.status().signal, 5);
}

TEST(RecordMemoryTest, AHugeNumberOfArgumentsAllocatesNothing) {
  const std::string message = "SlaveTask 2147483647 4:read 2:/f 0 0: 0 0 0 0 0";
  SlaveTask task;
  const AllocationCount memory;
  task.parse(message);
  EXPECT_EQ(memory.calls(), 0u);
}

TEST(RecordMemoryTest, AHugeLengthAllocatesNothing) {
  const std::string message = "SlaveTask 1 2147483647:read 0 0: 0 0 0 0 0";
  SlaveTask task;
  const AllocationCount memory;
  task.parse(message);
  EXPECT_EQ(memory.calls(), 0u);
}

TEST(RecordMemoryTest, ALongTextIsWrittenInOnePiece) {
  const SlaveTask reply(std::string(16 * kMiB, 'x'), nullptr);
  CountingBuffer buffer;
  std::ostream out(&buffer);
  const AllocationCount memory;
  reply.serialize(out);
  EXPECT_EQ(buffer.writes, 3);
  EXPECT_EQ(buffer.bytes, static_cast<std::streamsize>(16 * kMiB + 33));
  EXPECT_LT(memory.bytes(), 4096u);
}

TEST(RecordMemoryTest, AShortReplyIsWrittenInOnePiece) {
  const SlaveTask reply("short", nullptr);
  CountingBuffer buffer;
  std::ostream out(&buffer);
  reply.serialize(out);
  EXPECT_EQ(buffer.writes, 1);
}

TEST(RecordMemoryTest, AReplyTakesOverItsText) {
  std::string text(16 * kMiB, 'x');
  const AllocationCount memory;
  const SlaveTask reply(std::move(text), nullptr);
  EXPECT_EQ(memory.calls(), 0u);
  EXPECT_EQ(reply.output().size(), 16 * kMiB);
}

TEST(RecordMemoryTest, ATextThatIsTooLongIsFreedImmediately) {
  std::string text(kMaxReplyText + 1, 'x');
  const AllocationCount memory;
  const SlaveTask reply(std::move(text), nullptr);
  EXPECT_LT(memory.live(), -static_cast<std::ptrdiff_t>(kMaxReplyText));
}

}  // namespace
}  // namespace zell
