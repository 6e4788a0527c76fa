// SPDX-License-Identifier: Apache-2.0
// Numbers as texts, independent of the locale.
#ifndef RUNELCTL_PROBE_NUMBER_TEXT_H_
#define RUNELCTL_PROBE_NUMBER_TEXT_H_

#include <cstdio>
#include <string>

namespace runelctl {

/// @p value with @p digits after the point.
[[nodiscard]] inline std::string decimalText(double value, int digits) {
  char text[400];  // the largest double has 309 digits
  (void)std::snprintf(text, sizeof text, "%.*f", digits, value);
  return text;
}

/// @p value with as many digits as it needs, such as "0.5" or "300".
[[nodiscard]] inline std::string shortText(double value) {
  char text[40];
  (void)std::snprintf(text, sizeof text, "%.15g", value);
  return text;
}

}  // namespace runelctl

#endif  // RUNELCTL_PROBE_NUMBER_TEXT_H_
