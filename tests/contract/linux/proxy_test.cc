// SPDX-License-Identifier: Apache-2.0
#include "contract/linux/proxy_test.h"

#include <ctime>
#include <fstream>
#include <thread>

namespace zell::test {

std::ostringstream streamOf(const std::string& text) {
  std::ostringstream stream;
  stream << text;
  return stream;
}

std::chrono::nanoseconds processorTime() {
  timespec time{};
  EXPECT_EQ(clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time), 0);
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

bool becomesTrue(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

std::string stateOf(int pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  std::getline(in, line);
  const std::size_t end = line.rfind(") ");
  return end == std::string::npos ? "" : line.substr(end + 2, 1);
}

bool lives(int pid) {
  const std::string state = stateOf(pid);
  return !state.empty() && state != "Z";
}

struct stat statusOf(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(lstat(path.c_str(), &st), 0) << path;
  return st;
}

std::string ProxyTest::write(const std::string& path, const std::string& data) {
  (void)proxy_.writeFile(path, streamOf(data));
  return fields(proxy_);
}

std::string ProxyTest::append(const std::string& path, const std::string& data) {
  (void)proxy_.appendFile(path, streamOf(data));
  return fields(proxy_);
}

std::string ProxyTest::read(const std::string& path) {
  std::istringstream content;
  (void)proxy_.readFile(path, content);
  text_ = content.str();
  return fields(proxy_);
}

std::string ProxyTest::shell(const std::string& script, int limit) {
  (void)proxy_.system(script, limit);
  return fields(proxy_);
}

}  // namespace zell::test
