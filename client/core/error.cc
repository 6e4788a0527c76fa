// SPDX-License-Identifier: Apache-2.0
#include "client/core/error.h"

#include <cerrno>
#include <system_error>

namespace runel {

const char* Error::where() const {
  switch (fault) {
    case Fault::task:
      return "device";
    case Fault::program:
      return "program";
    case Fault::local:
    case Fault::cancelled:
      return "local";
    default:
      return "link";
  }
}

bool Error::retry() const {
  switch (fault) {
    case Fault::unreachable:
    case Fault::lost:
    case Fault::timedOut:
    case Fault::cancelled:
      return true;
    case Fault::task:
      return number == EAGAIN || number == EBUSY || number == EINTR || number == ENOMEM ||
             number == EMFILE || number == ENFILE;
    default:
      return false;
  }
}

std::string systemText(int number) {
  return std::generic_category().message(number);
}

Error localError(const std::string& name, int number) {
  return {Fault::local, name + ": " + systemText(number), "", number};
}

}  // namespace runel
