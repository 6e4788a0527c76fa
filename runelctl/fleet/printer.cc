// SPDX-License-Identifier: Apache-2.0
#include "fleet/printer.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <utility>

#include <unistd.h>

#include <nlohmann/json.hpp>

#include "output/name_ranges.h"
#include "output/table.h"

namespace runelctl {
namespace {

struct Tally {
  std::size_t ok = 0, failed = 0, timedOut = 0, unreachable = 0, unknown = 0;
};

Tally count(const std::vector<Finished>& ends) {
  Tally tally;
  for (const Finished& end : ends) {
    const auto& error = end.outcome.error;
    if (end.outcome.status == 0) {
      ++tally.ok;
    } else if (error && (error->fault == Fault::timedOut || error->fault == Fault::timeLimit)) {
      ++tally.timedOut;
    } else if (error && error->unknown) {
      ++tally.unknown;
    } else if (error && error->fault == Fault::unreachable) {
      ++tally.unreachable;
    } else {
      ++tally.failed;
    }
  }
  return tally;
}

// Adds "DEVICE: " to the start of each line.
class LinePrefix {
 public:
  explicit LinePrefix(std::string prefix) : prefix_(std::move(prefix)) {}

  [[nodiscard]] std::string add(std::string_view text) {
    std::string lines;
    while (!text.empty()) {
      lines += atStart_ ? prefix_ : "";
      const std::size_t end = text.find('\n');
      atStart_ = end != std::string_view::npos;
      const std::size_t count = atStart_ ? end + 1 : text.size();
      lines += text.substr(0, count);
      text.remove_prefix(count);
    }
    return lines;
  }

