// SPDX-License-Identifier: Apache-2.0
#include "fleet/output_guard.h"

#include <csignal>
#include <cstdint>
#include <utility>

#include <sys/stat.h>

#include "output/standard_output.h"

namespace runelctl {
namespace {

bool isPipe(int descriptor) {
  struct stat about {};
  return fstat(descriptor, &about) == 0 && (S_ISFIFO(about.st_mode) || S_ISSOCK(about.st_mode));
}

}  // namespace

// Without an event to wait for, only the end of the pipe is reported.
OutputGuard::OutputGuard(runel::Loop& loop, std::function<void()> closed)
    : loop_(loop), before_(std::signal(SIGPIPE, SIG_IGN)) {
  const int output = StandardOutput::descriptor();
  if (isPipe(output)) {
    (void)loop_.watch(output, 0, [this, output, closed = std::move(closed)](std::uint32_t) {
      const std::function<void()> call = closed;  // this handler ends here
      loop_.forget(output);
      call();
    });
  }
}

OutputGuard::~OutputGuard() {
  loop_.forget(StandardOutput::descriptor());
  (void)std::signal(SIGPIPE, before_);
}

}  // namespace runelctl
