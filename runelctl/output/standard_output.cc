// SPDX-License-Identifier: Apache-2.0
#include "output/standard_output.h"

#include <unistd.h>

namespace runelctl {

bool StandardOutput::write(std::string_view bytes) {
  return terminal_ ? writeAll(STDOUT_FILENO, visible_.add(bytes)) : writeAll(STDOUT_FILENO, bytes);
}

bool StandardOutput::endText() {
  return writeAll(STDOUT_FILENO, visible_.end());
}

std::string StandardOutput::visible(const Style& style, std::string_view text) {
  if (!style.outTerminal) {
    return std::string(text);
  }
  TerminalText whole;
  std::string shown = whole.add(text);
  return shown + whole.end();
}

int StandardOutput::descriptor() {
  return STDOUT_FILENO;
}

void StandardError::write(std::string_view bytes) {
  (void)(terminal_ ? writeAll(STDERR_FILENO, visible_.add(bytes)) : writeAll(STDERR_FILENO, bytes));
}

void StandardError::endText() {
  (void)writeAll(STDERR_FILENO, visible_.end());
}

bool writeOut(const Style& style, std::string_view text) {
  StandardOutput output(style);
  return output.write(text) && output.endText();
}

}  // namespace runelctl
