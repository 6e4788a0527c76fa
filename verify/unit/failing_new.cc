// SPDX-License-Identifier: Apache-2.0
#include "verify/unit/failing_new.h"

#include <cstdlib>
#include <new>

namespace zell::test {
namespace {

long g_asked = 0;
long g_alive = 0;
long g_first = 0;
long g_times = 0;

void* allocate(std::size_t size) {
  ++g_asked;
  if (g_times > 0 && g_asked >= g_first && g_asked - g_first < g_times) {
    throw std::bad_alloc();
  }
  void* memory = std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  ++g_alive;
  return memory;
}

void release(void* memory) {
  if (memory != nullptr) {
    --g_alive;
    std::free(memory);
  }
}

}  // namespace

FailingNew::FailingNew(long first, long times) {
  g_asked = 0;
  g_first = first;
  g_times = times;
}

FailingNew::~FailingNew() {
  g_times = 0;
}

long allocationsAsked() {
  return g_asked;
}

long allocationsAlive() {
  return g_alive;
}

}  // namespace zell::test

void* operator new(std::size_t size) {
  return zell::test::allocate(size);
}

void* operator new[](std::size_t size) {
  return zell::test::allocate(size);
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
