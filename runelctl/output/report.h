// SPDX-License-Identifier: Apache-2.0
// The output of one device in one run of a command.
#ifndef RUNELCTL_OUTPUT_REPORT_H_
#define RUNELCTL_OUTPUT_REPORT_H_

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "output/error.h"
#include "output/style.h"
#include "output/text.h"

namespace runelctl {

/// The value of "v" in each object. It increases with an incompatible change of the objects.
constexpr int kJsonVersion = 1;

/// The progress of a transfer, in bytes.
struct Progress {
  std::uint64_t done = 0;
  std::uint64_t total = 0;
  std::string what;
};

/// Collects output. Text output consists of `bytes` and `line`, JSON output of `entry` and
/// `result`. Calls for the other kind of output are ignored.
class Report {
 public:
  explicit Report(const Style& style) : style_(style) {}

  /// Adds unchanged output.
  void bytes(std::string_view bytes);
  /// Adds one line of output. Names in it must be converted with `name`.
  void line(const std::string& text) { bytes(text + "\n"); }
  /// Adds one object.
  void entry(Json object);
  /// The fields of the last object.
  Json& result() { return result_; }
  [[nodiscard]] const Json& result() const { return result_; }
  /// Adds a warning, which may contain any bytes.
  void warn(const std::string& text) { warnings_.push_back(text); }
  /// Reports progress.
  void progress(const Progress& progress) {
    if (onProgress) {
      onProgress(progress);
    }
  }

  [[nodiscard]] const Style& style() const { return style_; }
  [[nodiscard]] bool json() const { return style_.json; }
  [[nodiscard]] std::string name(std::string_view bytes) const { return style_.name(bytes); }

  [[nodiscard]] const std::string& text() const { return text_; }
  [[nodiscard]] const std::vector<Json>& entries() const { return entries_; }
  [[nodiscard]] const std::vector<std::string>& warnings() const { return warnings_; }

  /// If set, receives the output immediately instead of collecting it.
  std::function<void(std::string_view)> stream;
  std::function<void(const Progress&)> onProgress;

 private:
  const Style& style_;
  std::string text_;
  std::vector<Json> entries_;
  std::vector<std::string> warnings_;
  Json result_ = Json::object();
};

/// Adds the fields of @p error to @p object.
void putError(Json& object, const Error& error);

/// Reports a failure that does not belong to a device: one line on standard error, or a JSON object
/// on standard output.
void tellFailure(const std::string& task, const Error& error, const Style& style);

}  // namespace runelctl

#endif  // RUNELCTL_OUTPUT_REPORT_H_
