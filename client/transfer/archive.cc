// SPDX-License-Identifier: Apache-2.0
#include "client/transfer/archive.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

#include "base/file_mode.h"

namespace runel {
namespace {

constexpr std::size_t kTarBlock = 512;
constexpr std::uint64_t kMostOwner = 07777777;
constexpr std::int64_t kMostTarSeconds = 077777777777;
constexpr std::size_t kModePlace = 100;
constexpr std::size_t kOwnerPlace = 108;
constexpr std::size_t kGroupPlace = 116;
constexpr std::size_t kSizePlace = 124;
constexpr std::size_t kTimePlace = 136;
constexpr std::size_t kSumPlace = 148;
constexpr std::size_t kTypePlace = 156;
constexpr std::size_t kMagicPlace = 257;

void putOctal(char* place, int digits, std::uint64_t value) {
  char text[32];
  std::snprintf(text, sizeof text, "%0*llo", digits, static_cast<unsigned long long>(value));
  std::memcpy(place, text, static_cast<std::size_t>(digits));
}

// A record "LENGTH KEY=VALUE\n". LENGTH includes its own digits.
std::string paxRecord(const std::string& rest) {
  std::size_t length = rest.size() + 3;
  while (std::to_string(length).size() + 1 + rest.size() != length) {
    ++length;
  }
  return std::to_string(length) + " " + rest;
}

}  // namespace

void Archive::header(std::string_view name, char type, const About& about, std::size_t size) {
  char block[kTarBlock] = {};
  std::memcpy(block, name.data(), std::min(name.size(), kMostName));
  putOctal(block + kModePlace, 7, about.mode & zell::kPermissionBits);
  putOctal(block + kOwnerPlace, 7, std::min(about.uid, kMostOwner));
  putOctal(block + kGroupPlace, 7, std::min(about.gid, kMostOwner));
  putOctal(block + kSizePlace, 11, size);
  putOctal(block + kTimePlace, 11,
           static_cast<std::uint64_t>(
               std::clamp<std::int64_t>(about.mtime.seconds, 0, kMostTarSeconds)));
  block[kTypePlace] = type;
  std::memcpy(block + kMagicPlace, "ustar\00000", 8);
  std::memset(block + kSumPlace, ' ', 8);
  unsigned sum = 0;
  for (const char byte : block) {
    sum += static_cast<unsigned char>(byte);
  }
  putOctal(block + kSumPlace, 6, sum);
  block[kSumPlace + 6] = '\0';
  bytes_.append(block, kTarBlock);
}

void Archive::padded(std::string_view content) {
  bytes_.append(content);
  bytes_.append((kTarBlock - content.size() % kTarBlock) % kTarBlock, '\0');
}

// The plain header stores only whole seconds since 1970, so an extended header stores the time. All
// tars in use support it; another one would unpack it as a file and print a warning.
void Archive::exactTime(const Timestamp& mtime) {
  char time[64];
  std::snprintf(time, sizeof time, "mtime=%lld.%09lld\n", static_cast<long long>(mtime.seconds),
                static_cast<long long>(mtime.nanoseconds));
  const std::string record = paxRecord(time);
  header("./PaxHeaders/m", 'x', {0644, 0, 0, mtime}, record.size());
  padded(record);
}

void Archive::add(std::string_view name, const About& about, std::string_view content) {
  exactTime(about.mtime);
  header(name, '0', about, content.size());
  padded(content);
}

void Archive::addDirectory(std::string_view name, const About& about) {
  exactTime(about.mtime);
  header(name, '5', about, 0);
}

std::string Archive::finish() {
  bytes_.append(2 * kTarBlock, '\0');
  return std::move(bytes_);
}

}  // namespace runel
