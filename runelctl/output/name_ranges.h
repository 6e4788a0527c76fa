// SPDX-License-Identifier: Apache-2.0
// Folds names with numbers into ranges.
#ifndef RUNELCTL_OUTPUT_NAME_RANGES_H_
#define RUNELCTL_OUTPUT_NAME_RANGES_H_

#include <string>
#include <vector>

namespace runelctl {

/// A comma-separated list of @p names in which at least three names with consecutive numbers form a
/// range: "gw-[03-09],gw-12". The command line accepts it as a list of devices. Each name occurs
/// once, and the order is that of the first name of each range. Numbers keep their width.
[[nodiscard]] std::string foldNames(const std::vector<std::string>& names);

/// For a heading: a few @p names with ", " between them, more as `foldNames`.
[[nodiscard]] std::string headingNames(const std::vector<std::string>& names);

}  // namespace runelctl

#endif  // RUNELCTL_OUTPUT_NAME_RANGES_H_
