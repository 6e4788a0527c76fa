// SPDX-License-Identifier: Apache-2.0
#include "main/memory.h"

#include <malloc.h>

namespace zell {

// By default, glibc raises its mmap threshold to the largest block freed so far and then
// keeps later blocks of that size. A device that once received a large file would lose that memory
// permanently. Smaller blocks are frequent, and mapping each of them would cost page faults. musl
// has no such setting: it maps each block of 128 KiB and more, and returns it at once.
void giveMemoryBack() {
#ifdef __GLIBC__
  constexpr int kLargeBlock = 1048576;
  (void)mallopt(M_MMAP_THRESHOLD, kLargeBlock);
  (void)mallopt(M_TRIM_THRESHOLD, kLargeBlock);
#endif
}

}  // namespace zell
