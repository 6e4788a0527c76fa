// SPDX-License-Identifier: Apache-2.0
#include "commands/size_range.h"

#include <cstdlib>
#include <string>

namespace runelctl {
namespace {

constexpr std::uint64_t kUnit = 1024;

// "16M", for a multiple of a unit.
std::string withUnit(std::uint64_t bytes) {
  std::string unit;
  for (const char* next = "KMG"; *next != '\0' && bytes % kUnit == 0; ++next) {
    bytes /= kUnit;
    unit = *next;
  }
  return std::to_string(bytes) + unit;
}

// Replaces @p text by the number of bytes. False if it is not a size.
bool toBytes(std::string& text) {
  try {
    return CLI::AsSizeValue(false)(text).empty();
  } catch (const CLI::Error&) {  // an unknown unit, or too many bytes
    return false;
  }
}

}  // namespace

CLI::Validator sizeRange(std::uint64_t least, std::uint64_t most) {
  const auto check = [least, most](std::string& text) {
    std::string bytes = text;
    const bool size = toBytes(bytes);
    const std::uint64_t count = size ? std::strtoull(bytes.c_str(), nullptr, 10) : 0;
    if (!size || count < least || count > most) {
      return "'" + text + "': expected a size from " + withUnit(least) + " to " + withUnit(most);
    }
    text = bytes;
    return std::string();
  };
  return {check, ""};
}

}  // namespace runelctl
