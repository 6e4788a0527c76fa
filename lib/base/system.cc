// SPDX-License-Identifier: Apache-2.0
#include "base/system.h"

#include <cstdlib>
#include <ctime>

#include <sys/reboot.h>
#include <unistd.h>
#include <csignal>

namespace zell::sys {
namespace {

std::chrono::nanoseconds timeOf(clockid_t clock) {
  timespec now{};
  (void)clock_gettime(clock, &now);  // cannot fail with a valid clock and address
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

}  // namespace

int reboot(int command) {
  return ::reboot(command);
}

void sync() {
  ::sync();
}

unsigned sleep(unsigned seconds) {
  return ::sleep(seconds);
}

std::FILE* popen(const char* command, const char* mode) {
  const std::string closeOnExec = std::string(mode) + "e";
  return ::popen(command, closeOnExec.c_str());
}

int pclose(std::FILE* stream) {
  return stream == nullptr ? -1 : ::pclose(stream);
}

int system(const char* command) {
  return std::system(command);
}

pid_t fork() {
  return ::fork();
}

int kill(pid_t pid, int signal) {
  return ::kill(pid, signal);
}

void exit(int status) {
  std::exit(status);
}

int gethostbyname_r(const char* name, hostent* record, char* work, std::size_t size,
                    hostent** result, int* error) {
  return ::gethostbyname_r(name, record, work, size, result, error);
}

std::chrono::nanoseconds monotonicTime() {
  return timeOf(CLOCK_MONOTONIC);
}

std::chrono::nanoseconds monotonicTickTime() {
  return timeOf(CLOCK_MONOTONIC_COARSE);
}

}  // namespace zell::sys
