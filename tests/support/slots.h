// SPDX-License-Identifier: Apache-2.0
// The vtable slots of a class.
#ifndef TESTS_SUPPORT_SLOTS_H_
#define TESTS_SUPPORT_SLOTS_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <type_traits>
#include <vector>

namespace zell::test {

/// The two slots of a virtual destructor.
constexpr int kDestructors = 2;

/// The vtable slot of @p operation, -1 if it is not virtual. The type selects an overload:
/// slotOf<int(bool)>(&Class::operation).
///
/// In the C++ ABI of GCC and Clang a pointer to a member contains the offset in the vtable and a
/// bit that distinguishes it from an address. On ARM and MIPS addresses may be odd, so the bit is
/// in the second word there.
template <typename Function, typename Class>
int slotOf(Function Class::*operation) {
  static_assert(std::is_function_v<Function>);
  std::intptr_t words[2];
  static_assert(sizeof words == sizeof operation);
  std::memcpy(words, &operation, sizeof words);
#if defined(__arm__) || defined(__aarch64__) || defined(__mips__)
  const std::intptr_t mark = words[1] & 1;
  const std::intptr_t offset = words[0];
#else
  const std::intptr_t mark = words[0] & 1;
  const std::intptr_t offset = words[0] - mark;
#endif
  return mark != 0 ? static_cast<int>(offset / static_cast<std::intptr_t>(sizeof(void*))) : -1;
}

/// The numbers of @p count slots after the destructors.
inline std::vector<int> slotsBehindDestructors(std::size_t count) {
  std::vector<int> slots(count);
  std::iota(slots.begin(), slots.end(), kDestructors);
  return slots;
}

}  // namespace zell::test

#endif  // TESTS_SUPPORT_SLOTS_H_
