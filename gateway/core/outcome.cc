// SPDX-License-Identifier: Apache-2.0
#include "gateway/core/outcome.h"

#include <cstddef>

namespace runelgw {

const char* nameOf(Outcome outcome) {
  switch (outcome) {
    case Outcome::notRun:
      return "not run";
    case Outcome::answered:
      return "answered";
    case Outcome::unknown:
      break;
  }
  return "unknown whether it ran";
}

const char* codeOf(Reason reason) {
  static constexpr const char* kCodes[] = {"none",        "offline", "busy",     "deadline",
                                           "quarantined", "waiting", "denied",   "lost",
                                           "too-large",   "storage", "stopping", "refused"};
  return kCodes[static_cast<std::size_t>(reason)];
}

}  // namespace runelgw
