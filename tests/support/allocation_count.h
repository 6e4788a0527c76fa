// SPDX-License-Identifier: Apache-2.0
// Counts what a test program allocates. Linking it replaces operator new, so only tests that ask
// about memory do.
#ifndef TESTS_SUPPORT_ALLOCATION_COUNT_H_
#define TESTS_SUPPORT_ALLOCATION_COUNT_H_

#include <cstddef>

namespace zell::test {

/// What was allocated with operator new since its construction, or the last `restart`. One thread.
class AllocationCount {
 public:
  AllocationCount() { restart(); }
  void restart();

  /// Calls of operator new.
  [[nodiscard]] std::size_t calls() const;
  /// Bytes of all these calls together.
  [[nodiscard]] std::size_t bytes() const;
  /// Bytes alive now beyond those at the start; below 0 when more was given back than taken.
  [[nodiscard]] std::ptrdiff_t live() const;
  /// The most that was alive at one time beyond the start.
  [[nodiscard]] std::ptrdiff_t peak() const;

 private:
  std::size_t calls_ = 0;
  std::size_t bytes_ = 0;
  std::ptrdiff_t live_ = 0;
};

}  // namespace zell::test

#endif  // TESTS_SUPPORT_ALLOCATION_COUNT_H_
