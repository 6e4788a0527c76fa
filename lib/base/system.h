// SPDX-License-Identifier: Apache-2.0
// The system calls that a test must not make for real, or whose time or results a test must choose.
// One function each, without logic: tests link tests/fakes/system in place of system.cc. Sockets,
// files and pipes are not included, because tests use real ones.
#ifndef ZELL_BASE_SYSTEM_H_
#define ZELL_BASE_SYSTEM_H_

#include <chrono>
#include <cstdio>
#include <string>

#include <netdb.h>
#include <sys/types.h>

namespace zell::sys {

/// reboot(2) with @p command.
int reboot(int command);
/// sync(2).
void sync();
/// sleep(3): returns the seconds left when a signal interrupted it.
unsigned sleep(unsigned seconds);
/// popen(3). The stream is close-on-exec.
std::FILE* popen(const char* command, const char* mode);
/// pclose(3). Does nothing for a null @p stream and returns -1.
int pclose(std::FILE* stream);
/// system(3).
int system(const char* command);
/// fork(2).
pid_t fork();
/// kill(2).
int kill(pid_t pid, int signal);
/// exit(3).
[[noreturn]] void exit(int status);
/// gethostbyname_r(3).
int gethostbyname_r(const char* name, hostent* record, char* work, std::size_t size,
                    hostent** result, int* error);
/// Time since a fixed point, independent of changes of the wall clock.
std::chrono::nanoseconds monotonicTime();
/// The same time as of the kernel's last tick, some milliseconds ago, at a third of the cost. For
/// callers that ask once for each connection in a pass of the loop.
std::chrono::nanoseconds monotonicTickTime();

}  // namespace zell::sys

#endif  // ZELL_BASE_SYSTEM_H_
