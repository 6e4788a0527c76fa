// SPDX-License-Identifier: Apache-2.0
#include "commands/installed_version.h"

#include <algorithm>

namespace runelctl {
namespace {

bool isVersionByte(char byte) {
  constexpr std::string_view kOthers = ".+~_:-";
  const bool letter = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z');
  const bool digit = byte >= '0' && byte <= '9';
  return letter || digit || kOthers.find(byte) != std::string_view::npos;
}

}  // namespace

std::optional<std::string> parseVersion(std::string_view text) {
  if (!text.empty() && text.back() == '\n') {
    text.remove_suffix(1);
  }
  const bool valid = !text.empty() && text.size() <= kMostVersionBytes &&
                     std::all_of(text.begin(), text.end(), isVersionByte);
  return valid ? std::make_optional(std::string(text)) : std::nullopt;
}

}  // namespace runelctl
