// SPDX-License-Identifier: Apache-2.0
// Keeps many requests on the way to one device, but not too many.
#ifndef ZELL_RUNELCTL_COMMANDS_PIPELINE_H_
#define ZELL_RUNELCTL_COMMANDS_PIPELINE_H_

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "client/device.h"

namespace zell::ctl {

/// A device works on one task at a time, so a pipeline saves the round trips between them.
class Pipeline {
 public:
  struct Item {
    Request request;
    /// Bytes that it keeps in memory, here or there.
    std::size_t weight = 0;
    /// False: ask for nothing more and end.
    std::function<bool(const Reply& reply)> handle;
  };
  /// The next item; nothing when there is none.
  using Source = std::function<std::optional<Item>()>;

  /// Calls @p end once, when the source has no more and all is answered, or when an item ended it
  /// and what was on the way is answered. About @p mostBytes of weight are on the way at a time.
  Pipeline(Device& device, Source source, std::size_t mostBytes, std::function<void()> end);
  Pipeline(const Pipeline&) = delete;
  Pipeline& operator=(const Pipeline&) = delete;

  void start() { fill(); }

 private:
  void fill();
  void answered(const Item& item, const Reply& reply);

  Device& device_;
  const Source source_;
  const std::size_t mostBytes_;
  std::function<void()> end_;
  std::size_t count_ = 0;
  std::size_t weight_ = 0;
  bool filling_ = false;
  bool dry_ = false;
};

/// Runs one program on many names: as few runs as the length of an argument list allows.
/// "chmod 0644 --" and two thousand paths are a handful of requests.
struct ProgramRuns {
  std::vector<std::string> words;  ///< the program and what comes before the names
  std::vector<std::string> names;
};

/// What came of one run. `names` are those that it was about.
struct ProgramRun {
  const std::string& program;
  const std::vector<std::string>& names;
  const Reply& reply;
};

/// A source for a pipeline that makes @p runs, one after the other. @p handle as in Item.
[[nodiscard]] Pipeline::Source programSource(std::vector<ProgramRuns> runs,
                                             std::function<bool(const ProgramRun& run)> handle);

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_COMMANDS_PIPELINE_H_
