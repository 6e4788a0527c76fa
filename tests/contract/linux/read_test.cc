// SPDX-License-Identifier: Apache-2.0
// Reading whole files without blocking.
#include <cerrno>
#include <cstdint>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <zell/slave_task.h>

#include "base/unique_fd.h"
#include "contract/linux/proxy_test.h"
#include "contract/linux/refused_calls.h"
#include "contract/linux/terminal.h"
#include "protocol/protocol.h"
#include "support/spied_calls.h"

namespace zell::test {
namespace {

class ReadTest : public ProxyTest {
 protected:
  std::string sparse(std::uint64_t size) {
    const std::string path = dir_.write("sparse", "");
    EXPECT_EQ(truncate(path.c_str(), static_cast<off_t>(size)), 0);
    return path;
  }
};

TEST_F(ReadTest, ReadsBytesOfEveryKind) {
  std::string all;
  for (int byte = 0; byte < 256; ++byte) {
    all += static_cast<char>(byte);
  }
  EXPECT_EQ(read(dir_.write("a", all)), kSuccess);
  EXPECT_EQ(text_, all);
}

TEST_F(ReadTest, ReadsAnEmptyFile) {
  EXPECT_EQ(read(dir_.write("a", "")), kSuccess);
  EXPECT_EQ(text_, "");
}

TEST_F(ReadTest, ReadsFilesOfEverySize) {
  for (const std::size_t size : {65535U, 65536U, 65537U, 131072U, 3000000U}) {
    const std::string content(size, 'x');
    EXPECT_EQ(read(dir_.write("a", content)), kSuccess);
    EXPECT_TRUE(text_ == content) << size;
  }
}

TEST_F(ReadTest, ReadsFilesWithAnUnknownSize) {
  EXPECT_EQ(statusOf("/proc/self/status").st_size, 0);
  EXPECT_EQ(read("/proc/self/status"), kSuccess);
  EXPECT_NE(text_.find("Pid:\t" + std::to_string(getpid())), std::string::npos);
  EXPECT_EQ(text_.back(), '\n');
}

TEST_F(ReadTest, ReadsAFifoWithoutAWriterAsEmpty) {
  ASSERT_EQ(mkfifo(dir_.file("fifo").c_str(), 0644), 0);
  EXPECT_EQ(read(dir_.file("fifo")), kSuccess);
  EXPECT_EQ(text_, "");
}

TEST_F(ReadTest, ReadsTheContentOfAFifo) {
  ASSERT_EQ(mkfifo(dir_.file("fifo").c_str(), 0644), 0);
  const UniqueFd writer(open(dir_.file("fifo").c_str(), O_RDWR | O_CLOEXEC));
  EXPECT_EQ(read(dir_.file("fifo")), kSuccess);
  EXPECT_EQ(text_, "");
  ASSERT_EQ(::write(writer.get(), "content", 7), 7);
  EXPECT_EQ(read(dir_.file("fifo")), kSuccess);
  EXPECT_EQ(text_, "content");
}

// As under a mandatory lock: no data is available, but the file has not ended.
TEST_F(ReadTest, FailsOnAFileWithoutAvailableData) {
  SpiedCalls spy;
  spy.fail("read", EAGAIN);
  EXPECT_EQ(read(dir_.write("a", "content")), failureWith(EAGAIN));
}

TEST_F(ReadTest, ContinuesAfterAnInterruptedRead) {
  SpiedCalls spy;
  spy.fail("read", EINTR);
  EXPECT_EQ(read(dir_.write("a", "content")), kSuccess);
  EXPECT_EQ(text_, "content");
}

TEST_F(ReadTest, IgnoresTheErrnoOfAnEarlierCall) {
  const std::string path = dir_.write("a", "content");
  errno = EINTR;
  EXPECT_EQ(read(path), kSuccess);
  EXPECT_EQ(text_, "content");
}

TEST_F(ReadTest, FailsWhenFstatFails) {
  const std::string path = dir_.write("a", "content");
  SpiedCalls spy;
  spy.fail("fstat", EIO);
  EXPECT_EQ(read(path), failureWith(EIO));
  EXPECT_EQ(text_, "");
}

TEST_F(ReadTest, DoesNotAcquireAControllingTerminal) {
  EXPECT_EQ(inChild([&] {
              const Terminal terminal;
              const std::string result = read(terminal.path());
              return result + terminal.ownership();
            }),
            std::string(kSuccess) + ", unowned");
}

TEST_F(ReadTest, FollowsLinks) {
  dir_.write("a", "content");
  ASSERT_EQ(symlink("a", dir_.file("link").c_str()), 0);
  EXPECT_EQ(read(dir_.file("link")), kSuccess);
  EXPECT_EQ(text_, "content");
}

TEST_F(ReadTest, FailsOnAnInvalidPath) {
  EXPECT_EQ(read(dir_.path()), failureWith(EISDIR));
  EXPECT_EQ(read(dir_.file("none")), failureWith(ENOENT));
  EXPECT_EQ(read(""), failureWith(ENOENT));
  EXPECT_EQ(read(dir_.write("a", "content") + "/b"), failureWith(ENOTDIR));
  EXPECT_EQ(read(dir_.file("a") + std::string("\0b", 2)), failureWith(EINVAL));
  EXPECT_EQ(text_, "");
}

TEST_F(ReadTest, ReadsUpToTheLimitOfAReply) {
  EXPECT_EQ(read(sparse(kMaxReplyText)), kSuccess);
  EXPECT_EQ(text_.size(), kMaxReplyText);
}

TEST_F(ReadTest, FailsAboveTheLimitOfAReply) {
  EXPECT_EQ(read(sparse(kMaxReplyText + 1)), failureWith(EFBIG));
  EXPECT_EQ(text_, "");
}

TEST_F(ReadTest, DoesNotStartToReadAFileAboveTheLimitOfAReply) {
  SpiedCalls spy;
  spy.fail("read", EIO);
  EXPECT_EQ(read(sparse(kMaxReplyText + 1)), failureWith(EFBIG));
}

// A size that a 32-bit processor could take for 100.
TEST_F(ReadTest, DoesNotStartToReadAFileAboveFourGigabytes) {
  constexpr std::uint64_t kSize = (std::uint64_t{1} << 32U) + 100;
  SpiedCalls spy;
  spy.fail("read", EIO);
  EXPECT_EQ(read(sparse(kSize)), failureWith(EFBIG));
  struct stat st {};
  EXPECT_TRUE(proxy_.stat(dir_.file("sparse"), st));
  EXPECT_EQ(static_cast<std::uint64_t>(st.st_size), kSize);
}

TEST_F(ReadTest, FailsOnADeviceThatNeverEnds) {
  EXPECT_EQ(read("/dev/zero"), failureWith(EFBIG));
  EXPECT_EQ(text_, "");
}

}  // namespace
}  // namespace zell::test
