// SPDX-License-Identifier: Apache-2.0
#include "output/name_ranges.h"

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "inventory/name_pattern.h"

namespace runelctl {
namespace {

constexpr std::size_t kLeastFolded = 3;
constexpr std::size_t kMostSpelledOut = 4;

constexpr std::string_view kDecimalDigits = "0123456789";

// A name, divided at one of its numbers.
struct Division {
  std::string form;    // equal for names that differ only in this number
  std::string digits;  // of the number
  std::size_t begin;   // of the number
};

// All divisions of @p name. None for a name that would be ambiguous within a list of ranges.
std::vector<Division> divisionsOf(const std::string& name) {
  std::vector<Division> divisions;
  if (name.find_first_of("[],") != std::string::npos) {
    return divisions;
  }
  std::size_t begin = name.find_first_of(kDecimalDigits);
  while (begin != std::string::npos) {
    const std::size_t end = std::min(name.find_first_not_of(kDecimalDigits, begin), name.size());
    if (end - begin <= kMostRangeDigits) {
      divisions.push_back(
          {name.substr(0, begin) + "[" + name.substr(end), name.substr(begin, end - begin), begin});
    }
    begin = name.find_first_of(kDecimalDigits, end);
  }
  return divisions;
}

// Whether @p next continues a range that ends with @p digits: the same width, or one digit more
// without leading zeros.
bool continuesRange(const std::string& digits, const std::string& next) {
  const bool wider =
      next.size() == digits.size() + 1 && digits.front() != '0' && next.front() != '0';
  return (next.size() == digits.size() || wider) && std::stoul(digits) + 1 == std::stoul(next);
}

// A name as a member of those with the same form.
struct NumberedName {
  std::string digits;
  std::size_t begin;  // of the digits
  std::size_t place;  // of the name in the list

  bool operator<(const NumberedName& other) const {
    return digits.size() != other.digits.size() ? digits.size() < other.digits.size()
                                                : digits < other.digits;
  }
};

using Family = std::vector<NumberedName>;

class RangeFinder {
 public:
  explicit RangeFinder(const std::vector<std::string>& names) {
    std::unordered_set<std::string> known;
    for (const std::string& name : names) {
      if (known.insert(name).second) {
        names_.push_back(name);
        for (const Division& division : divisionsOf(name)) {
          ++sizes_[division.form];
        }
      }
    }
  }

  std::string fold() {
    for (std::size_t place = 0; place < names_.size(); ++place) {
      enter(place);
    }
    for (auto& [form, family] : families_) {
      std::sort(family.begin(), family.end());
      foldFamily(family);
    }
    std::string text;
    for (const std::string& name : names_) {
      text += (text.empty() || name.empty() ? "" : ",") + name;
    }
    return text;
  }

 private:
  // Divides a name at the number in which most other names differ; the last one of several.
  void enter(std::size_t place) {
    const std::vector<Division> divisions = divisionsOf(names_[place]);
    const auto best = std::max_element(divisions.rbegin(), divisions.rend(),
                                       [&](const Division& a, const Division& b) {
                                         return sizes_.at(a.form) < sizes_.at(b.form);
                                       });
    if (best != divisions.rend()) {
      families_[best->form].push_back({best->digits, best->begin, place});
    }
  }

  void foldFamily(const Family& family) {
    std::size_t end = 0;
    for (std::size_t first = 0; first < family.size(); first = end) {
      end = first + 1;
      while (end < family.size() && continuesRange(family[end - 1].digits, family[end].digits)) {
        ++end;
      }
      if (end - first >= kLeastFolded) {
        replace(family, first, end);
      }
    }
  }

  // Puts the range in the place of its first name, and removes the others.
  void replace(const Family& family, std::size_t first, std::size_t end) {
    const NumberedName& low = family[first];
    const std::string name = names_[low.place];
    std::size_t place = low.place;
    for (std::size_t i = first; i < end; ++i) {
      place = std::min(place, family[i].place);
      names_[family[i].place].clear();
    }
    names_[place] = name.substr(0, low.begin) + "[" + low.digits + "-" + family[end - 1].digits +
                    "]" + name.substr(low.begin + low.digits.size());
  }

  std::vector<std::string> names_;  // an empty one is a part of a range
  std::unordered_map<std::string, std::size_t> sizes_;
  std::unordered_map<std::string, Family> families_;
};

}  // namespace

std::string foldNames(const std::vector<std::string>& names) {
  return RangeFinder(names).fold();
}

std::string headingNames(const std::vector<std::string>& names) {
  if (names.size() > kMostSpelledOut) {
    return foldNames(names);
  }
  std::string text;
  for (const std::string& name : names) {
    text += (text.empty() ? "" : ", ") + name;
  }
  return text;
}

}  // namespace runelctl
