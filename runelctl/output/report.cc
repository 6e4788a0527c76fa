// SPDX-License-Identifier: Apache-2.0
#include "output/report.h"

#include <utility>

#include <unistd.h>

#include <runel/request.h>

#include "output/standard_output.h"

namespace runelctl {
namespace {

// A list of objects, for texts that are not UTF-8 have another field.
void putTexts(Json& object, const char* key, const std::vector<std::string>& texts) {
  if (texts.empty()) {
    return;
  }
  Json list = Json::array();
  for (const std::string& text : texts) {
    Json entry = Json::object();
    putBytes(entry, "text", text);
    list.push_back(std::move(entry));
  }
  object[key] = std::move(list);
}

}  // namespace

Json openingObject(const std::string& device, const std::string& task) {
  Json object = Json::object();
  object["v"] = kJsonVersion;
  putBytes(object, "device", device);
  object["task"] = task;
  return object;
}

Report::~Report() {
  discard(opening_);
  discard(result_);
}

void Report::add(std::string_view bytes) {
  if (stream) {
    stream(bytes);
  } else {
    collected_.add(bytes);
  }
}

void Report::bytes(std::string_view bytes) {
  if (style_.json) {
    return;
  }
  if (onText) {
    onText(false, bytes);
  }
  add(bytes);
}

void Report::errorBytes(std::string_view bytes) {
  if (style_.json) {
    return;
  }
  if (onText) {
    onText(true, bytes);
  }
  if (errorStream) {
    errorStream(bytes);
  } else {
    add(bytes);
  }
}

void Report::output(std::string&& answer, std::string_view end) {
  if (style_.json) {
    hasOutput_ = true;
    output_.take(std::move(answer));
  } else if (stream) {
    stream(answer);
    stream(end);
  } else {
    collected_.take(std::move(answer));
    collected_.add(end);
  }
}

void Report::entry(const std::function<Json()>& make) {
  if (style_.json) {
    Json whole = opening_;
    whole.update(make());
    const std::string line = jsonLine(whole, style_.outTerminal);
    if (entryStream) {
      entryStream(line);
    } else {
      collected_.add(line);
    }
  }
}

std::optional<Json> Report::lastObject(const Json& ending) {
  Json object = opening_;
  object.update(ending);
  putTexts(object, "warnings", warnings_);
  putTexts(object, "notes", notes_);
  if (hasOutput_) {
    std::optional<std::string> answer = output_.release();
    if (!answer) {
      return std::nullopt;
    }
    moveBytes(object, "output", std::move(*answer));
  }
  object.update(result_);
  return object;
}

void putError(Json& object, const Error& error) {
  object["where"] = error.where();
  object["retry"] = error.transient;
  if (error.unknown) {
    object["outcome"] = "unknown";
  }
  putBytes(object, "error", error.what);
  if (error.number != 0) {
    object["errno"] = error.number;
  }
  if (!error.hint.empty()) {
    putBytes(object, "hint", error.hint);
  }
}

// Write errors are ignored: the exit status reports the failure too.
void tellFailure(const std::string& task, const Error& error, const Style& style) {
  if (style.json) {
    Json object{
        {"v", kJsonVersion}, {"task", task}, {"ok", false}, {"status", exitStatusOf(error)}};
    putError(object, error);
    (void)writeOut(style, jsonLine(object, style.outTerminal));
    return;
  }
  const std::string hint = error.hint.empty() ? "" : " (" + terminalSafe(error.hint) + ")";
  (void)writeAll(STDERR_FILENO, "runelctl: " + style.red(terminalSafe(error.what)) + hint + "\n");
}

}  // namespace runelctl
