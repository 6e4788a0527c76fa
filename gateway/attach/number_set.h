// SPDX-License-Identifier: Apache-2.0
// The numbers that were used.
#ifndef RUNELGW_ATTACH_NUMBER_SET_H_
#define RUNELGW_ATTACH_NUMBER_SET_H_

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <map>

namespace runelgw {

/// A set of numbers, most of which are neighbours. Small, because it holds their ranges.
class NumberSet {
 public:
  [[nodiscard]] bool has(std::uint32_t number) const {
    const auto next = ranges_.upper_bound(number);
    return next != ranges_.begin() && std::prev(next)->second >= number;
  }

  /// Adds @p number, which it does not have.
  void add(std::uint32_t number) {
    std::uint32_t first = number;
    std::uint32_t last = number;
    auto next = ranges_.upper_bound(number);
    if (next != ranges_.begin() && std::prev(next)->second == number - 1) {
      first = std::prev(next)->first;
    }
    if (next != ranges_.end() && next->first - 1 == number) {
      last = next->second;
      ranges_.erase(next);
    }
    ranges_[first] = last;
  }

  [[nodiscard]] std::size_t ranges() const { return ranges_.size(); }

 private:
  std::map<std::uint32_t, std::uint32_t> ranges_;  // the first and the last number of each
};

}  // namespace runelgw

#endif  // RUNELGW_ATTACH_NUMBER_SET_H_
