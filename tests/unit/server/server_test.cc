// SPDX-License-Identifier: Apache-2.0
#include "unit/server/server_test.h"

#include <algorithm>

#include <fcntl.h>
#include <syslog.h>

#include "server/server_base.h"
#include "unit/server/peers.h"

namespace zell::test {
namespace {

constexpr int kTouchedSignals[] = {SIGTERM, SIGQUIT, SIGABRT, SIGINT, SIGPIPE, SIGALRM};

std::string levelName(int priority) {
  static const char* const kNames[] = {"EMERG",   "ALERT",  "CRIT", "ERR",
                                       "WARNING", "NOTICE", "INFO", "DEBUG"};
  return kNames[LOG_PRI(priority)];
}

}  // namespace

int lastNumber(const std::string& line) {
  return std::stoi(line.substr(line.find_last_not_of("0123456789") + 1));
}

bool isOpen(int fd) {
  return fcntl(fd, F_GETFD) != -1;
}

ServerTest::ServerTest() {
  for (const int number : kTouchedSignals) {
    sigaction(number, nullptr, &before_[number]);
  }
}

ServerTest::~ServerTest() {
  for (const int number : kTouchedSignals) {
    sigaction(number, &before_[number], nullptr);
  }
}

void ServerTest::SetUp() {
  sys.reset();
  ServerBase::s_run = false;
  ServerBase::s_signal = -1;
  descriptors_ = openDescriptors();
}

void ServerTest::TearDown() {
  EXPECT_EQ(openDescriptors(), descriptors_);
  ServerBase::s_run = false;
}

std::vector<std::string> ServerTest::lines() {
  std::vector<std::string> all;
  for (const LogEntry& entry : log.entries()) {
    all.push_back(levelName(entry.priority) + " " + entry.text);
  }
  log.clear();
  return all;
}

std::vector<std::string> ServerTest::linesAboveDebug() {
  std::vector<std::string> some = lines();
  some.erase(std::remove_if(some.begin(), some.end(),
                            [](const std::string& line) { return line.rfind("DEBUG", 0) == 0; }),
             some.end());
  return some;
}

}  // namespace zell::test
