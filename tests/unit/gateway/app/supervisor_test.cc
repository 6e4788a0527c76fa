// SPDX-License-Identifier: Apache-2.0
// What the supervisor hears.
#include "gateway/app/supervisor.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "base/unique_fd.h"
#include "support/temp_dir.h"

namespace runelgw {
namespace {

// The socket of a supervisor, whose name begins with '@' if it is abstract.
zell::UniqueFd listenAt(const std::string& name) {
  zell::UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, name.data(), name.size());
  if (name[0] == '@') {
    address.sun_path[0] = '\0';
  }
  EXPECT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address),
                   static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size())),
            0);
  return socket;
}

std::string heardAt(const zell::UniqueFd& socket) {
  char text[100];
  const ssize_t count = ::recv(socket.get(), text, sizeof text, MSG_DONTWAIT);
  return count < 0 ? "nothing" : std::string(text, static_cast<std::size_t>(count));
}

TEST(SupervisorTest, HearsOfTheStateAtAPathAndAtAnAbstractName) {
  const zell::test::TempDir directory;
  for (const std::string& name : {directory.file("socket"), std::string("@runelgw test")}) {
    const zell::UniqueFd socket = listenAt(name);
    EXPECT_TRUE(notifySupervisor(name, "READY=1\nSTATUS=ready")) << std::strerror(errno);
    EXPECT_EQ(heardAt(socket), "READY=1\nSTATUS=ready");
  }
}

TEST(SupervisorTest, RefusesAddressesOfOtherKinds) {
  const std::string tooLong = "/" + std::string(sizeof(sockaddr_un{}.sun_path), 'x');
  for (const std::string& address : {std::string(), std::string("/"), std::string("@"),
                                     std::string("vsock:2:1"), std::string("relative"), tooLong}) {
    errno = 0;
    EXPECT_FALSE(notifySupervisor(address, "READY=1")) << address;
    EXPECT_EQ(errno, EINVAL) << address;
  }
  EXPECT_FALSE(notifySupervisor("/missing/socket", "READY=1"));
  EXPECT_EQ(errno, ENOENT);
}

TEST(SupervisorTest, RaisesTheLimitOfDescriptorsAsFarAsItMay) {
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  rlimit low = before;
  low.rlim_cur = 100;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
  EXPECT_EQ(raiseDescriptorLimit(), before.rlim_max);
  rlimit after{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &after), 0);
  EXPECT_EQ(after.rlim_cur, before.rlim_max);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
}

TEST(SupervisorTest, LeavesDescriptorsForClientsAndForItself) {
  EXPECT_EQ(devicesFor(20000, 1000), 18936U);
  EXPECT_EQ(devicesFor(1064, 1000), 0U);
  EXPECT_EQ(devicesFor(10, 1000), 0U);
}

}  // namespace
}  // namespace runelgw
