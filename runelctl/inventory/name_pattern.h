// SPDX-License-Identifier: Apache-2.0
// Names with number ranges, and lists of them.
#ifndef RUNELCTL_INVENTORY_NAME_PATTERN_H_
#define RUNELCTL_INVENTORY_NAME_PATTERN_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <runel/result.h>

namespace runelctl {

/// The largest number of names that one pattern, one list or one inventory may have.
constexpr std::size_t kMostNames = 100000;
/// The most digits of a number of a range. More are a serial number or a hash.
constexpr std::size_t kMostRangeDigits = 9;
/// The longest pattern, in bytes.
constexpr std::size_t kLongestPattern = 1024;

/// A name with any number of ranges in brackets: "gw-[01-50,60]", "192.0.2.[11-13]:7000". A range
/// is a number or two numbers with a '-' between them. A leading zero gives all numbers of the
/// range the width of its first one.
class NamePattern {
 public:
  /// Fails for malformed ranges, for more than `kMostNames` names, and for a text that is too long.
  [[nodiscard]] static runel::Result<NamePattern> parse(std::string_view text);

  /// The number of names.
  [[nodiscard]] std::size_t size() const { return size_; }
  /// All names in the order of the ranges. The last range changes fastest.
  [[nodiscard]] std::vector<std::string> names() const;

 private:
  struct Range {
    std::uint32_t first;
    std::uint32_t last;
    std::size_t width;
  };
  /// A text, and the ranges of the number that follows it, if any.
  struct Part {
    std::string text;
    std::vector<Range> ranges;
  };

  [[nodiscard]] static runel::Result<Range> parseRange(std::string_view text);
  [[nodiscard]] static runel::Result<std::vector<Range>> parseRanges(std::string_view text);

  std::vector<Part> parts_;
  std::size_t size_ = 1;
};

/// Splits @p list at the commas outside of brackets. Omits blanks around the elements, and empty
/// elements.
[[nodiscard]] std::vector<std::string> splitList(std::string_view list);

/// The names of all patterns in @p list, a comma-separated list such as "gw-[03-09],gw-12". Fails
/// for a malformed pattern, for an empty list and for more than `kMostNames` names.
[[nodiscard]] runel::Result<std::vector<std::string>> expandList(std::string_view list);

}  // namespace runelctl

#endif  // RUNELCTL_INVENTORY_NAME_PATTERN_H_
