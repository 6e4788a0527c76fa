// SPDX-License-Identifier: Apache-2.0
#include "unit/server/failing_accept.h"

#include <cerrno>
#include <utility>

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace zell::test {
namespace {

FailingAccept* g_failing = nullptr;

}  // namespace

FailingAccept::FailingAccept(int error) : error_(error) {
  g_failing = this;
}

FailingAccept::~FailingAccept() {
  g_failing = nullptr;
}

int FailingAccept::note() {
  if (before) {
    before();
  }
  return std::exchange(error_, 0);
}

}  // namespace zell::test

// Replaces the function of the C library at link time.
extern "C" int accept4(int listener, sockaddr* address, socklen_t* length, int flags) {
  const int error = zell::test::g_failing != nullptr ? zell::test::g_failing->note() : 0;
  if (error != 0) {
    errno = error;
    return -1;
  }
  return static_cast<int>(syscall(SYS_accept4, listener, address, length, flags));
}
