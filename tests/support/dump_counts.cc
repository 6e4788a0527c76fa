// SPDX-License-Identifier: Apache-2.0
// Linked into the runelctl of a coverage build, whose counts are written at exit: ends without
// exit() write them too.
#include <csignal>

#include <unistd.h>

extern "C" {

void __gcov_dump();
void __gcov_reset();
int __real_raise(int number);
[[noreturn]] void __real__exit(int status);

int __wrap_raise(int number) {
  __gcov_dump();
  __gcov_reset();  // the process may continue and count again
  return __real_raise(number);
}

// A handler of signals, which must not do this, exits with 0.
[[noreturn]] void __wrap__exit(int status) {
  if (status != 0) {
    __gcov_dump();
  }
  __real__exit(status);
}
}
