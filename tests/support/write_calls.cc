// SPDX-License-Identifier: Apache-2.0
#include "support/write_calls.h"

#include <cerrno>

#include <sys/syscall.h>
#include <unistd.h>

namespace zell::test {
namespace {

WriteCalls* g_current = nullptr;

}  // namespace

WriteCalls::WriteCalls() {
  g_current = this;
}

WriteCalls::~WriteCalls() {
  g_current = nullptr;
}

ssize_t WriteCalls::write(int fd, const void* bytes, std::size_t count) {
  calls_.push_back({fd, std::string(static_cast<const char*>(bytes), count)});
  if (before) {
    before(fd);
  }
  if (answers_.empty()) {
    return syscall(SYS_write, fd, bytes, count);
  }
  const Answer answer = answers_.front();
  answers_.pop_front();
  errno = answer.error != 0 ? answer.error : errno;
  return answer.result;
}

}  // namespace zell::test

// Replaces the function of the C library at link time.
extern "C" ssize_t write(int fd, const void* bytes, size_t count) {
  if (zell::test::g_current != nullptr) {
    return zell::test::g_current->write(fd, bytes, count);
  }
  return syscall(SYS_write, fd, bytes, count);
}
