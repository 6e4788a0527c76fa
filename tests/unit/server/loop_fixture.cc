// SPDX-License-Identifier: Apache-2.0
#include "unit/server/loop_fixture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zell::test {

Fifo::Fifo(const TempDir& directory, const std::string& name) : path_(directory.file(name)) {
  EXPECT_EQ(mkfifo(path_.c_str(), 0600), 0);
  end_.reset(open(path_.c_str(), O_RDWR | O_CLOEXEC));
}

void Fifo::write(const std::string& bytes) const {
  EXPECT_EQ(::write(end_.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

std::string readFrom(int fd) {
  char bytes[64];
  const ssize_t got = read(fd, bytes, sizeof bytes);
  return std::string(bytes, got > 0 ? static_cast<std::size_t>(got) : 0);
}

int ServerLoop::listener(int port) const {
  for (const auto& [socket, number] : server_.m_listeners) {
    if (number == port) {
      return socket;
    }
  }
  return -1;
}

void HostLoop::SetUp() {
  ServerLoop::SetUp();
  master_ = listenOn(kMasterPort);
  server_.add_host("127.0.0.1", kMasterPort);
}

void HostLoop::TearDown() {
  master_.reset();
  ServerLoop::TearDown();
}

}  // namespace zell::test
