// SPDX-License-Identifier: Apache-2.0
#include <zell/string_helpers.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <string_view>

namespace zell {
namespace {

constexpr char kWhiteSpace[] = " \t\r\n\v\f";
constexpr std::string_view kCutMark = "...";

bool isControl(char byte) {
  const auto code = static_cast<unsigned char>(byte);
  return code < 0x20 || code == 0x7f;
}

void appendNumber(std::string& text, std::size_t number) {
  char digits[24];
  text.append(digits, std::to_chars(digits, digits + sizeof digits, number).ptr);
}

}  // namespace

std::string trimOutput(std::string text, int limit) {
  const auto room = static_cast<std::size_t>(std::max(limit, 0));
  if (text.size() > room) {
    text.resize(room - std::min(room, kCutMark.size()));
    text.append(kCutMark.substr(0, room));
  }
  std::replace_if(text.begin(), text.end(), isControl, '.');
  return text;
}

void trimBogusChars(std::string& text) {
  const auto bogus = [](char byte) { return byte != '\t' && isControl(byte); };
  text.erase(std::remove_if(text.begin(), text.end(), bogus), text.end());
}

void trimWhiteSpace(std::string& text) {
  text.erase(text.find_last_not_of(kWhiteSpace) + 1);
  text.erase(0, text.find_first_not_of(kWhiteSpace));
}

std::string firstWord(const std::string& text) {
  return text.substr(0, text.find_first_of(kWhiteSpace));
}

void trimFirstWord(std::string& text) {
  text.erase(0, text.find_first_of(kWhiteSpace));
}

void printStringVec(std::ostream& out, const std::string& label,
                    const std::vector<std::string>& strings) {
  std::string text = label + ' ';
  appendNumber(text, strings.size());
  text += '\n';
  for (const std::string& string : strings) {
    appendNumber(text, string.size());
    text += ':';
    text += string;
    text += '\n';
  }
  out.write(text.data(), static_cast<std::streamsize>(text.size()));
}

}  // namespace zell
