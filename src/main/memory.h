// SPDX-License-Identifier: Apache-2.0
#ifndef ZELL_MAIN_MEMORY_H_
#define ZELL_MAIN_MEMORY_H_

namespace zell {

/// Makes the allocator return freed blocks of 1 MiB and more to the system at once.
void giveMemoryBack();

}  // namespace zell

#endif  // ZELL_MAIN_MEMORY_H_
