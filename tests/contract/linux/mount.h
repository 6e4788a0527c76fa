// SPDX-License-Identifier: Apache-2.0
// Mounts for the time of a test, which runs in a mount namespace of its own.
#ifndef TESTS_CONTRACT_LINUX_MOUNT_H_
#define TESTS_CONTRACT_LINUX_MOUNT_H_

#include <string>

namespace zell::test {

/// A mount that goes with this object. A mount that fails ends the test program.
class Mount {
 public:
  /// A directory in memory over @p target, with mount(8)'s options for one ("size=64k").
  static Mount memory(const std::string& target, const std::string& options = "");
  /// @p source shown at @p target too: both files or both directories.
  static Mount bind(const std::string& source, const std::string& target);

  ~Mount();
  Mount(const Mount&) = delete;
  Mount& operator=(const Mount&) = delete;

  /// Lets nobody write to it any more.
  void makeReadOnly() const;

 private:
  explicit Mount(std::string target) : target_(std::move(target)) {}
  std::string target_;
};

}  // namespace zell::test

#endif  // TESTS_CONTRACT_LINUX_MOUNT_H_
