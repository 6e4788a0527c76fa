// SPDX-License-Identifier: Apache-2.0
// The texts of log lines and replies. The first byte of the input is the length limit.
#include <algorithm>
#include <cstring>
#include <sstream>

#include <sys/stat.h>

#include <zell/string_helpers.h>

#include "fuzz.h"

namespace {

void checkTrims(const std::string& text, int limit) {
  const auto isControl = [](unsigned char byte) { return byte < 0x20 || byte == 0x7f; };
  const std::string shown = zell::trimOutput(text, limit);
  zell::fuzz::require(shown.size() == std::min(text.size(), static_cast<std::size_t>(limit)));
  zell::fuzz::require(std::none_of(shown.begin(), shown.end(), isControl));
  std::string rest = text;
  zell::trimFirstWord(rest);
  zell::fuzz::require(zell::firstWord(text) + rest == text);
  std::string clean = text;
  zell::trimBogusChars(clean);
  zell::trimWhiteSpace(clean);
  zell::fuzz::require(clean.empty() || !zell::firstWord(clean).empty());
}

void checkPrints(const std::string& text) {
  struct stat st {};
  std::memcpy(&st, text.data(), std::min(text.size(), sizeof st));
  std::ostringstream line;
  zell::printStat(line, st);
  zell::fuzz::require(line.str().find('\n') == line.str().size() - 1);
  std::ostringstream list;
  zell::printStringVec(list, "L", {text, ""});
  zell::fuzz::require(list.str() == "L 2\n" + std::to_string(text.size()) + ":" + text + "\n0:\n");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto [limit, text] = zell::fuzz::firstByteChooses(data, size);
  checkTrims(text, static_cast<int>(limit));
  checkPrints(text);
  return 0;
}
