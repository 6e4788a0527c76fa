// SPDX-License-Identifier: Apache-2.0
// Output that never blocks the program, even if it is not read.
#ifndef ZELL_RUNELCTL_CONTROL_OUTLET_H_
#define ZELL_RUNELCTL_CONTROL_OUTLET_H_

#include <cstddef>
#include <string>
#include <string_view>

#include "client/core/loop.h"

namespace zell::ctl {

/// Writes without blocking. Buffers a limited amount and drops further lines.
class Outlet {
 public:
  Outlet(Loop& loop, int fd) : loop_(loop), fd_(fd) {}
  /// Writes as much as possible without blocking.
  ~Outlet();
  Outlet(const Outlet&) = delete;
  Outlet& operator=(const Outlet&) = delete;

  /// Writes complete lines, which are dropped together.
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

#endif  // ZELL_RUNELCTL_CONTROL_OUTLET_H_
