// SPDX-License-Identifier: Apache-2.0
// The texts of replies, as the client library reads them. What is read and written again in the
// device's form is read as the same.
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <runel/records.h>

#include "client/core/peer_guess.h"
#include "fuzz.h"

namespace {

using zell::fuzz::require;

constexpr std::int64_t kNanosecondsInASecond = 1000000000;

bool isTimestamp(const runel::Timestamp& time) {
  return time.nanoseconds >= 0 && time.nanoseconds < kNanosecondsInASecond;
}

std::string text(const runel::Timestamp& time) {
  char digits[16];
  (void)std::snprintf(digits, sizeof digits, "%09lld", static_cast<long long>(time.nanoseconds));
  return std::to_string(time.seconds) + "." + digits;
}

std::string octal(std::uint32_t mode) {
  char digits[16];
  (void)std::snprintf(digits, sizeof digits, "%04o", mode);
  return digits;
}

std::string text(const runel::Stat& st) {
  return "dev=" + std::to_string(st.dev) + " ino=" + std::to_string(st.ino) +
         " mode=" + octal(st.mode) + " nlink=" + std::to_string(st.nlink) +
         " uid=" + std::to_string(st.uid) + " gid=" + std::to_string(st.gid) +
         " rdev=" + std::to_string(st.rdev) + " size=" + std::to_string(st.size) +
         " blksize=" + std::to_string(st.blksize) + " blocks=" + std::to_string(st.blocks) +
         " atime=" + text(st.atime) + " mtime=" + text(st.mtime) + " ctime=" + text(st.ctime) +
         "\n";
}

std::string escaped(std::string_view name) {
  std::string shown;
  for (const char byte : name) {
    char code[8];
    (void)std::snprintf(code, sizeof code, "\\x%02x", static_cast<unsigned char>(byte));
    shown += code;
  }
  return shown;
}

std::string text(const std::vector<runel::TreeEntry>& entries) {
  std::string lines;
  for (const runel::TreeEntry& entry : entries) {
    lines += std::string(1, entry.type) + " " + octal(entry.mode) + " " +
             std::to_string(entry.uid) + " " + std::to_string(entry.gid) + " " +
             std::to_string(entry.size) + " " + std::to_string(entry.mtime) + " " +
             escaped(entry.path) + (entry.type == 'l' ? " -> " + escaped(entry.target) : "") + "\n";
  }
  return lines;
}

bool equal(const runel::TreeEntry& a, const runel::TreeEntry& b) {
  return a.type == b.type && a.mode == b.mode && a.uid == b.uid && a.gid == b.gid &&
         a.size == b.size && a.mtime == b.mtime && a.path == b.path && a.target == b.target;
}

void readStat(std::string_view input) {
  const std::optional<runel::Stat> st = runel::parseStat(input);
  if (!st) {
    return;
  }
  require(isTimestamp(st->atime) && isTimestamp(st->mtime) && isTimestamp(st->ctime));
  require(static_cast<int>(st->isDirectory()) + static_cast<int>(st->isRegular()) +
              static_cast<int>(st->isLink()) <=
          1);
  const std::optional<runel::Stat> again = runel::parseStat(text(*st));
  require(again && text(*again) == text(*st) && again->mtime == st->mtime);
}

void readNames(std::string_view input) {
  const std::optional<std::vector<std::string>> names = runel::parseNames(input);
  if (!names) {
    return;
  }
  std::string written = "StringVec " + std::to_string(names->size()) + "\n";
  for (const std::string& name : *names) {
    written += std::to_string(name.size()) + ":" + name + "\n";
  }
  require(runel::parseNames(written) == names);
  require(written.size() <= input.size());
}

void readTree(std::string_view input) {
  const std::optional<std::vector<runel::TreeEntry>> entries = runel::parseTree(input);
  if (!entries) {
    return;
  }
  const std::optional<std::vector<runel::TreeEntry>> again = runel::parseTree(text(*entries));
  require(again && again->size() == entries->size());
  for (std::size_t i = 0; i < entries->size(); ++i) {
    require(!(*entries)[i].path.empty());
    require(equal((*entries)[i], (*again)[i]));
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input = zell::fuzz::toString(data, size);
  readStat(input);
  readNames(input);
  readTree(input);
  if (const std::optional<std::uint64_t> number = runel::parseNumber(input)) {
    require(runel::parseNumber(std::to_string(*number)) == number);
  }
  const std::string guess = runel::guessPeer(input);
  require(guess.empty() || guess.rfind("the peer is not runeld: ", 0) == 0);
  return 0;
}
