// SPDX-License-Identifier: Apache-2.0
#include "connections/send_room.h"

#include <algorithm>
#include <limits>

#include <linux/sock_diag.h>
#include <sys/socket.h>

#include "base/tcp.h"

namespace zell {
namespace {

constexpr std::size_t kEndless = std::numeric_limits<std::size_t>::max();

// The buffer also contains the kernel's data for each packet, about 1.3 KiB. A small write adds at
// most one packet. In a long write, each packet has more payload than that.
constexpr std::size_t kPacket = 4096;

std::size_t needed(std::size_t size) {
  return 2 * size;
}

}  // namespace

bool SendRoom::take(std::size_t size) {
  const std::size_t used = needed(size) + kPacket;
  if (used > room_) {
    ask();
  }
  if (needed(size) > room_) {
    return false;
  }
  room_ -= std::min(used, room_);
  return true;
}

bool SendRoom::canEverTake(std::size_t size) const {
  return needed(size) <= whole_;
}

// Acknowledgements only add room, so the result stays a lower bound. The exception is a kernel that
// is short of memory and shrinks the buffer: then the write blocks, up to SO_SNDTIMEO.
void SendRoom::ask() {
  unsigned memory[SK_MEMINFO_VARS] = {};
  socklen_t length = sizeof memory;
  if (!isTcp(socket_) || getsockopt(socket_, SOL_SOCKET, SO_MEMINFO, memory, &length) != 0) {
    room_ = kEndless;
    whole_ = kEndless;
    return;
  }
  whole_ = memory[SK_MEMINFO_SNDBUF];
  room_ = whole_ - std::min<std::size_t>(whole_, memory[SK_MEMINFO_WMEM_QUEUED]);
}

}  // namespace zell
