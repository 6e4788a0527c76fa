// SPDX-License-Identifier: Apache-2.0
// The facts of devices as metrics, in the text format that Prometheus reads.
#ifndef RUNELCTL_PROBE_EXPOSITION_H_
#define RUNELCTL_PROBE_EXPOSITION_H_

#include <string>
#include <string_view>
#include <vector>

#include "probe/facts.h"

namespace runelctl {

/// All metrics of @p facts. Facts that a device does not tell have no line.
[[nodiscard]] std::string metricsText(const std::vector<Facts>& facts);

/// @p value between the quotes of a label: valid UTF-8, with escapes.
[[nodiscard]] std::string labelText(std::string_view value);

/// Replaces the file @p path by @p text: readers see the old or the new content. Everyone may read
/// the new file. Returns 0 or an errno value.
[[nodiscard]] int replaceMetricsFile(const std::string& path, const std::string& text);

}  // namespace runelctl

#endif  // RUNELCTL_PROBE_EXPOSITION_H_
