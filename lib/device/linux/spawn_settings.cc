// SPDX-License-Identifier: Apache-2.0
#include "device/linux/spawn_settings.h"

#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#ifndef __GLIBC__
#include <cerrno>
#include <string>
#include <vector>

#include <sys/syscall.h>

#include "device/linux/directory_names.h"
#endif

namespace zell {
namespace {

// Closes all descriptors but the standard streams in the program.
#ifdef __GLIBC__
int closeOthers(posix_spawn_file_actions_t& actions) {
  return posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
}
#else
// Other C libraries lack the action. The same effect: all descriptors become close-on-exec here,
// which those of the daemon are already. Kernels before 5.11 refuse the call.
int closeOthers(posix_spawn_file_actions_t& /*actions*/) {
  constexpr unsigned kCloseOnExec = 4;  // CLOSE_RANGE_CLOEXEC
  if (syscall(SYS_close_range, STDERR_FILENO + 1, ~0U, kCloseOnExec) == 0) {
    return 0;
  }
  std::vector<std::string> names;
  const int error = readNames("/proc/self/fd", names);
  for (const std::string& name : names) {
    const int fd = std::stoi(name);
    if (fd > STDERR_FILENO) {
      (void)fcntl(fd, F_SETFD, FD_CLOEXEC);  // fails for the descriptor that read the names
    }
  }
  return error == ENOENT ? 0 : error;
}
#endif

}  // namespace

SpawnSettings::SpawnSettings(int output) {
  note(posix_spawn_file_actions_init(&actions_));
  note(posix_spawnattr_init(&attributes_));
  setDescriptors(output);
  setSignals();
  note(posix_spawnattr_setpgroup(&attributes_, 0));  // a separate process group
  constexpr int kFlags = POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK;
  note(posix_spawnattr_setflags(&attributes_, static_cast<short>(kFlags)));
}

SpawnSettings::~SpawnSettings() {
  posix_spawnattr_destroy(&attributes_);
  posix_spawn_file_actions_destroy(&actions_);
}

void SpawnSettings::setDescriptors(int output) {
  // Standard input comes last, because `output` itself may be descriptor 0.
  note(posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO));
  note(posix_spawn_file_actions_adddup2(&actions_, output, STDERR_FILENO));
  note(posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0));
  note(closeOthers(actions_));
}

void SpawnSettings::setSignals() {
  // Not sigfillset: it omits the two signals that the C library reserves, and a program would be
  // started with those ignored.
  sigset_t all;
  std::memset(&all, 0xff, sizeof all);
  note(posix_spawnattr_setsigdefault(&attributes_, &all));
  sigset_t none;
  sigemptyset(&none);
  note(posix_spawnattr_setsigmask(&attributes_, &none));
}

}  // namespace zell
