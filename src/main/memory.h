// SPDX-License-Identifier: Apache-2.0
// How the daemon takes memory from the system and gives it back. Linking memory.cc also replaces
// operator new: files of a quarter of a gigabyte pass through strings and streams, and most of what
// that costs are the faults of small pages.
#ifndef ZELL_MAIN_MEMORY_H_
#define ZELL_MAIN_MEMORY_H_

namespace zell {

/// Has large blocks go back to the system as soon as they are free.
void giveMemoryBack();

}  // namespace zell

#endif  // ZELL_MAIN_MEMORY_H_
