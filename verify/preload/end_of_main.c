// SPDX-License-Identifier: Apache-2.0
// Coverage builds: a return from main() calls the replaced exit() too. libc's own call of exit()
// cannot be replaced, and a failure while the counts are written would damage their files.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdlib.h>

#include "state.h"

typedef int Main(int count, char** words, char** variables);
typedef void Hook(void);
typedef int StartMain(Main* program, int count, char** words, Hook* first, Hook* last, Hook* linker,
                      void* stack);

StartMain __libc_start_main;

static Main* started;

static int run_and_exit(int count, char** words, char** variables) {
  exit(started(count, words, variables));
}

VISIBLE int __libc_start_main(Main* program, int count, char** words, Hook* first, Hook* last,
                              Hook* linker, void* stack) {
  StartMain* const next = (StartMain*)dlsym(RTLD_NEXT, "__libc_start_main");
  started = program;
  return next(run_and_exit, count, words, first, last, linker, stack);
}
