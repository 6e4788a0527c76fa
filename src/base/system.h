// SPDX-License-Identifier: Apache-2.0
// The system calls that a test cannot let happen, or whose time or answers it must choose. One
// function each, without logic; tests link tests/fakes/system in place of system.cc. Sockets, files
// and pipes are not here: tests use real ones.
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
/// sleep(3): the seconds that were left when a signal came.
unsigned sleep(unsigned seconds);
/// popen(3), the stream close-on-exec.
std::FILE* popen(const char* command, const char* mode);
/// pclose(3); a null @p stream does nothing and answers -1.
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
/// Time since some fixed point, not moved by changes of the wall clock.
std::chrono::nanoseconds monotonicTime();
/// The same as of the kernel's last tick, some milliseconds ago, at a third of the cost: for what a
/// pass of the loop asks once for each connection.
std::chrono::nanoseconds monotonicTickTime();

}  // namespace zell::sys

#endif  // ZELL_BASE_SYSTEM_H_
