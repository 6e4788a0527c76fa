// SPDX-License-Identifier: Apache-2.0
#include "gateway/frame_watch.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "protocol/frame_sender.h"

namespace runelctl {
namespace {

std::string frameOf(const std::string& payload) {
  return zell::frameHead(payload.size()) + payload;
}

TEST(FrameWatchTest, FindsTheEndsOfFrames) {
  const std::string stream = frameOf("one") + frameOf("") + frameOf(std::string(1000, 'x'));
  FrameWatch watch;
  const std::vector<FrameWatch::Frame> frames = watch.follow(stream);
  ASSERT_EQ(frames.size(), 3U);
  EXPECT_EQ(frames[0].end, frameOf("one").size());
  EXPECT_EQ(frames[0].head, "one");
  EXPECT_EQ(frames[1].end, frameOf("one").size() + frameOf("").size());
  EXPECT_EQ(frames[1].head, "");
  EXPECT_EQ(frames[2].end, stream.size());
  EXPECT_EQ(frames[2].head, std::string(FrameWatch::kHead, 'x'));
  EXPECT_EQ(watch.position(), stream.size());
  EXPECT_FALSE(watch.within());
}

TEST(FrameWatchTest, BytesMayComeOneByOne) {
  const std::string stream = frameOf("one") + frameOf("two");
  FrameWatch watch;
  std::vector<std::uint64_t> ends;
  for (const char byte : stream) {
    for (const FrameWatch::Frame& frame : watch.follow(std::string(1, byte))) {
      ends.push_back(frame.end);
    }
    EXPECT_EQ(watch.within(), watch.position() % (stream.size() / 2) != 0) << watch.position();
  }
  EXPECT_EQ(ends, (std::vector<std::uint64_t>{stream.size() / 2, stream.size()}));
}

TEST(FrameWatchTest, StopsAtMalformedBytes) {
  for (const std::string head : {"x", "\x01\x02",
                                 "\x01"
                                 "12345678901\x02",
                                 "\x01"
                                 "999999999\x02",
                                 "\x01"
                                 "-1\x02",
                                 "\x01 1\x02"}) {
    FrameWatch watch;
    EXPECT_EQ(watch.follow(frameOf("one")).size(), 1U);
    EXPECT_EQ(watch.follow(head + frameOf("two")).size(), 0U) << head;
    EXPECT_TRUE(watch.malformed()) << head;
    EXPECT_EQ(watch.follow(frameOf("three")).size(), 0U) << head;
  }
}

TEST(FrameWatchTest, ShowsTheFirstBytesOfAFrameThatHasBegun) {
  FrameWatch watch;
  EXPECT_TRUE(watch
                  .follow("\x01"
                          "10\x02"
                          "be")
                  .empty());
  EXPECT_EQ(watch.head(), "be");
  EXPECT_TRUE(watch.within());
}

}  // namespace
}  // namespace runelctl
