// SPDX-License-Identifier: Apache-2.0
// The device's hosts file, which tells the local programs the address of the master.
#include "agent/runel.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "base/file_mode.h"
#include "base/log.h"
#include "base/unique_fd.h"

namespace zell {
namespace {

// The host name that the programs on the device use for the master.
constexpr char kMasterAlias[] = "update-master";

constexpr mode_t kFillingMode = 0600;  // the old file may be readable only by its owner
constexpr mode_t kNewFileMode = 0644;

struct CloseStream {
  void operator()(std::FILE* stream) const { (void)std::fclose(stream); }
};
using Stream = std::unique_ptr<std::FILE, CloseStream>;

// Opens a stream on @p fd. Null with errno set when the open or the allocation fails.
Stream openStream(UniqueFd fd, const char* mode) {
  Stream stream(fd.valid() ? fdopen(fd.get(), mode) : nullptr);
  if (stream != nullptr) {
    (void)fd.release();  // the stream owns it now
  }
  return stream;
}

// O_NONBLOCK, as for the output: a FIFO at either path must not hang the daemon.
Stream openInput(const std::string& path) {
  return openStream(UniqueFd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)), "r");
}

// Gives @p fd the permission bits and the owner of the file that it will replace.
bool takeAttributes(int fd, std::FILE* replaced) {
  if (replaced == nullptr) {
    return fchmod(fd, kNewFileMode) == 0;  // sets the mode regardless of the umask
  }
  struct stat old {};
  return fstat(fileno(replaced), &old) == 0 && fchown(fd, old.st_uid, old.st_gid) == 0 &&
         fchmod(fd, old.st_mode & kPermissionBits) == 0;
}

// Always a new file. The unlink removes what an interrupted rewrite or another program left at the
// path, so that nothing is written through an existing link. If the unlink fails, the open reports
// the error.
Stream openOutput(const std::string& path) {
  (void)unlink(path.c_str());
  constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  return openStream(UniqueFd(open(path.c_str(), kFlags, kFillingMode)), "w");
}

bool writeLine(std::FILE* out, std::string_view line) {
  return std::fwrite(line.data(), 1, line.size(), out) == line.size() &&
         std::fputc('\n', out) != EOF;
}

bool namesMaster(std::string_view line) {
  static const std::string kMark = std::string(" ") + kMasterAlias;
  return line.find(kMark) != std::string_view::npos;
}

// The buffer of getline(3).
struct LineBuffer {
  LineBuffer() = default;
  ~LineBuffer() { std::free(bytes); }
  LineBuffer(const LineBuffer&) = delete;
  LineBuffer& operator=(const LineBuffer&) = delete;

  char* bytes = nullptr;
  std::size_t size = 0;
};

struct Copy {
  bool ended = true;  // the input was read to its end
  bool good = true;   // every write succeeded
  int error = 0;      // errno of the first failure
};

// Copies the lines that do not name the master. A line may have any length and contain any bytes.
Copy copyLines(std::FILE* in, std::FILE* out) {
  Copy copy;
  LineBuffer line;
  ssize_t length = 0;
  errno = 0;
  while (copy.good && (length = getline(&line.bytes, &line.size, in)) >= 0) {
    std::string_view text(line.bytes, static_cast<std::size_t>(length));
    if (!text.empty() && text.back() == '\n') {
      text.remove_suffix(1);
    }
    copy.good = namesMaster(text) || writeLine(out, text);
  }
  copy.error = errno;
  copy.ended = !copy.good || std::feof(in) != 0;
  return copy;
}

// Writes the whole new content, then sets mode and owner. On success everything is on disk.
Copy writeHosts(std::FILE* in, std::FILE* out, const std::string& address) {
  Copy copy;
  if (in == nullptr) {
    copy.good = writeLine(out, "127.0.0.1 localhost");
  } else {
    copy = copyLines(in, out);
  }
  if (copy.ended && copy.good) {
    copy.good = writeLine(out, address + " " + kMasterAlias) && std::fflush(out) == 0 &&
                takeAttributes(fileno(out), in) && fsync(fileno(out)) == 0;
    copy.error = errno;
  }
  return copy;
}

}  // namespace

void Runel::logError(const std::string& a, const std::string& b) {
  logLine(LOG_ERR, "%s%s,%m", a.c_str(), b.c_str());
}

void Runel::logWarning(const std::string& a, const std::string& b) {
  logLine(LOG_WARNING, "%s%s", a.c_str(), b.c_str());
}

void Runel::setEtcHosts(const std::string& path, const std::string& address) {
  const std::string beside = path + ".new";
  const Stream in = openInput(path);
  if (in == nullptr) {
    logWarning("setEtcHosts: cannot open ", path);
  }
  Stream out = openOutput(beside);
  if (out == nullptr) {
    logError("setEtcHosts: cannot open ", beside);
    (void)unlink(beside.c_str());
    return;
  }
  const Copy copy = writeHosts(in.get(), out.get(), address);
  out.reset();
  errno = copy.error;
  if (!copy.ended) {
    logError("setEtcHosts: error reading ", path);
  } else if (!copy.good) {
    logError("setEtcHosts: error writing ", beside);
  } else if (rename(beside.c_str(), path.c_str()) != 0) {
    logError("setEtcHosts: cannot rename " + beside + " to ", path);
  }
  (void)unlink(beside.c_str());  // fails after a successful rename, which is harmless
}

}  // namespace zell
