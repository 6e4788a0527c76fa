// SPDX-License-Identifier: Apache-2.0
#include "device/linux/process_list.h"

#include <algorithm>
#include <cerrno>
#include <vector>

#include "device/linux/directory_names.h"
#include "device/linux/file_io.h"
#include "device/linux/paths.h"

namespace zell {
namespace {

constexpr std::size_t kLongestFile = std::size_t{16} * 1024 * 1024;  // far above the kernel's limit

bool isNumber(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// The content of a file of the process in @p directory. Empty when the process has ended.
std::string contentOf(const std::string& directory, const char* name) {
  std::string content;
  return readWholeFile(directory + name, kLongestFile, content) == 0 ? content : std::string();
}

bool hasComm(const std::string& directory, const std::string& name) {
  const std::string comm = contentOf(directory, "/comm");
  return !comm.empty() && comm.compare(0, comm.size() - 1, name) == 0;  // without its newline
}

bool hasArgument(const std::string& directory, const std::string& name) {
  const std::string commandLine = contentOf(directory, "/cmdline");
  const std::size_t end = commandLine.find('\0');
  if (end == std::string::npos) {
    return false;  // a kernel thread or a zombie
  }
  const std::string first = commandLine.substr(0, end);
  return first == name || first.substr(first.rfind('/') + 1) == name;
}

// The state letter follows the name in parentheses. The name itself may contain parentheses.
bool isZombie(const std::string& directory) {
  const std::string stat = contentOf(directory, "/stat");
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
    const std::string directory = "/proc/" + entry;
    return isNumber(entry) && (hasComm(directory, name) || hasArgument(directory, name)) &&
           !isZombie(directory);
  });
  return found ? 0 : ESRCH;
}

}  // namespace zell
