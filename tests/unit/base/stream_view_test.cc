// SPDX-License-Identifier: Apache-2.0
#include "base/stream_view.h"

#include <string>

#include <gtest/gtest.h>

namespace zell::test {
namespace {

TEST(StreamViewTest, OfAnEmptyStreamIsEmpty) {
  const std::ostringstream out;
  const std::istringstream in;
  EXPECT_EQ(viewOf(out), "");
  EXPECT_EQ(viewOf(in), "");
}

TEST(StreamViewTest, ShowsTheWrittenBytes) {
  std::ostringstream out;
  out << "number " << 42;
  EXPECT_EQ(viewOf(out), "number 42");
  out << '!';
  EXPECT_EQ(viewOf(out), "number 42!");
}

TEST(StreamViewTest, ShowsAllBytesOfALongStream) {
  std::string bytes;
  for (int i = 0; i < 300000; ++i) {
    bytes.push_back(static_cast<char>(i));
  }
  std::ostringstream out;
  out.write(bytes.data(), 150000);
  out.write(bytes.data() + 150000, 150000);
  EXPECT_EQ(viewOf(out), bytes);
  const std::istringstream in(bytes);
  EXPECT_EQ(viewOf(in), bytes);
}

TEST(StreamViewTest, ShowsTheWholeInputAfterAnyRead) {
  std::istringstream in("one two");
  std::string word;
  in >> word;
  EXPECT_EQ(word, "one");
  EXPECT_EQ(viewOf(in), "one two");
  in >> word >> word;
  EXPECT_EQ(viewOf(in), "one two");
}

TEST(StreamViewTest, DoesNotCopy) {
  std::ostringstream out;
  out << "text";
  EXPECT_EQ(viewOf(out).data(), viewOf(out).data());
  const std::istringstream in("text");
  EXPECT_EQ(viewOf(in).data(), viewOf(in).data());
}

TEST(StreamViewTest, FollowsANewString) {
  std::istringstream in("old one");
  in.str("new");
  EXPECT_EQ(viewOf(in), "new");
}

}  // namespace
}  // namespace zell::test
