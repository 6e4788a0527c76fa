// SPDX-License-Identifier: Apache-2.0
// The task record. Each record has exactly one form: an accepted record is written exactly as it
// was read, and a refused record leaves the object empty.
#include <sstream>
#include <string>

#include <zell/slave_task.h>

#include "fuzz.h"

namespace {

std::string textOf(const zell::SlaveTask& task) {
  std::ostringstream out;
  task.serialize(out);
  return out.str();
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::string kEmpty = textOf(zell::SlaveTask());
  const std::string message = zell::fuzz::toString(data, size);
  zell::SlaveTask copied;
  copied.parse(message);
  const std::string text = textOf(copied);
  zell::fuzz::require(text == message || text == kEmpty);
  zell::fuzz::require(text != message || zell::SlaveTask::isA(message));
  zell::SlaveTask moved;
  moved.parse(std::string(message));
  zell::fuzz::require(textOf(moved) == text);
  return 0;
}
