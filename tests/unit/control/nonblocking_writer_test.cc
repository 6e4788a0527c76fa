// SPDX-License-Identifier: Apache-2.0
// Output to a pipe that is read slowly, or not at all.
#include "control/nonblocking_writer.h"

#include <cerrno>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include <runel/loop.h>

#include "support/spied_calls.h"
#include "unit/control/streams.h"

namespace runelctl {
namespace {

using test::Pipe;
using test::runUntil;
using zell::test::SpiedCalls;

constexpr std::size_t kPipeSize = 1048576;
constexpr std::size_t kMostWaiting = 4194304;

class NonBlockingWriterTest : public ::testing::Test {
 protected:
  /// Reads until @p size bytes have come.
  std::string readUntil(std::size_t size) {
    std::string all;
    runUntil(loop, [&] {
      all += pipe.read();
      return all.size() >= size;
    });
    return all;
  }

  runel::Loop loop;
  Pipe pipe{kPipeSize};
  std::unique_ptr<NonBlockingWriter> writer =
      std::make_unique<NonBlockingWriter>(loop, pipe.in.get());
};

TEST_F(NonBlockingWriterTest, WritesAtOnceWhatThePipeTakes) {
  writer->write("one\n");
  writer->write("two\n");
  EXPECT_EQ(pipe.read(), "one\ntwo\n");
}

TEST_F(NonBlockingWriterTest, WritesTheRestInOrderWhenThePipeIsRead) {
  const std::string first(kPipeSize + 10000, 'a');
  const std::string second(10000, 'b');
  writer->write(first);
  writer->write(second);
  EXPECT_TRUE(readUntil(first.size() + second.size()) == first + second);
}

TEST_F(NonBlockingWriterTest, DropsWholeLinesBeyondItsLimitAndCountsThem) {
  const std::string most(kMostWaiting, 'a');
  const std::string rest(kPipeSize, 'b');
  writer->write(most);  // the pipe takes a part
  writer->write(rest);
  writer->write("dropped\n");
  writer->write("dropped too\n");
  const std::string note = "(2 lines dropped: the output was not read in time)\n";
  EXPECT_TRUE(readUntil(most.size() + rest.size() + note.size()) == most + rest + note);
  writer->write("later\n");
  EXPECT_EQ(pipe.read(), "later\n");
}

TEST_F(NonBlockingWriterTest, RepeatsAnInterruptedWrite) {
  for (const int error : {EINTR, EAGAIN}) {
    SpiedCalls calls;
    calls.fail("write", error);
    writer->write("line\n");
    EXPECT_EQ(pipe.read(), "");
    EXPECT_EQ(readUntil(5), "line\n");
  }
}

TEST_F(NonBlockingWriterTest, DropsEverythingAfterAFailedWrite) {
  {
    SpiedCalls calls;
    calls.fail("write", EIO);
    writer->write("line\n");
  }
  writer->write("another\n");
  loop.turn(runel::Milliseconds(0));
  writer.reset();
  EXPECT_EQ(pipe.read(), "");
}

TEST_F(NonBlockingWriterTest, WritesWhatFitsAtItsEnd) {
  writer->write(std::string(kPipeSize + 1000, 'a'));
  (void)pipe.read();
  writer.reset();
  EXPECT_EQ(pipe.read(), std::string(1000, 'a'));
  loop.turn(runel::Milliseconds(60));  // a timer that remains would use the destroyed writer
}

}  // namespace
}  // namespace runelctl
