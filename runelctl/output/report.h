// SPDX-License-Identifier: Apache-2.0
// The output of one device in one run of a command.
#ifndef RUNELCTL_OUTPUT_REPORT_H_
#define RUNELCTL_OUTPUT_REPORT_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "client/io/spool.h"
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

/// A column of the table that a command prints for many devices, and the value of one device.
struct Cell {
  std::string column;
  std::string value;
};

/// The start of each object of a device.
[[nodiscard]] Json openingObject(const std::string& device, const std::string& task);

/// Collects output. Text output consists of `bytes`, `line` and `output`, JSON output of `entry`,
/// `output` and `result`. Calls for the other kind of output are ignored.
class Report {
 public:
  /// @p opening is the start of each object. Long output is held in @p spool, if any.
  explicit Report(const Style& style, Json opening = Json::object(),
                  const std::shared_ptr<runel::Spool>& spool = nullptr)
      : style_(style), opening_(std::move(opening)), collected_(spool), output_(spool) {}
  ~Report();
  Report(const Report&) = delete;
  Report& operator=(const Report&) = delete;

  /// Adds unchanged output.
  void bytes(std::string_view bytes);
  /// Adds unchanged output of a program on its standard error.
  void errorBytes(std::string_view bytes);
  /// Adds one line of output. Names in it must be converted with `name`.
  void line(const std::string& text) { bytes(text + "\n"); }
  /// Adds the answer of a program or a task and, as text, @p end. In JSON it is the field "output"
  /// of the last object. Call it at most once.
  void output(std::string&& answer, std::string_view end = "");
  /// Adds the object that @p make returns. It is called for JSON output only.
  void entry(const std::function<Json()>& make);
  /// Adds a cell to the row of this device. With several devices, a table of the rows is printed in
  /// place of the texts.
  void cell(std::string column, std::string value) {
    row_.push_back({std::move(column), std::move(value)});
  }
  /// The fields of the last object.
  Json& result() { return result_; }
  [[nodiscard]] const Json& result() const { return result_; }
  /// Adds a warning, which may contain any bytes.
  void warn(const std::string& text) { warnings_.push_back(text); }
  /// Tells something about the run at once: see `onNote`.
  void note(const std::string& text) const {
    if (onNote) {
      onNote(text);
    }
  }
  /// Adds a note about a success, which is told at the end and may contain any bytes.
  void noteAtEnd(const std::string& text) { notes_.push_back(text); }
  /// Reports progress.
  void progress(const Progress& progress) {
    if (onProgress) {
      onProgress(progress);
    }
  }

  [[nodiscard]] const Style& style() const { return style_; }
  [[nodiscard]] bool json() const { return style_.json; }
  [[nodiscard]] std::string name(std::string_view bytes) const { return style_.name(bytes); }

  /// The text, or the lines of the objects but the last one.
  [[nodiscard]] runel::HeldBytes& collected() { return collected_; }
  [[nodiscard]] const std::vector<Cell>& row() const { return row_; }
  [[nodiscard]] const std::vector<std::string>& warnings() const { return warnings_; }
  [[nodiscard]] const std::vector<std::string>& notes() const { return notes_; }
  /// The last object, with the fields of @p ending, the warnings and notes, the output, which is
  /// moved out, and the result. Without a value, with errno, if the output cannot be read.
  [[nodiscard]] std::optional<Json> lastObject(const Json& ending);

  /// If set, receives the output immediately instead of collecting it.
  std::function<void(std::string_view)> stream;
  /// If set, receives the output on standard error, which is else added to the other output.
  std::function<void(std::string_view)> errorStream;
  /// If set, also receives each piece of both outputs immediately: @p error tells which.
  std::function<void(bool error, std::string_view bytes)> onText;
  /// If set, receives the line of each object immediately instead of collecting it.
  std::function<void(const std::string&)> entryStream;
  /// Receives notes; without it they are ignored.
  std::function<void(const std::string&)> onNote;
  std::function<void(const Progress&)> onProgress;

 private:
  void add(std::string_view bytes);

  const Style& style_;
  Json opening_;
  runel::HeldBytes collected_;
  runel::HeldBytes output_;  // in JSON, the field "output" of the last object
  bool hasOutput_ = false;
  std::vector<Cell> row_;
  std::vector<std::string> warnings_;
  std::vector<std::string> notes_;
  Json result_ = Json::object();
};

/// Adds the fields of @p error to @p object.
void putError(Json& object, const Error& error);

/// Reports a failure that does not belong to a device: one line on standard error, or a JSON object
/// on standard output.
void tellFailure(const std::string& task, const Error& error, const Style& style);

}  // namespace runelctl

#endif  // RUNELCTL_OUTPUT_REPORT_H_
