// SPDX-License-Identifier: Apache-2.0
// Counts the allocations of a test program, or refuses one. Linking it replaces operator new, so
// only tests that need this link it.
#ifndef TESTS_SUPPORT_ALLOCATION_COUNT_H_
#define TESTS_SUPPORT_ALLOCATION_COUNT_H_

#include <cstddef>

namespace zell::test {

/// Counts allocations with operator new since its construction or the last `restart`. One thread.
class AllocationCount {
 public:
  AllocationCount() { restart(); }
  void restart();

  /// Calls of operator new.
  [[nodiscard]] std::size_t calls() const;
  /// Bytes of all these calls together.
  [[nodiscard]] std::size_t bytes() const;
  /// Allocated bytes now minus those at the start; below 0 if more were freed than allocated.
  [[nodiscard]] std::ptrdiff_t live() const;
  /// The maximum of `live`.
  [[nodiscard]] std::ptrdiff_t peak() const;

 private:
  std::size_t calls_ = 0;
  std::size_t bytes_ = 0;
  std::ptrdiff_t live_ = 0;
};

/// Refuses one allocation with operator new, with std::bad_alloc, while it exists.
class RefusedAllocation {
 public:
  /// Refuses the allocation after the next @p granted ones.
  explicit RefusedAllocation(std::size_t granted);
  ~RefusedAllocation();
  RefusedAllocation(const RefusedAllocation&) = delete;
  RefusedAllocation& operator=(const RefusedAllocation&) = delete;

  /// Whether the allocation has been refused.
  [[nodiscard]] static bool met();
};

}  // namespace zell::test

#endif  // TESTS_SUPPORT_ALLOCATION_COUNT_H_
