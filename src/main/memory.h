// SPDX-License-Identifier: Apache-2.0
#ifndef ZELL_MAIN_MEMORY_H_
#define ZELL_MAIN_MEMORY_H_

namespace zell {

/// Has blocks of a megabyte and more go back to the system as soon as they are free.
void giveMemoryBack();

}  // namespace zell

#endif  // ZELL_MAIN_MEMORY_H_
