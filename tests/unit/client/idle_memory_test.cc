// SPDX-License-Identifier: Apache-2.0
// The memory of a master with many idle devices. The devices are another process.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>

#include <runel/async_master.h>
#include <runel/loop.h>

#include "support/allocation_count.h"

namespace runel {
namespace {

constexpr std::size_t kDevices = 1000;
constexpr std::ptrdiff_t kMostBytes = 2048;

std::string frameOf(const std::string& payload) {
  return "\x01" + std::to_string(payload.size()) + "\x02" + payload;
}

std::string replyOf(const std::string& output) {
  return frameOf("SlaveTask 0 0 " + std::to_string(output.size()) + ":" + output + " 0 0 0 0 0");
}

/// Connects @p count devices with their own addresses and answers the questions of the master.
class Devices {
 public:
  Devices(std::uint16_t port, std::size_t count) : epoll_(epoll_create1(0)) {
    for (std::size_t i = 0; i < count; ++i) {
      add(port, static_cast<std::uint32_t>(i));
    }
  }
  [[noreturn]] void run() {
    epoll_event events[64];
    while (true) {
      const int ready = epoll_wait(epoll_, events, 64, -1);
      for (int i = 0; i < ready; ++i) {
        answer(static_cast<int>(events[i].data.u64 & 0xffffffff), events[i].data.u64 >> 32);
      }
    }
  }

 private:
  void add(std::uint16_t port, std::uint32_t number) const {
    const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in from{};
    from.sin_family = AF_INET;
    from.sin_addr.s_addr = htonl(0x7f010001 + (number / 250 << 8) + number % 250);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = std::uint64_t{number} << 32 | static_cast<unsigned>(socket);
    if (bind(socket, reinterpret_cast<const sockaddr*>(&from), sizeof from) != 0 ||
        connect(socket, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0 ||
        epoll_ctl(epoll_, EPOLL_CTL_ADD, socket, &event) != 0) {
      std::perror("Devices");
      std::_Exit(1);
    }
  }
  static void answer(int socket, std::uint64_t number) {
    char bytes[4096];
    const ssize_t got = recv(socket, bytes, sizeof bytes, MSG_DONTWAIT);
    if (got <= 0) {
      std::_Exit(0);
    }
    const std::string text(bytes, static_cast<std::size_t>(got));
    std::string answers;
    if (text.find("6:hostid") != std::string::npos) {
      answers += replyOf("device-with-a-name-" + std::to_string(number));
    }
    if (text.find("10:devicetype") != std::string::npos) {
      answers += replyOf("controller");
    }
    (void)send(socket, answers.data(), answers.size(), MSG_NOSIGNAL);
  }

  const int epoll_;
};

class Child {
 public:
  Child(std::uint16_t port, std::size_t count) : pid_(fork()) {
    if (pid_ == 0) {
      (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
      Devices(port, count).run();
    }
  }
  ~Child() {
    (void)kill(pid_, SIGKILL);
    (void)waitpid(pid_, nullptr, 0);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

 private:
  const pid_t pid_;
};

// Resident memory in bytes.
std::size_t resident() {
  std::FILE* const file = std::fopen("/proc/self/statm", "re");
  std::size_t pages = 0;
  std::size_t here = 0;
  EXPECT_EQ(std::fscanf(file, "%zu %zu", &pages, &here), 2);
  (void)std::fclose(file);
  return here * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

TEST(IdleMemoryTest, AnIdleDeviceNeedsLessThanTwoKilobytes) {
  const char* const wanted = std::getenv("RUNEL_IDLE_DEVICES");
  const std::size_t count = wanted == nullptr ? kDevices : std::stoul(wanted);
  rlimit files{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &files), 0);
  files.rlim_cur = files.rlim_max;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &files), 0);
  Loop loop;
  std::size_t connected = 0;
  MasterOptions options;
  options.setListen("127.0.0.1", 0).setIdentifyRate(1000000).setHistory(0);
  AsyncMaster master(loop, options, [&](const MasterEvent& event) {
    connected += event.type() == MasterEvent::Type::connected ? 1 : 0;
  });
  ASSERT_TRUE(master.open());
  const zell::test::AllocationCount memory;
  const std::size_t before = resident();
  const Child devices(master.port(), count);
  const auto end = Clock::now() + Milliseconds(120000);
  while (connected < count && Clock::now() < end) {
    loop.turn(Milliseconds(100));
  }
  ASSERT_EQ(connected, count);
  loop.turn(Milliseconds(0));
  const std::ptrdiff_t each = memory.live() / static_cast<std::ptrdiff_t>(count);
  const std::size_t pages = (resident() - before) / count;
  std::printf("%zu devices: %td bytes of heap each, %zu bytes resident\n", count, each, pages);
  EXPECT_LT(each, kMostBytes);
  EXPECT_EQ(master.devices().size(), count);
}

}  // namespace
}  // namespace runel