 private:
  const std::string prefix_;
  bool atStart_ = true;
};

std::string hintText(const Error& error) {
  return error.hint.empty() ? "" : " (" + error.hint + ")";
}

}  // namespace

Json endingFields(const Outcome& outcome) {
  Json object = Json::object();
  object["ok"] = outcome.status == 0;
  object["status"] = outcome.status;
  if (outcome.error) {
    putError(object, *outcome.error);
  }
  return object;
}

Printer::Printer(const Style& style, Arrange arrange, std::string task, bool many)
    : style_(style),
      arrange_(arrange),
      task_(std::move(task)),
      many_(many),
      output_(style),
      errors_(style),
      statusLine_(style) {}

void Printer::out(std::string_view bytes) {
  if (outputError_ == 0) {
    statusLine_.clear();
    written(output_.write(bytes));
  }
}

void Printer::endText() {
  if (outputError_ == 0) {
    written(output_.endText());
  }
}

void Printer::written(bool success) {
  if (!success) {
    loseOutput(errno);
    if (!outlives_) {
      endWithoutOutput();
    }
  }
}

// A closed pipe ends the process by SIGPIPE, unless the caller of the process ignores this signal.
void Printer::endWithoutOutput() {
  if (outputError_ == EPIPE) {
    (void)std::raise(SIGPIPE);
  }
  const std::string why = runel::systemText(std::exchange(outputError_, 0));
  err("runelctl: standard output: " + why);
  _exit(kExitTaskFailed);
}

// Calls @p use with all of @p text.
void Printer::pass(const runel::HeldBytes& text, const std::function<void(std::string_view)>& use) {
  const bool read = text.forEach([&use](std::string_view piece) {
    use(piece);
    return true;
  });
  if (!read) {
    lostText();
  }
}

void Printer::lostText() {
  problem("cannot read the temporary file of the output: " + runel::systemText(errno));
}

void Printer::outHeld(const runel::HeldBytes& text) {
  pass(text, [this](std::string_view piece) { out(piece); });
}

// Without a reader, a pipeline ends silently.
void Printer::err(const std::string& line) {
  if (outputError_ == EPIPE) {
    return;
  }
  statusLine_.clear();
  (void)writeAll(STDERR_FILENO, line + "\n");  // an error here cannot be reported
}

void Printer::problem(const std::string& text) {
  status_ = kExitTaskFailed;
  err("runelctl: " + style_.red(terminalSafe(text)));
}

// The files of the device whose output is being written. Null without --output-dir.
OutputFiles* Printer::files(const std::string& device) {
  if (directory_ != nullptr && !filesTried_ && unkept_.count(device) == 0) {
    filesTried_ = true;
    files_ = directory_->create(device);
    if (!files_) {
      unkept_.insert(device);
      problem(directory_->pathFor(device) + ": " + runel::systemText(errno));
    }
  }
  return files_.get();
}

void Printer::closeFiles(const std::string& device) {
  if (files_ && files_->error() != 0) {
    unkept_.insert(device);
    problem(directory_->pathFor(device) + ": " + runel::systemText(files_->error()));
  }
  files_.reset();
  filesTried_ = false;
}

void Printer::keep(const std::string& device, const runel::HeldBytes& text) {
  if (OutputFiles* const kept = files(device)) {
    pass(text, [kept](std::string_view piece) { kept->addOutput(piece); });
  }
}

void Printer::stream(const std::string& device, std::string_view bytes) {
  out(bytes);
  if (OutputFiles* const kept = files(device)) {
    kept->addOutput(bytes);
  }
}

void Printer::show(std::string_view bytes) {
  out(bytes);
}

void Printer::showError(std::string_view bytes) {
  if (outputError_ == EPIPE) {
    return;
  }
  statusLine_.clear();
  errors_.write(bytes);
}

// The last line may be the part of a long one.
std::string Printer::prefixed(const std::string& device, std::string_view lines) const {
  return LinePrefix(style_.name(device) + ": ").add(lines) + (lines.back() == '\n' ? "" : "\n");
}

void Printer::showLines(const std::string& device, std::string_view lines) {
  out(prefixed(device, lines));
  endText();
}

void Printer::showErrorLines(const std::string& device, std::string_view lines) {
  showError(prefixed(device, lines));
  errors_.endText();
}

void Printer::showEntry(const std::string& device, const std::string& line) {
  out(line);
  keepText(device, false, line);
}

// Closed each time: there may be more devices than open files.
void Printer::keepText(const std::string& device, bool error, std::string_view bytes) {
  if (OutputFiles* const kept = files(device)) {
    error ? kept->addError(bytes) : kept->addOutput(bytes);
    closeFiles(device);
  }
  filesTried_ = false;
}

void Printer::finished(const Finished& end, Report& report) {
  if (report.onText) {
    (void)files(end.device);  // without any output, empty ones
  } else {
    keep(end.device, report.collected());
  }
  if (style_.json) {
    printJson(end, report);
  } else {
    printText(end, report);
  }
  endText();
  errors_.endText();
  printErrors(end, report);
  closeFiles(end.device);
  if (end.outcome.status != 0) {
    const bool later = toldAtTheEnd(end.outcome);
    const bool told = !later && (end.outcome.error || !report.warnings().empty());
    const std::string hint = later ? hintText(*end.outcome.error) : "";
    failures_.add(end.index, end.device, reasonOf(end.outcome) + hint, told);
  }
}

// An interrupt ends all devices at the same time: only the lines of the failures are printed, with
// the equal ones folded.
bool Printer::toldAtTheEnd(const Outcome& outcome) const {
  return many_ && !style_.json && outcome.error && outcome.error->fault == Fault::cancelled;
}

void Printer::printJson(const Finished& end, Report& report) {
  outHeld(report.collected());
  std::optional<Json> last = report.lastObject(endingFields(end.outcome));
  if (!last) {
    lostText();
    return;
  }
  const std::string line = jsonLine(*last, style_.outTerminal);
  out(line);
  if (OutputFiles* const kept = files(end.device)) {
    kept->addOutput(line);
  }
}

void Printer::printText(const Finished& end, Report& report) {
  runel::HeldBytes& text = report.collected();
  if (!many_ || text.empty()) {
    outHeld(text);
  } else if (arrange_ == Arrange::prefix) {
    printPrefixed(end.device, text);
  } else if (arrange_ == Arrange::group) {
    printUnder(style_.name(end.device) + failureText(end.outcome), text);
  } else if (!report.row().empty()) {
    rows_[end.index] = {end.device, report.row()};
  } else {
    groups_.add(end.index, end.device, failureText(end.outcome), std::move(text));
  }
}

void Printer::printPrefixed(const std::string& device, const runel::HeldBytes& text) {
  LinePrefix prefix(style_.name(device) + ": ");
  pass(text, [&](std::string_view piece) { out(prefix.add(piece)); });
  out(text.back() == '\n' ? "" : "\n");
}

void Printer::printUnder(const std::string& heading, const runel::HeldBytes& text) {
  out("== " + heading + "\n");
  outHeld(text);
  out(text.back() == '\n' ? "" : "\n");
  endText();
}

// Why an output is that of a failure. Empty for a success.
std::string Printer::failureText(const Outcome& outcome) const {
  return outcome.status == 0 ? "" : ": " + style_.name(reasonOf(outcome));
}

void Printer::flush() {
  showTable();
  for (const OutputGroup& group : groups_.release()) {
    std::vector<std::string> names;
    for (const auto& [index, device] : group.devices) {
      names.push_back(device);
    }
    printUnder(style_.name(headingNames(names)) +
                   (names.size() == 1 ? "" : " (" + countText(names.size(), "device") + ")") +
                   group.label,
               group.text);
  }
}

void Printer::showTable() {
  Table table;
  for (const auto& [index, row] : rows_) {
    const auto& [device, cells] = row;
    if (table.empty() && !style_.quiet) {
      table.push_back({"DEVICE"});
      for (const Cell& cell : cells) {
        table.back().push_back(cell.column);
      }
    }
    table.push_back({device});
    for (const Cell& cell : cells) {
      table.back().push_back(cell.value);
    }
  }
  rows_.clear();
  out(tableText(table));
}

// Also to the file of the device, without colors.
void Printer::printErrors(const Finished& end, const Report& report) {
  const std::string begin = "runelctl: " + terminalSafe(end.device) + ": ";
  const auto tell = [&](const std::string& shown, const std::string& plain, bool later = false) {
    if (!style_.json && !later) {
      err(begin + shown);
    }
    if (OutputFiles* const kept = files(end.device)) {
      kept->addError(begin + plain + "\n");
    }
  };
  for (const std::string& warning : report.warnings()) {
    tell(terminalSafe(warning), terminalSafe(warning));
  }
  for (const std::string& note : report.notes()) {
    if (!style_.quiet) {
      tell(terminalSafe(note), terminalSafe(note));
    }
  }
  if (const auto& error = end.outcome.error) {
    const std::string what = terminalSafe(error->what);
    const std::string hint = terminalSafe(hintText(*error));
    tell(style_.red(what) + hint, what + hint, toldAtTheEnd(end.outcome));
  }
}

void Printer::note(const std::string& text) {
  if (!style_.quiet && !style_.json) {
    err("runelctl: " + terminalSafe(text));
  }
}

void Printer::unsent(std::size_t devices) {
  if (many_) {
    note("dry run: nothing was sent to " + countText(devices, "device"));
  }
}

// The failed devices by name. Without a summary, only those that no message has named.
void Printer::tellFailures(const std::vector<std::string>& skipped) {
  for (const std::string& line : failures_.lines(style_.quiet)) {
    err("runelctl: " + style_.red(terminalSafe(line)));
  }
  if (!skipped.empty()) {
    note(foldNames(skipped) + ": skipped");
  }
}

void Printer::summary(const std::vector<Finished>& ends, const std::vector<std::string>& skipped) {
  if (!many_) {
    return;
  }
  const Tally tally = count(ends);
  if (style_.json) {
    Json object = Json::object();
    object["v"] = kJsonVersion;
    object["task"] = task_;
    object["summary"] = {{"ok", tally.ok},
                         {"failed", tally.failed},
                         {"timed_out", tally.timedOut},
                         {"unreachable", tally.unreachable},
                         {"skipped", skipped.size()}};
    if (tally.unknown > 0) {
      object["summary"]["unknown"] = tally.unknown;
    }
    out(jsonLine(object, style_.outTerminal));
    return;
  }
  tellFailures(skipped);
  note(countText(ends.size() + skipped.size(), "device") + ": " + std::to_string(tally.ok) +
       " ok, " + std::to_string(tally.failed) + " failed, " + std::to_string(tally.timedOut) +
       " timed out, " + std::to_string(tally.unreachable) + " unreachable" +
       (tally.unknown == 0 ? "" : ", " + std::to_string(tally.unknown) + " unknown") +
       (skipped.empty() ? "" : ", " + std::to_string(skipped.size()) + " skipped"));
}

}  // namespace runelctl
