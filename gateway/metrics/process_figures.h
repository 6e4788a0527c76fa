// SPDX-License-Identifier: Apache-2.0
// What the kernel knows of this process.
#ifndef RUNELGW_METRICS_PROCESS_FIGURES_H_
#define RUNELGW_METRICS_PROCESS_FIGURES_H_

namespace runelgw {

struct ProcessFigures {
  double cpuSeconds = 0;
  double residentBytes = 0;
  double descriptors = 0;
  double maxDescriptors = 0;
};

[[nodiscard]] ProcessFigures processFigures();

}  // namespace runelgw

#endif  // RUNELGW_METRICS_PROCESS_FIGURES_H_
