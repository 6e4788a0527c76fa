// SPDX-License-Identifier: Apache-2.0
#include "fakes/system/fake_system.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "base/system.h"

namespace zell::test {

FakeSystem& FakeSystem::instance() {
  static FakeSystem system;
  return system;
}

}  // namespace zell::test

namespace zell::sys {
namespace {

test::FakeSystem& fake() {
  return test::FakeSystem::instance();
}

void record(const std::string& call) {
  fake().calls.push_back(call);
}

// Fills @p found with the test's addresses; null if there are no addresses.
hostent* foundRecord(hostent* found) {
  static std::vector<char*> list;
  list.clear();
  for (in_addr& address : fake().lookupAddresses) {
    list.push_back(reinterpret_cast<char*>(&address));
  }
  list.push_back(nullptr);
  found->h_addrtype = AF_INET;
  found->h_length = sizeof(in_addr);
  found->h_addr_list = list.data();
  return fake().lookupAddresses.empty() ? nullptr : found;
}

}  // namespace

int reboot(int command) {
  std::ostringstream call;
  call << "reboot 0x" << std::hex << command;
  record(call.str());
  errno = fake().rebootErrno;
  return fake().rebootResult;
}

void sync() {
  record("sync");
}

unsigned sleep(unsigned seconds) {
  record("sleep " + std::to_string(seconds));
  fake().now += fake().sleepTakes ? fake().sleepTakes(seconds) : std::chrono::seconds(seconds);
  return 0;
}

std::FILE* popen(const char* command, const char* mode) {
  record(std::string("popen ") + command + " " + mode);
  if (fake().popenFails) {
    return nullptr;
  }
  std::FILE* stream = std::tmpfile();
  std::fwrite(fake().popenOutput.data(), 1, fake().popenOutput.size(), stream);
  std::rewind(stream);
  return stream;
}

int pclose(std::FILE* stream) {
  record(stream == nullptr ? "pclose null" : "pclose");
  return stream == nullptr ? -1 : std::fclose(stream);
}

int system(const char* command) {
  record(std::string("system ") + command);
  errno = fake().systemErrno;
  return fake().systemResult;
}

pid_t fork() {
  record("fork");
  return fake().forkResult;
}

int kill(pid_t pid, int signal) {
  record("kill " + std::to_string(pid) + " " + std::to_string(signal));
  const auto& living = fake().living;
  if (signal == 0 && std::find(living.begin(), living.end(), pid) == living.end()) {
    errno = ESRCH;
    return -1;
  }
  return 0;
}

void exit(int status) {
  record("exit " + std::to_string(status));
  throw test::ProcessExit{status};
}

int gethostbyname_r(const char* name, hostent* record_, char* work, std::size_t size,
                    hostent** result, int* error) {
  if (!fake().fakeLookup) {
    return ::gethostbyname_r(name, record_, work, size, result, error);
  }
  fake().lookupSizes.push_back(size);
  *error = fake().lookupError;
  *result = foundRecord(record_);
  return fake().lookupResult;
}

std::chrono::nanoseconds monotonicTime() {
  return fake().clock ? fake().clock() : fake().now;
}

std::chrono::nanoseconds monotonicTickTime() {
  return monotonicTime();
}

}  // namespace zell::sys
