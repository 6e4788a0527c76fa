// SPDX-License-Identifier: Apache-2.0
// Preloaded into a daemon under test: the first select() of its loop throws the exception that
// RUNELD_THROW names, outside every guard of the loop.
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include <sys/select.h>

namespace outer {

struct OddError : std::logic_error {
  using std::logic_error::logic_error;
};

}  // namespace outer

extern "C" int select(int /*count*/, fd_set* /*reading*/, fd_set* /*writing*/,
                      fd_set* /*exceptional*/, timeval* /*timeout*/) {
  const char* what = std::getenv("RUNELD_THROW");
  if (what != nullptr && std::strcmp(what, "number") == 0) {
    throw 7;
  }
  throw outer::OddError("100 %s of it: %m");
}
