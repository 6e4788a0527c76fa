// SPDX-License-Identifier: Apache-2.0
// Standard output of a program that must go on when nobody reads it.
#ifndef ZELL_RUNELCTL_MASTER_OUTLET_H_
#define ZELL_RUNELCTL_MASTER_OUTLET_H_

#include <cstddef>
#include <string>
#include <string_view>

#include "client/loop.h"

namespace zell::ctl {

/// Writes when the other side takes it, keeps a limited amount until then, and leaves out lines
/// beyond that.
class Outlet {
 public:
  Outlet(Loop& loop, int fd) : loop_(loop), fd_(fd) {}
  /// Writes what the other side takes at once.
  ~Outlet();
  Outlet(const Outlet&) = delete;
  Outlet& operator=(const Outlet&) = delete;

  /// Whole lines only: they are left out as a whole.
  void write(std::string_view lines);

 private:
  void flush();
  [[nodiscard]] bool writeSome();

  Loop& loop_;
  const int fd_;
  std::string waiting_;
  std::size_t leftOut_ = 0;
  bool broken_ = false;
  Loop::Timer timer_;
};

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_MASTER_OUTLET_H_
