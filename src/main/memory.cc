// SPDX-License-Identifier: Apache-2.0
#include "main/memory.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>

#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

namespace zell {
namespace {

constexpr std::size_t kMiB = 1048576;

// Blocks from here on come from the system one by one. Smaller ones are frequent: they would cost
// the faults of new pages each time.
constexpr int kLargeBlock = kMiB;
// Blocks from here on are several of the usual large pages.
constexpr std::size_t kHugeBlock = 8 * kMiB;

// Asks for large pages under a new block: a hint, without effect where the kernel has none.
void preferLargePages(void* block, std::size_t size) {
  const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
  const auto begin = reinterpret_cast<std::uintptr_t>(block);
  const std::uintptr_t firstPage = (begin + page - 1) / page * page;
  (void)madvise(reinterpret_cast<void*>(firstPage), begin + size - firstPage, MADV_HUGEPAGE);
}

}  // namespace

// Left alone, the C library raises the first threshold to the largest block it has seen and keeps
// the next ones for itself: a device that was once sent a large file is short of its memory for
// good.
void giveMemoryBack() {
  (void)mallopt(M_MMAP_THRESHOLD, kLargeBlock);
  (void)mallopt(M_TRIM_THRESHOLD, kLargeBlock);
}

}  // namespace zell

void* operator new(std::size_t size) {
  void* const block = std::malloc(size != 0 ? size : 1);
  if (block == nullptr) {
    throw std::bad_alloc();
  }
  if (size >= zell::kHugeBlock) {
    zell::preferLargePages(block, size);
  }
  return block;
}

void operator delete(void* block) noexcept {
  std::free(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept {
  std::free(block);
}
