// SPDX-License-Identifier: Apache-2.0
#include "device/linux/spawn_settings.h"

#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace zell {

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
  note(posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1));
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
