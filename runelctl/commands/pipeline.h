// SPDX-License-Identifier: Apache-2.0
// Keeps a limited number of requests in flight to one device.
#ifndef RUNELCTL_COMMANDS_PIPELINE_H_
#define RUNELCTL_COMMANDS_PIPELINE_H_

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <runel/async_device.h>

namespace runelctl {

/// A device executes one task at a time. A pipeline saves the round trips between tasks.
class Pipeline {
 public:
  struct Item {
    runel::Request request;
    /// Bytes that it occupies in memory, on either side.
    std::size_t weight = 0;
    /// Returns false to stop after the requests in flight.
    std::function<bool(const runel::Reply& reply)> handle;
  };
  /// Returns the next item, or nothing at the end.
  using Source = std::function<std::optional<Item>()>;

  /// Calls @p end once, when the source is exhausted or an item has stopped the pipeline, and all
  /// requests in flight are answered. Keeps about @p mostBytes of weight in flight.
  Pipeline(runel::AsyncDevice& device, Source source, std::size_t mostBytes,
           std::function<void()> end);
  Pipeline(const Pipeline&) = delete;
  Pipeline& operator=(const Pipeline&) = delete;

  void start() { fill(); }

 private:
  void fill();
  void answered(const Item& item, const runel::Reply& reply);

  runel::AsyncDevice& device_;
  const Source source_;
  const std::size_t mostBytes_;
  std::function<void()> end_;
  std::size_t count_ = 0;
  std::size_t weight_ = 0;
  bool filling_ = false;
  bool dry_ = false;
};

/// Runs one program on many names, in as few runs as the argument list limit allows. "chmod 0644
/// --" with two thousand paths needs a few requests.
struct ProgramRuns {
  std::vector<std::string> words;  ///< the program and the arguments before the names
  std::vector<std::string> names;
};

/// The result of one run. `names` are its arguments.
struct ProgramRun {
  const std::string& program;
  const std::vector<std::string>& names;
  const runel::Reply& reply;
};

/// A pipeline source that executes @p runs one after the other. @p handle works as in Item.
[[nodiscard]] Pipeline::Source programSource(std::vector<ProgramRuns> runs,
                                             std::function<bool(const ProgramRun& run)> handle);

}  // namespace runelctl

#endif  // RUNELCTL_COMMANDS_PIPELINE_H_
