// SPDX-License-Identifier: Apache-2.0
// Mounts for the duration of a test, which runs in a private mount namespace.
#ifndef TESTS_CONTRACT_LINUX_MOUNT_H_
#define TESTS_CONTRACT_LINUX_MOUNT_H_

#include <string>

namespace zell::test {

/// A mount that the destructor removes. A failed mount ends the test program.
class Mount {
 public:
  /// A tmpfs over @p target with the options of mount(8) ("size=64k").
  static Mount memory(const std::string& target, const std::string& options = "");
  /// A bind mount of @p source at @p target: both files or both directories.
  static Mount bind(const std::string& source, const std::string& target);

  ~Mount();
  Mount(const Mount&) = delete;
  Mount& operator=(const Mount&) = delete;

  /// Remounts it read-only.
  void makeReadOnly() const;

 private:
  explicit Mount(std::string target) : target_(std::move(target)) {}
  std::string target_;
};

}  // namespace zell::test

#endif  // TESTS_CONTRACT_LINUX_MOUNT_H_
