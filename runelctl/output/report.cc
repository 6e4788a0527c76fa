// SPDX-License-Identifier: Apache-2.0
#include "output/report.h"

#include <utility>

#include <unistd.h>

#include <runel/request.h>

namespace runelctl {

void Report::bytes(std::string_view bytes) {
  if (style_.json) {
    return;
  }
  if (stream) {
    stream(bytes);
  } else {
    text_.append(bytes);
  }
}

void Report::entry(Json object) {
  if (style_.json) {
    entries_.push_back(std::move(object));
  }
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
    (void)writeAll(STDOUT_FILENO, object.dump() + "\n");
    return;
  }
  const std::string hint = error.hint.empty() ? "" : " (" + terminalSafe(error.hint) + ")";
  (void)writeAll(STDERR_FILENO, "runelctl: " + style.red(terminalSafe(error.what)) + hint + "\n");
}

}  // namespace runelctl
