// SPDX-License-Identifier: Apache-2.0
// Devices in the loop.
#include <fcntl.h>
#include <unistd.h>

#include "unit/server/loop_fixture.h"

namespace zell::test {
namespace {

using ::testing::ElementsAre;

TEST_F(ServerLoop, ServesADevice) {
  const TempDir directory;
  const Fifo device(directory, "device");
  server_.add_device(device.path());
  device.write("ready");
  std::string got;
  int served = -1;
  server_.onDevice = [&](const std::string&, int fd) {
    served = fd;
    got = readFrom(fd);
  };
  server_.runUntil([&] { return !got.empty(); });
  EXPECT_EQ(got, "ready");
  EXPECT_EQ(server_.m_device_fds.at(device.path()), served) << "the entry keeps the old number";
  EXPECT_EQ(server_.count("device " + device.path() + " " + std::to_string(served)), 1);
  EXPECT_THAT(lines(), ElementsAre("INFO (PID) closing device " + device.path() + ", fd " +
                                   std::to_string(served)));
}

TEST_F(ServerLoop, OpensDevicesReadOnlyAndCloseOnExec) {
  const TempDir directory;
  const Fifo device(directory, "device");
  server_.add_device(device.path());
  int mode = -1;
  int flags = 0;
  server_.onStarted = [&] {
    const int fd = server_.m_device_fds.at(device.path());
    mode = fcntl(fd, F_GETFL) & O_ACCMODE;
    flags = fcntl(fd, F_GETFD);
  };
  server_.runPasses(1);
  EXPECT_EQ(mode, O_RDONLY);
  EXPECT_NE(flags & FD_CLOEXEC, 0);
}

TEST_F(ServerLoop, ContinuesWithoutAMissingDevice) {
  server_.add_device("/no/such/device");
  server_.runPasses(2);
  EXPECT_EQ(server_.m_device_fds.at("/no/such/device"), -1);
  EXPECT_THAT(lines(), ElementsAre("WARNING (PID) /no/such/device not enabled: No such file or "
                                   "directory"));
}

TEST_F(ServerLoop, ServesDevicesInListOrder) {
  const TempDir directory;
  const Fifo a(directory, "a");
  const Fifo b(directory, "b");
  server_.add_device(b.path());
  server_.add_device(a.path());
  a.write("1");
  b.write("2");
  std::string order;
  server_.onDevice = [&](const std::string& path, int fd) {
    order += readFrom(fd) + path.substr(path.size() - 1);
  };
  server_.runUntil([&] { return order.size() >= 4; });
  EXPECT_EQ(order, "2b1a");
}

TEST_F(ServerLoop, ServesADeviceForEachTimeThatItIsListed) {
  const TempDir directory;
  const Fifo device(directory, "device");
  server_.add_device(device.path());
  server_.add_device(device.path());
  device.write("12");
  std::string got;
  server_.onDevice = [&](const std::string&, int fd) {
    char byte = 0;
    EXPECT_EQ(read(fd, &byte, 1), 1);
    got += byte;
  };
  server_.runPasses(1);
  EXPECT_EQ(got, "12");
  EXPECT_EQ(log.countContaining("closing device"), 2);
}

TEST_F(ServerLoop, NeverWatchesADeviceForExceptions) {
  const TempDir directory;
  const Fifo device(directory, "device");
  server_.add_device(device.path());
  fd_set readSet{};
  fd_set exceptSet{};
  server_.onSelect = [&](int) {
    readSet = server_.m_read_set;
    exceptSet = server_.m_except_set;
    return false;
  };
  device.write("x");
  server_.runPasses(1);
  const int fd = server_.m_device_fds.at(device.path());
  EXPECT_TRUE(FD_ISSET(fd, &readSet));
  EXPECT_FALSE(FD_ISSET(fd, &exceptSet));
  EXPECT_EQ(log.countContaining("disconnected"), 0);
}

// If a kernel reports one nevertheless: a log line, and nothing is closed.
TEST_F(ServerLoop, LogsThatADisconnectedDeviceMustBeReconnected) {
  const TempDir directory;
  const Fifo device(directory, "device");
  server_.add_device(device.path());
  device.write("x");
  server_.onSelect = [&](int) {
    FD_SET(server_.m_device_fds.at(device.path()), &server_.m_except_set);
    return false;
  };
  server_.runPasses(1);
  const int fd = server_.m_device_fds.at(device.path());
  EXPECT_EQ(log.count("(PID) device " + std::to_string(fd) + " disconnected, need to reconnect?"),
            1);
  EXPECT_EQ(server_.count("device " + device.path() + " " + std::to_string(fd)), 1);
}

}  // namespace
}  // namespace zell::test
