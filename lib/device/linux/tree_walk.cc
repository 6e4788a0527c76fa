// SPDX-License-Identifier: Apache-2.0
#include "device/linux/tree_walk.h"

#include <cerrno>
#include <charconv>
#include <climits>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <zell/slave_task.h>

#include "base/file_mode.h"
#include "device/linux/directory_names.h"
#include "device/linux/paths.h"
#include "protocol/protocol.h"

namespace zell {
namespace {

constexpr std::size_t kOpenLevels = 30;

template <typename Number>
void addNumber(std::string& out, Number number) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
  out.append(digits, end);
  out += ' ';
}

void addPermissions(std::string& out, mode_t mode) {
  for (unsigned shift = 12; shift > 0; shift -= 3) {
    out += static_cast<char>('0' + ((mode & kPermissionBits) >> (shift - 3) & 7U));
  }
  out += ' ';
}

void addEscaped(std::string& out, const char* text, std::size_t length) {
  constexpr char kHex[] = "0123456789abcdef";
  for (std::size_t i = 0; i < length; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte < 0x20 || byte == 0x7f || byte == '\\') {
      out += {'\\', 'x', kHex[byte >> 4U], kHex[byte & 0xfU]};
    } else {
      out += text[i];
    }
  }
}

// Whether @p error means that the entry was removed or replaced since it was listed.
bool vanished(int error) {
  return error == ENOENT || error == ENOTDIR || error == ELOOP;
}

int openDirectory(int from, const char* name) {
  return openat(from, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

}  // namespace

bool TreeWalk::run(const std::string& path) {
  struct stat st {};
  error_ = errorOf(path, [&](const char* p) { return lstat(p, &st); });
  if (error_ != 0) {
    return false;
  }
  path_ = ".";
  if (!addLine(AT_FDCWD, path.c_str(), st)) {
    return false;
  }
  path_.clear();
  if (S_ISDIR(st.st_mode)) {
    enter(AT_FDCWD, path.c_str(), st);
  }
  while (!levels_.empty()) {
    visitNext();
  }
  return true;
}

// Enters the directory @p name, which already has its line.
void TreeWalk::enter(int from, const char* name, const struct stat& st) {
  Level level{UniqueFd(openDirectory(from, name)), st.st_dev, st.st_ino, {}, 0, path_.size()};
  const int failure =
      level.directory.valid() ? readNames(level.directory.get(), level.names) : errno;
  if (failure != 0 && !vanished(failure)) {
    note(failure);
  }
  if (failure != 0) {
    return;
  }
  levels_.push_back(std::move(level));
  if (levels_.size() > kOpenLevels) {
    levels_[levels_.size() - kOpenLevels - 1].directory.reset();
  }
}

void TreeWalk::leave() {
  const Level done = std::move(levels_.back());
  levels_.pop_back();
  if (!levels_.empty() && !levels_.back().directory.valid() &&
      !reopen(levels_.back(), done.directory.get())) {
    levels_.back().next = levels_.back().names.size();
  }
}

// Reopens a directory that was closed to save descriptors for the ones @p below it.
bool TreeWalk::reopen(Level& level, int below) {
  level.directory.reset(openDirectory(below, ".."));
  struct stat st {};
  if (!level.directory.valid() || fstat(level.directory.get(), &st) != 0) {
    note(errno);
    return false;
  }
  if (st.st_dev != level.device || st.st_ino != level.inode) {
    note(ESTALE);  // the directory below was moved, so ".." leads elsewhere
    return false;
  }
  return true;
}

void TreeWalk::visitNext() {
  Level& level = levels_.back();
  if (level.next == level.names.size() || error_ == EFBIG) {
    leave();
    return;
  }
  const std::string name = std::move(level.names[level.next++]);
  visit(level.directory.get(), name, level.pathLength);
}

void TreeWalk::visit(int directory, const std::string& name, std::size_t pathLength) {
  struct stat st {};
  if (fstatat(directory, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    if (!vanished(errno)) {
      note(errno);
    }
    return;
  }
  path_.resize(pathLength);
  if (pathLength > 0) {
    path_ += '/';
  }
  addEscaped(path_, name.data(), name.size());
  if (addLine(directory, name.c_str(), st) && S_ISDIR(st.st_mode)) {
    enter(directory, name.c_str(), st);
  }
}

// Adds the line of an entry. Returns false for a link that no longer exists.
bool TreeWalk::addLine(int directory, const char* name, const struct stat& st) {
  char target[PATH_MAX];
  ssize_t targetLength = 0;
  if (S_ISLNK(st.st_mode)) {
    targetLength = readlinkat(directory, name, target, sizeof target);
    if (targetLength < 0) {
      if (!vanished(errno) && errno != EINVAL) {
        note(errno);
      }
      return false;
    }
  }
  lines_ += typeLetter(st.st_mode);
  lines_ += ' ';
  addPermissions(lines_, st.st_mode);
  addNumber(lines_, st.st_uid);
  addNumber(lines_, st.st_gid);
  addNumber(lines_, S_ISREG(st.st_mode) ? st.st_size : 0);
  addNumber(lines_, st.st_mtim.tv_sec);
  lines_ += path_;
  if (S_ISLNK(st.st_mode)) {
    lines_ += " -> ";
    addEscaped(lines_, target, static_cast<std::size_t>(targetLength));
  }
  lines_ += '\n';
  if (lines_.size() > kMaxReplyText) {
    error_ = EFBIG;  // does not fit into a reply: stop the walk
  }
  return true;
}

}  // namespace zell
