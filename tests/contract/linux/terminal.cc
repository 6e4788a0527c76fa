// SPDX-License-Identifier: Apache-2.0
#include "contract/linux/terminal.h"

#include <cstdlib>

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

namespace zell::test {

Terminal::Terminal() : master_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
  const bool made = setsid() > 0 && master_.valid() && grantpt(master_.get()) == 0 &&
                    unlockpt(master_.get()) == 0 && write(master_.get(), "line\n", 5) == 5;
  path_ = made ? ptsname(master_.get()) : "no terminal";
}

std::string Terminal::ownership() const {
  return tcgetsid(master_.get()) == getpid() ? ", this process's" : ", unowned";
}

}  // namespace zell::test
