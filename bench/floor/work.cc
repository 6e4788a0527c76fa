// SPDX-License-Identifier: Apache-2.0
// The system calls of the tasks.
#include "work.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace zell::bench {
namespace {

constexpr std::size_t kPiece = 65536;
constexpr mode_t kPermissions = 07777;

std::string directoryOf(const std::string& path) {
  return path.substr(0, path.rfind('/') + 1);
}

Outcome exists(const std::string& path) {
  struct stat st {};
  return {"", stat(path.c_str(), &st) == 0 ? 0 : errno};
}

Outcome writeFile(const std::string& path, std::string_view data) {
  struct stat old {};
  (void)stat(path.c_str(), &old);
  const std::string beside = directoryOf(path) + ".floor";
  const int file = open(beside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  const int directory = open(directoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const bool done = write(file, data.data(), data.size()) == static_cast<ssize_t>(data.size()) &&
                    fsync(file) == 0 && close(file) == 0 &&
                    rename(beside.c_str(), path.c_str()) == 0 && fsync(directory) == 0;
  const int error = done ? 0 : errno;
  (void)close(directory);
  return {"", error};
}

Outcome readFile(const std::string& path) {
  Outcome outcome;
  struct stat st {};
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0 || fstat(file, &st) != 0) {
    return {"", errno};
  }
  outcome.text.resize(static_cast<std::size_t>(st.st_size));
  const ssize_t got = read(file, outcome.text.data(), outcome.text.size());
  outcome.error = got == st.st_size ? 0 : EIO;
  (void)close(file);
  return outcome;
}

Outcome exec(const std::string& program, const std::string& argument) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    return {"", errno};
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
  char* const argv[] = {const_cast<char*>(program.c_str()),
                        argument.empty() ? nullptr : const_cast<char*>(argument.c_str()), nullptr};
  pid_t pid = 0;
  Outcome outcome;
  outcome.error = posix_spawnp(&pid, program.c_str(), &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  (void)close(ends[1]);
  char piece[kPiece];
  ssize_t length = 0;
  while (outcome.error == 0 && (length = read(ends[0], piece, sizeof piece)) > 0) {
    outcome.text.append(piece, static_cast<std::size_t>(length));
  }
  (void)close(ends[0]);
  (void)waitpid(pid, nullptr, 0);
  return outcome;
}

std::vector<std::string> namesIn(int directory) {
  std::vector<std::string> names;
  alignas(dirent64) char buffer[32768];
  ssize_t length = 0;
  while ((length = getdents64(directory, buffer, sizeof buffer)) > 0) {
    for (ssize_t at = 0; at < length;) {
      const auto* entry = reinterpret_cast<const dirent64*>(buffer + at);
      if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
        names.emplace_back(entry->d_name);
      }
      at += entry->d_reclen;
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

Outcome readDir(const std::string& path) {
  const int directory = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const std::vector<std::string> names = namesIn(directory);
  (void)close(directory);
  Outcome outcome{"StringVec " + std::to_string(names.size()) + '\n', 0};
  for (const std::string& name : names) {
    outcome.text += std::to_string(name.size());
    outcome.text += ':';
    outcome.text += name;
    outcome.text += '\n';
  }
  return outcome;
}

void addLine(std::string& text, const char* name, const struct stat& st) {
  char line[512];
  const bool isFile = S_ISREG(st.st_mode);
  const int length = std::snprintf(line, sizeof line, "%c %04o %u %u %lld %lld %s\n",
                                   isFile ? '-' : 'd', st.st_mode & kPermissions, st.st_uid,
                                   st.st_gid, isFile ? static_cast<long long>(st.st_size) : 0LL,
                                   static_cast<long long>(st.st_mtim.tv_sec), name);
  text.append(line, static_cast<std::size_t>(length));
}

// Lists one directory with files in it.
Outcome walkTree(const std::string& path) {
  Outcome outcome;
  struct stat st {};
  (void)lstat(path.c_str(), &st);
  addLine(outcome.text, ".", st);
  const int directory = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  for (const std::string& name : namesIn(directory)) {
    (void)fstatat(directory, name.c_str(), &st, AT_SYMLINK_NOFOLLOW);
    addLine(outcome.text, name.c_str(), st);
  }
  (void)close(directory);
  return outcome;
}

}  // namespace

Outcome runTask(std::string_view name, std::string_view first, std::string_view second) {
  if (name == "fileexists") {
    return exists(std::string(first));
  }
  if (name == "write") {
    return writeFile(std::string(first), second);
  }
  if (name == "read") {
    return readFile(std::string(first));
  }
  if (name == "exec") {
    return exec(std::string(first), std::string(second));
  }
  if (name == "readdir") {
    return readDir(std::string(first));
  }
  if (name == "walktree") {
    return walkTree(std::string(first));
  }
  return {};
}

}  // namespace zell::bench
