// SPDX-License-Identifier: Apache-2.0
// The task record: there is one way to write each, so what is taken is written as it was read, and
// what is refused leaves nothing behind.
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
