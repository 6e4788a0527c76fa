// SPDX-License-Identifier: Apache-2.0
// Names and link targets in the output of a walk. The input is a name, a zero byte, a target.
#include <cstdlib>
#include <sstream>
#include <string>
#include <string_view>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <zell/file_tree_walker.h>
#include <zell/slave_proxy_local.h>

#include "base/unique_fd.h"
#include "fuzz.h"
#include "support/temp_dir.h"

namespace {

using zell::fuzz::require;

constexpr std::size_t kLongestName = 255;
constexpr std::size_t kLongestTarget = 4000;

std::string escaped(std::string_view text) {
  std::ostringstream out;
  for (const char byte : text) {
    const auto code = static_cast<unsigned char>(byte);
    if (code > 0x1f && code != 0x7f && byte != '\\') {
      out << byte;
    } else {
      out << "\\x" << (code < 16 ? "0" : "") << std::hex << static_cast<unsigned>(code);
    }
  }
  return out.str();
}

// The bytes of @p text that may occur in a file name.
std::string nameFrom(std::string text) {
  for (char& byte : text) {
    byte = byte == '/' ? '|' : byte;
  }
  text.resize(std::min(text.size(), kLongestName));
  return text.empty() || text == "." || text == ".." ? "name" : text;
}

std::string endOf(const struct stat& st, const std::string& name) {
  return std::to_string(st.st_uid) + " " + std::to_string(st.st_gid) + " 0 " +
         std::to_string(st.st_mtim.tv_sec) + " " + escaped(name);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const zell::test::TempDir kDirectory;
  const std::string input = zell::fuzz::toString(data, size);
  const std::size_t zero = input.find('\0');
  const std::string name = nameFrom(input.substr(0, zero));
  std::string target = zero == std::string::npos ? "" : input.substr(zero + 1);
  target = target.substr(0, std::min(target.find('\0'), kLongestTarget));
  target = target.empty() ? "target" : target;

  const zell::UniqueFd directory(open(kDirectory.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  require(symlinkat(target.c_str(), directory.get(), name.c_str()) == 0);
  struct stat top {};
  struct stat link {};
  require(fstat(directory.get(), &top) == 0);
  require(fstatat(directory.get(), name.c_str(), &link, AT_SYMLINK_NOFOLLOW) == 0);

  zell::SlaveProxyLocal proxy;
  const zell::FileTreeWalker* const walker = proxy.walkTree(kDirectory.path());
  require(walker != nullptr);
  std::ostringstream printed;
  walker->print(printed);
  require(printed.str() == "d 0700 " + endOf(top, ".") + "\nl 0777 " + endOf(link, name) + " -> " +
                               escaped(target) + "\n");
  require(unlinkat(directory.get(), name.c_str(), 0) == 0);
  return 0;
}
