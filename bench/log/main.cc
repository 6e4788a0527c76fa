// SPDX-License-Identifier: Apache-2.0
// bench_log: reads /dev/log and discards the lines, so that a logging server never blocks. Runs
// until a signal ends it. It polls instead of sleeping until a line arrives, so that a line never
// costs its sender the wake-up of another processor. On a virtual machine, such a wake-up costs
// more than the rest of the line and varies widely.
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace {

constexpr int kLines = 64;
constexpr std::size_t kLineSize = 8192;
constexpr timespec kPause{0, 300000};

// As many queued lines as on a machine with an ordinary init. The kernel's default of 10 is low.
void lengthenQueue() {
  std::ofstream("/proc/sys/net/unix/max_dgram_qlen") << 512;
}

int bindLog() {
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/dev/log");
  if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    std::perror("bench_log: /dev/log");
    return -1;
  }
  (void)chmod(address.sun_path, 0666);
  return fd;
}

}  // namespace

int main() {
  lengthenQueue();
  const int fd = bindLog();
  if (fd < 0) {
    return 1;
  }
  static char buffers[kLines][kLineSize];
  iovec parts[kLines];
  mmsghdr messages[kLines] = {};
  for (int i = 0; i < kLines; ++i) {
    parts[i] = {buffers[i], kLineSize};
    messages[i].msg_hdr.msg_iov = &parts[i];
    messages[i].msg_hdr.msg_iovlen = 1;
  }
  for (;;) {
    if (recvmmsg(fd, messages, kLines, MSG_DONTWAIT, nullptr) <= 0) {
      (void)nanosleep(&kPause, nullptr);
    }
  }
}
