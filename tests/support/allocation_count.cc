// SPDX-License-Identifier: Apache-2.0
#include "support/allocation_count.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>

#include <malloc.h>

namespace zell::test {
namespace {

// A test's other threads allocate too.
std::atomic<std::size_t> g_calls{0};
std::atomic<std::size_t> g_bytes{0};
std::atomic<std::ptrdiff_t> g_live{0};
std::atomic<std::ptrdiff_t> g_peak{0};
constexpr std::ptrdiff_t kAll = -1;            // grant all allocations
thread_local std::ptrdiff_t t_granted = kAll;  // until one is refused
thread_local bool t_refused = false;

bool refuses() {
  if (t_granted == kAll || t_refused) {
    return false;
  }
  t_refused = t_granted == 0;
  t_granted -= t_refused ? 0 : 1;
  return t_refused;
}

void* allocateOrNull(std::size_t size) noexcept {
  void* memory = refuses() ? nullptr : std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) {
    return nullptr;
  }
  ++g_calls;
  g_bytes += size;
  g_live += static_cast<std::ptrdiff_t>(malloc_usable_size(memory));
  g_peak = std::max(g_peak.load(), g_live.load());
  return memory;
}

void* allocate(std::size_t size) {
  void* memory = allocateOrNull(size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

void release(void* memory) {
  if (memory != nullptr) {
    g_live -= static_cast<std::ptrdiff_t>(malloc_usable_size(memory));
    std::free(memory);
  }
}

}  // namespace

void AllocationCount::restart() {
  calls_ = g_calls;
  bytes_ = g_bytes;
  live_ = g_live;
  g_peak = g_live.load();
}

std::size_t AllocationCount::calls() const {
  return g_calls - calls_;
}

std::size_t AllocationCount::bytes() const {
  return g_bytes - bytes_;
}

std::ptrdiff_t AllocationCount::live() const {
  return g_live - live_;
}

std::ptrdiff_t AllocationCount::peak() const {
  return g_peak - live_;
}

RefusedAllocation::RefusedAllocation(std::size_t granted) {
  t_refused = false;
  t_granted = static_cast<std::ptrdiff_t>(granted);
}

RefusedAllocation::~RefusedAllocation() {
  t_granted = kAll;
}

bool RefusedAllocation::met() {
  return t_refused;
}

}  // namespace zell::test

void* operator new(std::size_t size) {
  return zell::test::allocate(size);
}

void* operator new[](std::size_t size) {
  return zell::test::allocate(size);
}

// The address sanitizer has its own, which do not call those above.
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return zell::test::allocateOrNull(size);
}

void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return zell::test::allocateOrNull(size);
}

void operator delete(void* memory) noexcept {
  zell::test::release(memory);
}

void operator delete[](void* memory) noexcept {
  zell::test::release(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
  zell::test::release(memory);
}

void operator delete[](void* memory, std::size_t /*size*/) noexcept {
  zell::test::release(memory);
}
