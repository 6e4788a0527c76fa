// SPDX-License-Identifier: Apache-2.0
#include "contract/linux/silent_reader.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <utility>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "contract/linux/proxy_test.h"

namespace zell::test {

SilentReader::SilentReader(UniqueFd fd, std::string path)
    : fd_(std::move(fd)), path_(std::move(path)) {}

SilentReader SilentReader::ofFifo(const std::string& path) {
  EXPECT_EQ(mkfifo(path.c_str(), 0644), 0);
  return {UniqueFd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)), path};
}

SilentReader SilentReader::ofTerminal() {
  UniqueFd fd(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  EXPECT_TRUE(grantpt(fd.get()) == 0 && unlockpt(fd.get()) == 0);
  std::string path = ptsname(fd.get());
  return {std::move(fd), std::move(path)};
}

std::string SilentReader::take() const {
  std::string taken;
  char piece[4096];
  ssize_t length = 0;
  while ((length = read(fd_.get(), piece, sizeof piece)) > 0) {
    taken.append(piece, static_cast<std::size_t>(length));
  }
  return taken;
}

void expectGivesUp(const SilentReader& reader,
                   const std::function<std::string(const std::string& data)>& task) {
  std::string data(1000000, 'a');
  for (std::size_t i = 0; i < data.size(); ++i) {
    data[i] = static_cast<char>('a' + i % 23);
  }
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(task(data), failureWith(EAGAIN));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  const std::string taken = reader.take();
  EXPECT_FALSE(taken.empty());
  EXPECT_LT(taken.size(), data.size());
  EXPECT_TRUE(data.compare(0, taken.size(), taken) == 0) << "what was written";
}

}  // namespace zell::test
