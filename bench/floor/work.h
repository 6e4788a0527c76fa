// SPDX-License-Identifier: Apache-2.0
#ifndef ZELL_BENCH_FLOOR_WORK_H_
#define ZELL_BENCH_FLOOR_WORK_H_

#include <string>
#include <string_view>

namespace zell::bench {

/// The result of a task.
struct Outcome {
  std::string text;
  int error = 0;  ///< an errno value, 0 for success
};

/// Runs the task @p name. An unknown task succeeds with an empty text.
[[nodiscard]] Outcome runTask(std::string_view name, std::string_view first,
                              std::string_view second);

}  // namespace zell::bench

#endif  // ZELL_BENCH_FLOOR_WORK_H_
