// SPDX-License-Identifier: Apache-2.0
#include <runel/records.h>

#include <charconv>
#include <cstddef>
#include <system_error>
#include <utility>

#include <sys/stat.h>

namespace runel {
inline namespace v1 {
namespace {

constexpr std::int64_t kNanoseconds = 1000000000;  // in a second

// Parses fields from the front of a text. After the first mismatch, every call fails.
class Cutter {
 public:
  explicit Cutter(std::string_view text) : rest_(text) {}

  bool skip(std::string_view expected) {
    sound_ = sound_ && rest_.substr(0, expected.size()) == expected;
    rest_.remove_prefix(sound_ ? expected.size() : 0);
    return sound_;
  }

  template <typename Number>
  bool number(Number& value, int base = 10) {
    const auto [stop, error] =
        std::from_chars(rest_.data(), rest_.data() + rest_.size(), value, base);
    sound_ = sound_ && error == std::errc();
    rest_.remove_prefix(sound_ ? static_cast<std::size_t>(stop - rest_.data()) : 0);
    return sound_;
  }

  bool bytes(std::size_t count, std::string_view& taken) {
    sound_ = sound_ && count <= rest_.size();
    taken = rest_.substr(0, sound_ ? count : 0);
    rest_.remove_prefix(taken.size());
    return sound_;
  }

  bool timestamp(Timestamp& value) {
    sound_ = number(value.seconds) && skip(".") && number(value.nanoseconds) &&
             value.nanoseconds >= 0 && value.nanoseconds < kNanoseconds;
    return sound_;
  }

  [[nodiscard]] bool atEnd() const { return sound_ && rest_.empty(); }
  [[nodiscard]] std::string_view rest() const { return rest_; }

 private:
  std::string_view rest_;
  bool sound_ = true;
};

// Decodes the \xNN escapes of walktree.
bool unescape(std::string_view text, std::string& plain) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      plain += text[i];
      continue;
    }
    unsigned code = 0;
    const std::string_view digits = text.size() - i < 4 ? "" : text.substr(i + 2, 2);
    const auto [stop, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), code, 16);
    if (digits.empty() || text[i + 1] != 'x' || error != std::errc() || stop != digits.end()) {
      return false;
    }
    plain += static_cast<char>(code);
    i += 3;
  }
  return true;
}

bool takePath(std::string_view text, TreeEntry& entry) {
  if (entry.type == 'l') {
    // Split at the first arrow: the format does not escape an arrow in a name.
    const std::size_t arrow = text.find(" -> ");
    if (arrow == std::string_view::npos || !unescape(text.substr(arrow + 4), entry.target)) {
      return false;
    }
    text = text.substr(0, arrow);
  }
  return !text.empty() && unescape(text, entry.path);
}

bool parseTreeLine(std::string_view line, TreeEntry& entry) {
  Cutter cutter(line);
  std::string_view type;
  if (!cutter.bytes(1, type) || !cutter.skip(" ") || !cutter.number(entry.mode, 8) ||
      !cutter.skip(" ") || !cutter.number(entry.uid) || !cutter.skip(" ") ||
      !cutter.number(entry.gid) || !cutter.skip(" ") || !cutter.number(entry.size) ||
      !cutter.skip(" ") || !cutter.number(entry.mtime) || !cutter.skip(" ")) {
    return false;
  }
  entry.type = type.front();
  return takePath(cutter.rest(), entry);
}

}  // namespace

bool Stat::isDirectory() const {
  return S_ISDIR(mode);
}

bool Stat::isRegular() const {
  return S_ISREG(mode);
}

bool Stat::isLink() const {
  return S_ISLNK(mode);
}

std::optional<Stat> parseStat(std::string_view text) {
  Cutter cutter(text);
  Stat st;
  if (cutter.skip("dev=") && cutter.number(st.dev) && cutter.skip(" ino=") &&
      cutter.number(st.ino) && cutter.skip(" mode=") && cutter.number(st.mode, 8) &&
      cutter.skip(" nlink=") && cutter.number(st.nlink) && cutter.skip(" uid=") &&
      cutter.number(st.uid) && cutter.skip(" gid=") && cutter.number(st.gid) &&
      cutter.skip(" rdev=") && cutter.number(st.rdev) && cutter.skip(" size=") &&
      cutter.number(st.size) && cutter.skip(" blksize=") && cutter.number(st.blksize) &&
      cutter.skip(" blocks=") && cutter.number(st.blocks) && cutter.skip(" atime=") &&
      cutter.timestamp(st.atime) && cutter.skip(" mtime=") && cutter.timestamp(st.mtime) &&
      cutter.skip(" ctime=") && cutter.timestamp(st.ctime) && cutter.skip("\n") && cutter.atEnd()) {
    return st;
  }
  return std::nullopt;
}

std::optional<std::vector<std::string>> parseNames(std::string_view text) {
  Cutter cutter(text);
  std::size_t count = 0;
  if (!cutter.skip("StringVec ") || !cutter.number(count) || !cutter.skip("\n")) {
    return std::nullopt;
  }
  std::vector<std::string> names;  // grows with the data, not with the announced count
  for (std::size_t i = 0; i < count; ++i) {
    std::size_t length = 0;
    std::string_view name;
    if (!cutter.number(length) || !cutter.skip(":") || !cutter.bytes(length, name) ||
        !cutter.skip("\n")) {
      return std::nullopt;
    }
    names.emplace_back(name);
  }
  return cutter.atEnd() ? std::make_optional(std::move(names)) : std::nullopt;
}

std::optional<std::vector<TreeEntry>> parseTree(std::string_view text) {
  std::vector<TreeEntry> entries;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    TreeEntry entry;
    if (end == std::string_view::npos || !parseTreeLine(text.substr(0, end), entry)) {
      return std::nullopt;
    }
    entries.push_back(std::move(entry));
    text.remove_prefix(end + 1);
  }
  return entries;
}

std::optional<std::uint64_t> parseNumber(std::string_view text) {
  Cutter cutter(text);
  std::uint64_t value = 0;
  return cutter.number(value) && cutter.atEnd() ? std::make_optional(value) : std::nullopt;
}

}  // namespace v1
}  // namespace runel
