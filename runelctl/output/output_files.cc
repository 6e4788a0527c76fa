// SPDX-License-Identifier: Apache-2.0
#include "output/output_files.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "client/core/sha256.h"
#include "output/style.h"
#include "output/terminal_text.h"
#include "text/utf8.h"

namespace runelctl {
namespace {

constexpr char kOutSuffix[] = ".out";
constexpr char kErrSuffix[] = ".err";
// File systems accept 255 bytes, and a suffix follows.
constexpr std::size_t kMostNameBytes = 240;
constexpr std::size_t kSumDigits = 16;

// Whether @p character is a part of a file name as it is, if it is not the first one.
bool isPlain(std::string_view character) {
  return character != "/" && character != "%" && character != " " &&
         terminalSafe(character) == character;
}

std::string percentEscape(char byte) {
  char escape[8];
  std::snprintf(escape, sizeof escape, "%%%02x",
                static_cast<unsigned>(static_cast<unsigned char>(byte)));
  return escape;
}

}  // namespace

std::string fileNameFor(std::string_view device) {
  std::string name;
  for (std::string_view rest = device; !rest.empty();) {
    std::uint32_t code = 0;
    const std::size_t length = std::max<std::size_t>(zell::utf8Sequence(rest, code), 1);
    const std::string_view character = rest.substr(0, length);
    const bool hidden = name.empty() && character == ".";
    if (isPlain(character) && !hidden) {
      name += character;
    } else {
      for (const char byte : character) {
        name += percentEscape(byte);
      }
    }
    rest.remove_prefix(length);
  }
  if (name.size() <= kMostNameBytes) {
    return name;
  }
  runel::Sha256 sum;
  sum.add(device);
  return name.substr(0, kMostNameBytes - kSumDigits - 1) + "%" + sum.finish().substr(0, kSumDigits);
}

void OutputFiles::add(const zell::UniqueFd& file, std::string_view bytes) {
  if (error_ == 0 && !writeAll(file.get(), bytes)) {
    error_ = errno;
  }
}

int OutputDirectory::open(const std::string& path) {
  path_ = path;
  if (mkdir(path.c_str(), 0777) != 0 && errno != EEXIST) {
    return errno;
  }
  directory_.reset(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  return directory_.valid() ? 0 : errno;
}

// A new file instead of a truncated one: an existing name may be a link, or a file that another
// process reads.
zell::UniqueFd OutputDirectory::createFile(const std::string& name, bool again) {
  if (again) {
    return zell::UniqueFd(
        openat(directory_.get(), name.c_str(), O_WRONLY | O_APPEND | O_NOFOLLOW | O_CLOEXEC));
  }
  if (unlinkat(directory_.get(), name.c_str(), 0) != 0 && errno != ENOENT) {
    return zell::UniqueFd();
  }
  return zell::UniqueFd(openat(directory_.get(), name.c_str(),
                               O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
}

std::unique_ptr<OutputFiles> OutputDirectory::create(const std::string& device) {
  const std::string name = fileNameFor(device);
  const bool again = !created_.insert(name).second;
  zell::UniqueFd out = createFile(name + kOutSuffix, again);
  zell::UniqueFd err = out.valid() ? createFile(name + kErrSuffix, again) : zell::UniqueFd();
  if (!err.valid()) {
    return nullptr;
  }
  return std::make_unique<OutputFiles>(std::move(out), std::move(err));
}

std::string OutputDirectory::pathFor(const std::string& device) const {
  return path_ + "/" + fileNameFor(device) + kOutSuffix;
}

}  // namespace runelctl
