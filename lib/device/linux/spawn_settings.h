// SPDX-License-Identifier: Apache-2.0
// The settings that a program starts with: descriptors, signals, process group.
#ifndef ZELL_DEVICE_LINUX_SPAWN_SETTINGS_H_
#define ZELL_DEVICE_LINUX_SPAWN_SETTINGS_H_

#include <spawn.h>

namespace zell {

/// The settings of posix_spawn(3) for every program that this library starts.
class SpawnSettings {
 public:
  /// Connects the program's standard output and error to @p output, borrowed until the start.
  explicit SpawnSettings(int output);
  ~SpawnSettings();
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;

  /// The errno value of the first setting that failed; 0 on success.
  [[nodiscard]] int error() const { return error_; }
  [[nodiscard]] const posix_spawn_file_actions_t* actions() const { return &actions_; }
  [[nodiscard]] const posix_spawnattr_t* attributes() const { return &attributes_; }

 private:
  void setDescriptors(int output);
  void setSignals();
  /// Stores the first error.
  void note(int error) { error_ = error_ == 0 ? error : error_; }

  posix_spawn_file_actions_t actions_{};
  posix_spawnattr_t attributes_{};
  int error_ = 0;
};

}  // namespace zell

#endif  // ZELL_DEVICE_LINUX_SPAWN_SETTINGS_H_
