// SPDX-License-Identifier: Apache-2.0
#include "contract/linux/mount.h"

#include <cstdio>
#include <cstdlib>

#include <sys/mount.h>

namespace zell::test {
namespace {

void require(int result, const std::string& target) {
  if (result != 0) {
    std::perror(target.c_str());
    std::abort();
  }
}

// The tests of this directory mount, signal and rewrite: they must not run outside a world.
const bool g_inWorld = [] {
  if (std::getenv("RUNELD_WORLD") == nullptr) {
    std::fputs("this test runs inside scripts/world only\n", stderr);
    std::exit(125);
  }
  return true;
}();

}  // namespace

Mount Mount::memory(const std::string& target, const std::string& options) {
  require(mount("tmpfs", target.c_str(), "tmpfs", 0, options.c_str()), target);
  return Mount(target);
}

Mount Mount::bind(const std::string& source, const std::string& target) {
  require(mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr), target);
  return Mount(target);
}

Mount::~Mount() {
  (void)umount2(target_.c_str(), MNT_DETACH);
}

void Mount::makeReadOnly() const {
  require(mount(nullptr, target_.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr),
          target_);
}

}  // namespace zell::test
