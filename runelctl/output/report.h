// SPDX-License-Identifier: Apache-2.0
// What one device had to say in one run of a command.
#ifndef ZELL_RUNELCTL_OUTPUT_REPORT_H_
#define ZELL_RUNELCTL_OUTPUT_REPORT_H_

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "client/error.h"
#include "output/style.h"
#include "output/text.h"

namespace zell::ctl {

/// What "v" is in each object. Another number stands for objects that older readers cannot read.
constexpr int kJsonVersion = 1;

/// How far a transfer has come.
struct Progress {
  std::uint64_t done = 0;
  std::uint64_t total = 0;
  std::string what;
};

/// Collects output. People get `bytes` and `line`, programs get `entry` and `result`; each call is
/// ignored when the other kind is wanted.
class Report {
 public:
  explicit Report(const Style& style) : style_(style) {}

  /// Output exactly as it is.
  void bytes(std::string_view bytes);
  /// One line of output; names in it come through `name`.
  void line(const std::string& text) { bytes(text + "\n"); }
  /// One object of a list.
  void entry(Json object);
  /// The fields of the object that closes the run.
  Json& result() { return result_; }
  [[nodiscard]] const Json& result() const { return result_; }
  /// Something that did not go well but does not end the run; plain text, any bytes.
  void warn(const std::string& text) { warnings_.push_back(text); }
  /// Tells whoever looks how far it has come.
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

  /// When set, `bytes` go there at once instead of being kept.
  std::function<void(std::string_view)> stream;
  std::function<void(const Progress&)> onProgress;

 private:
  const Style& style_;
  std::string text_;
  std::vector<Json> entries_;
  std::vector<std::string> warnings_;
  Json result_ = Json::object();
};

/// Adds the fields that tell of a failure to @p object.
void putError(Json& object, const Error& error);

/// Tells of a failure that is no device's: a line on standard error, or an object on standard
/// output.
void tellFailure(const std::string& task, const Error& error, const Style& style);

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_OUTPUT_REPORT_H_
