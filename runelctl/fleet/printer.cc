// SPDX-License-Identifier: Apache-2.0
#include "fleet/printer.h"

#include <algorithm>
#include <unordered_map>
#include <utility>

#include <unistd.h>

#include <nlohmann/json.hpp>

namespace runelctl {
namespace {

Json opening(const std::string& device, const std::string& task) {
  Json object;
  object["v"] = kJsonVersion;
  putBytes(object, "device", device);
  object["task"] = task;
  return object;
}

std::string dump(const Json& object) {
  // Every string is valid UTF-8 or was encoded in base64.
  return object.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string joined(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) {
    text += (text.empty() ? "" : ", ") + name;
  }
  return text;
}

struct Tally {
  std::size_t ok = 0, failed = 0, timedOut = 0, unreachable = 0, unknown = 0;
};

Tally count(const std::vector<Finished>& ends) {
  Tally tally;
  for (const Finished& end : ends) {
    const auto& error = end.outcome.error;
    if (end.outcome.status == 0) {
      ++tally.ok;
    } else if (error && error->fault == Fault::timedOut) {
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

}  // namespace

Json closingObject(const std::string& device, const std::string& task, const Outcome& outcome,
                   const Report& report) {
  Json object = opening(device, task);
  object["ok"] = outcome.status == 0;
  object["status"] = outcome.status;
  if (outcome.error) {
    putError(object, *outcome.error);
  }
  for (const std::string& warning : report.warnings()) {
    Json text = Json::object();
    putBytes(text, "text", warning);
    object["warnings"].push_back(text);
  }
  object.update(report.result());
  return object;
}

Printer::Printer(const Style& style, Arrange arrange, std::string task, bool many)
    : style_(style), arrange_(arrange), task_(std::move(task)), many_(many), statusLine_(style) {}

void Printer::out(std::string_view bytes) {
  statusLine_.clear();
  if (!writeAll(STDOUT_FILENO, bytes)) {
    // Standard output is lost. (A closed pipe ends the process by SIGPIPE instead.)
    err("runelctl: standard output: " + runel::systemText(errno));
    _exit(kExitTaskFailed);
  }
}

void Printer::err(const std::string& line) {
  statusLine_.clear();
  (void)writeAll(STDERR_FILENO, line + "\n");  // an error here cannot be reported
}

void Printer::stream(std::string_view bytes) {
  out(bytes);
}

void Printer::finished(const Finished& end, const Report& report) {
  if (style_.json) {
    printJson(end, report);
    return;
  }
  printText(end.device, report.text());
  for (const std::string& warning : report.warnings()) {
    printWarning(end.device, warning);
  }
  if (end.outcome.error) {
    printError(end.device, *end.outcome.error);
  }
}

void Printer::printJson(const Finished& end, const Report& report) {
  std::string lines;
  for (const Json& entry : report.entries()) {
    Json object = opening(end.device, task_);
    object.update(entry);
    lines += dump(object);
  }
  out(lines + dump(closingObject(end.device, task_, end.outcome, report)));
}

void Printer::printText(const std::string& device, const std::string& text) {
  if (!many_ || text.empty()) {
    out(text);
  } else if (arrange_ == Arrange::prefix) {
    printPrefixed(device, text);
  } else if (arrange_ == Arrange::group) {
    out("== " + style_.name(device) + "\n" + text + (text.back() == '\n' ? "" : "\n"));
  } else {
    hold(device, text);
  }
}

void Printer::printPrefixed(const std::string& device, const std::string& text) {
  std::string lines;
  std::size_t begin = 0;
  while (begin < text.size()) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    lines += style_.name(device) + ": " + text.substr(begin, end - begin) + "\n";
    begin = end + 1;
  }
  out(lines);
}

void Printer::hold(const std::string& device, const std::string& text) {
  const auto same = std::find_if(groups_.begin(), groups_.end(),
                                 [&](const Group& group) { return group.text == text; });
  if (same != groups_.end()) {
    same->devices.push_back(device);
  } else {
    groups_.push_back({text, {device}});
  }
}

void Printer::flush(const std::vector<std::string>& devices) {
  std::unordered_map<std::string, std::size_t> places;
  for (const std::string& device : devices) {
    places.emplace(device, places.size());
  }
  for (Group& group : groups_) {
    std::sort(group.devices.begin(), group.devices.end(),
              [&](const auto& a, const auto& b) { return places[a] < places[b]; });
  }
  std::sort(groups_.begin(), groups_.end(), [&](const Group& a, const Group& b) {
    return places[a.devices.front()] < places[b.devices.front()];
  });
  for (const Group& group : groups_) {
    show(group);
  }
  groups_.clear();
}

void Printer::show(const Group& group) {
  std::vector<std::string> names;
  for (const std::string& device : group.devices) {
    names.push_back(style_.name(device));
  }
  const std::string count = names.size() == 1 ? "" : " (" + countText(names.size(), "device") + ")";
  out("== " + joined(names) + count + "\n" + group.text + (group.text.back() == '\n' ? "" : "\n"));
}

void Printer::printWarning(const std::string& device, const std::string& text) {
  err("runelctl: " + terminalSafe(device) + ": " + terminalSafe(text));
}

void Printer::printError(const std::string& device, const Error& error) {
  const std::string hint = error.hint.empty() ? "" : " (" + terminalSafe(error.hint) + ")";
  err("runelctl: " + terminalSafe(device) + ": " + style_.red(terminalSafe(error.what)) + hint);
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

void Printer::summary(const std::vector<Finished>& ends, std::size_t skipped) {
  const Tally tally = count(ends);
  if (style_.json && many_) {
    Json object;
    object["v"] = kJsonVersion;
    object["task"] = task_;
    object["summary"] = {{"ok", tally.ok},
                         {"failed", tally.failed},
                         {"timed_out", tally.timedOut},
                         {"unreachable", tally.unreachable},
                         {"skipped", skipped}};
    if (tally.unknown > 0) {
      object["summary"]["unknown"] = tally.unknown;
    }
    out(dump(object));
  } else if (many_) {
    note(countText(ends.size() + skipped, "device") + ": " + std::to_string(tally.ok) + " ok, " +
         std::to_string(tally.failed) + " failed, " + std::to_string(tally.timedOut) +
         " timed out, " + std::to_string(tally.unreachable) + " unreachable" +
         (tally.unknown == 0 ? "" : ", " + std::to_string(tally.unknown) + " unknown") +
         (skipped == 0 ? "" : ", " + std::to_string(skipped) + " skipped"));
  }
}

}  // namespace runelctl
