// SPDX-License-Identifier: Apache-2.0
#include "client/core/records.h"

#include <charconv>
#include <cstddef>
#include <system_error>

namespace runel {
namespace {

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

  bool moment(Timestamp& value) {
    return number(value.seconds) && skip(".") && number(value.nanoseconds);
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

std::optional<StatRecord> parseStat(std::string_view text) {
  Cutter cutter(text);
  StatRecord st;
  if (cutter.skip("dev=") && cutter.number(st.dev) && cutter.skip(" ino=") &&
      cutter.number(st.ino) && cutter.skip(" mode=") && cutter.number(st.mode, 8) &&
      cutter.skip(" nlink=") && cutter.number(st.nlink) && cutter.skip(" uid=") &&
      cutter.number(st.uid) && cutter.skip(" gid=") && cutter.number(st.gid) &&
      cutter.skip(" rdev=") && cutter.number(st.rdev) && cutter.skip(" size=") &&
      cutter.number(st.size) && cutter.skip(" blksize=") && cutter.number(st.blksize) &&
      cutter.skip(" blocks=") && cutter.number(st.blocks) && cutter.skip(" atime=") &&
      cutter.moment(st.atime) && cutter.skip(" mtime=") && cutter.moment(st.mtime) &&
      cutter.skip(" ctime=") && cutter.moment(st.ctime) && cutter.skip("\n") && cutter.atEnd()) {
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

std::string modeText(char type, std::uint32_t mode) {
  std::string text = "-rwxrwxrwx";
  text[0] = type;
  for (std::size_t bit = 0; bit < 9; ++bit) {
    if ((mode & (0400U >> bit)) == 0) {
      text[bit + 1] = '-';
    }
  }
  const auto special = [&](std::uint32_t flag, std::size_t place, char with, char without) {
    if ((mode & flag) != 0) {
      text[place] = text[place] == 'x' ? with : without;
    }
  };
  special(S_ISUID, 3, 's', 'S');
  special(S_ISGID, 6, 's', 'S');
  special(S_ISVTX, 9, 't', 'T');
  return text;
}

char typeLetter(std::uint32_t mode) {
  switch (mode & S_IFMT) {
    case S_IFDIR:
      return 'd';
    case S_IFLNK:
      return 'l';
    case S_IFCHR:
      return 'c';
    case S_IFBLK:
      return 'b';
    case S_IFIFO:
      return 'p';
    case S_IFSOCK:
      return 's';
    default:
      return '-';
  }
}

std::string joinPath(const std::string& directory, const std::string& name) {
  if (directory.empty() || (!name.empty() && name[0] == '/')) {
    return name;
  }
  if (name.empty() || name == ".") {
    return directory;
  }
  return directory.back() == '/' ? directory + name : directory + "/" + name;
}

std::string baseName(const std::string& path) {
  const std::size_t end = path.find_last_not_of('/');
  if (end == std::string::npos) {
    return path.empty() ? "" : "/";
  }
  const std::size_t slash = path.rfind('/', end);
  const std::size_t begin = slash == std::string::npos ? 0 : slash + 1;
  return path.substr(begin, end + 1 - begin);
}

std::string directoryOf(const std::string& path) {
  const std::size_t end = path.find_last_not_of('/');
  const std::size_t slash = end == std::string::npos ? end : path.rfind('/', end);
  if (end == std::string::npos || slash == std::string::npos) {
    return path.empty() || path[0] != '/' ? "." : "/";
  }
  const std::size_t last = path.find_last_not_of('/', slash);
  return last == std::string::npos ? "/" : path.substr(0, last + 1);
}

}  // namespace runel
