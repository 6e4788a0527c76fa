// SPDX-License-Identifier: Apache-2.0
#include "main/memory.h"

#include <malloc.h>

namespace zell {

// Left alone, the C library raises the limit from which blocks come from the system one by one to
// the largest it has seen, and keeps the next ones for itself: a device that was once sent a large
// file is short of its memory for good. Smaller blocks are frequent, and would cost the faults of
// new pages each time.
void giveMemoryBack() {
  constexpr int kLargeBlock = 1048576;
  (void)mallopt(M_MMAP_THRESHOLD, kLargeBlock);
  (void)mallopt(M_TRIM_THRESHOLD, kLargeBlock);
}

}  // namespace zell
