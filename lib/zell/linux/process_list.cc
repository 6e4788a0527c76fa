// SPDX-License-Identifier: Apache-2.0
#include "zell/linux/process_list.h"

#include <algorithm>
#include <cerrno>
#include <vector>

#include "zell/linux/file_io.h"
#include "zell/linux/folder_names.h"
#include "zell/linux/paths.h"

namespace zell {
namespace {

constexpr std::size_t kLongestFile =
    std::size_t{16} * 1024 * 1024;  // far above what the kernel gives

bool isNumber(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// A file of the process @p folder; empty when it has ended.
std::string contentOf(const std::string& folder, const char* name) {
  std::string content;
  return readWholeFile(folder + name, kLongestFile, content) == 0 ? content : std::string();
}

bool hasComm(const std::string& folder, const std::string& name) {
  const std::string comm = contentOf(folder, "/comm");
  return !comm.empty() && comm.compare(0, comm.size() - 1, name) == 0;  // less its newline
}

bool hasArgument(const std::string& folder, const std::string& name) {
  const std::string commandLine = contentOf(folder, "/cmdline");
  const std::size_t end = commandLine.find('\0');
  if (end == std::string::npos) {
    return false;  // a thread of the kernel, or a zombie
  }
  const std::string first = commandLine.substr(0, end);
  return first == name || first.substr(first.rfind('/') + 1) == name;
}

// The state letter stands behind the name in parentheses, which may itself hold any.
bool isZombie(const std::string& folder) {
  const std::string stat = contentOf(folder, "/stat");
  const std::size_t end = stat.rfind(") ");
  return end == std::string::npos || stat[end + 2] == 'Z' || stat[end + 2] == 'X';
}

}  // namespace

int findProcess(const std::string& name) {
  if (hasZeroByte(name)) {
    return EINVAL;
  }
  std::vector<std::string> entries;
  if (const int error = readNames("/proc", entries)) {
    return error;
  }
  const bool found = std::any_of(entries.begin(), entries.end(), [&](const std::string& entry) {
    const std::string folder = "/proc/" + entry;
    return isNumber(entry) && (hasComm(folder, name) || hasArgument(folder, name)) &&
           !isZombie(folder);
  });
  return found ? 0 : ESRCH;
}

}  // namespace zell
