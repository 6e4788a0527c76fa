// SPDX-License-Identifier: Apache-2.0
#include "base/unique_fd.h"

#include <cerrno>
#include <type_traits>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace zell::test {
namespace {

static_assert(!std::is_copy_constructible_v<UniqueFd> && !std::is_copy_assignable_v<UniqueFd>);
static_assert(!std::is_convertible_v<int, UniqueFd>);

int newDescriptor() {
  return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

bool isOpen(int fd) {
  return fcntl(fd, F_GETFD) != -1;
}

TEST(UniqueFdTest, OwnsNothingAtFirst) {
  const UniqueFd none;
  EXPECT_FALSE(none.valid());
  EXPECT_EQ(none.get(), -1);
}

TEST(UniqueFdTest, ClosesItsDescriptorAtItsEnd) {
  const int fd = newDescriptor();
  {
    const UniqueFd owner(fd);
    EXPECT_TRUE(owner.valid());
    EXPECT_EQ(owner.get(), fd);
  }
  EXPECT_FALSE(isOpen(fd));
}

TEST(UniqueFdTest, ReleasesADescriptor) {
  const int fd = newDescriptor();
  {
    UniqueFd owner(fd);
    EXPECT_EQ(owner.release(), fd);
    EXPECT_FALSE(owner.valid());
  }
  EXPECT_TRUE(isOpen(fd));
  (void)close(fd);
}

TEST(UniqueFdTest, MovesTheDescriptor) {
  const int fd = newDescriptor();
  UniqueFd first(fd);
  const UniqueFd second(std::move(first));
  EXPECT_EQ(first.get(), -1);  // NOLINT(bugprone-use-after-move): tests the moved-from state
  EXPECT_EQ(second.get(), fd);
  EXPECT_TRUE(isOpen(fd));
}

TEST(UniqueFdTest, ClosesItsDescriptorBeforeAMoveAssignment) {
  const int old = newDescriptor();
  const int fresh = newDescriptor();
  UniqueFd owner(old);
  owner = UniqueFd(fresh);
  EXPECT_FALSE(isOpen(old));
  EXPECT_EQ(owner.get(), fresh);
  EXPECT_TRUE(isOpen(fresh));
}

TEST(UniqueFdTest, SurvivesBeingMovedIntoItself) {
  const int fd = newDescriptor();
  UniqueFd owner(fd);
  UniqueFd& same = owner;
  owner = std::move(same);
  EXPECT_EQ(owner.get(), fd);
  EXPECT_TRUE(isOpen(fd));
}

TEST(UniqueFdTest, ResetsToNoneOrToAnother) {
  const int fd = newDescriptor();
  UniqueFd owner(fd);
  owner.reset();
  EXPECT_FALSE(owner.valid());
  EXPECT_FALSE(isOpen(fd));
  const int fresh = newDescriptor();
  owner.reset(fresh);
  EXPECT_EQ(owner.get(), fresh);
}

TEST(UniqueFdTest, OwnsDescriptorZero) {
  const UniqueFd saved(fcntl(0, F_DUPFD_CLOEXEC, 3));
  (void)close(0);
  {
    const UniqueFd owner(open("/dev/null", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(owner.get(), 0);
    EXPECT_TRUE(owner.valid());
  }
  EXPECT_FALSE(isOpen(0));
  EXPECT_EQ(dup2(saved.get(), 0), 0);
}

TEST(UniqueFdTest, PreservesErrnoWhenItCloses) {
  const int fd = newDescriptor();
  (void)close(fd);
  errno = ENOENT;
  { const UniqueFd closedAlready(fd); }  // close fails with EBADF
  EXPECT_EQ(errno, ENOENT);
}

}  // namespace
}  // namespace zell::test
