// SPDX-License-Identifier: Apache-2.0
#include "support/spied_calls.h"

#include <cerrno>
#include <cstdarg>
#include <set>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

namespace zell::test {
namespace {

SpiedCalls* g_spy = nullptr;

// Whether the call @p name must fail; then sets errno.
bool fails(const char* name) {
  SpiedCalls* const spy = g_spy;
  if (spy == nullptr) {
    return false;
  }
  g_spy = nullptr;  // not part of the recorded calls
  const int error = spy->note(name);
  g_spy = spy;
  errno = error;
  return error != 0;
}

template <typename... Arguments>
long forward(const char* name, long number, Arguments... arguments) {
  if (fails(name)) {
    return errno == SpiedCalls::kReturnsZero ? 0 : -1;
  }
  return syscall(number, arguments...);
}

// By statx(2), because the structure of the other system calls depends on the processor.
int statOf(int directory, const char* name, int flags, struct stat& st) {
  struct statx found {};
  if (statx(directory, name, flags, STATX_BASIC_STATS, &found) != 0) {
    return -1;
  }
  const auto time = [](const statx_timestamp& from, timespec& to) {
    to.tv_sec = static_cast<decltype(to.tv_sec)>(from.tv_sec);
    to.tv_nsec = static_cast<decltype(to.tv_nsec)>(from.tv_nsec);
  };
  st = {};
  st.st_dev = makedev(found.stx_dev_major, found.stx_dev_minor);
  st.st_ino = found.stx_ino;
  st.st_mode = found.stx_mode;
  st.st_nlink = found.stx_nlink;
  st.st_uid = found.stx_uid;
  st.st_gid = found.stx_gid;
  st.st_rdev = makedev(found.stx_rdev_major, found.stx_rdev_minor);
  st.st_size = static_cast<off_t>(found.stx_size);
  st.st_blksize = static_cast<decltype(st.st_blksize)>(found.stx_blksize);
  st.st_blocks = static_cast<blkcnt_t>(found.stx_blocks);
  time(found.stx_atime, st.st_atim);
  time(found.stx_mtime, st.st_mtim);
  time(found.stx_ctime, st.st_ctim);
  return 0;
}

const char* fsyncOf(int fd) {
  struct stat st {};
  return statOf(fd, "", AT_EMPTY_PATH, st) == 0 && S_ISDIR(st.st_mode) ? "fsync directory"
                                                                       : "fsync file";
}

int renamed(int from, const char* name, int to, const char* newName) {
#ifdef SYS_renameat
  return static_cast<int>(forward("renameat", SYS_renameat, from, name, to, newName));
#else  // riscv64
  return static_cast<int>(forward("renameat", SYS_renameat2, from, name, to, newName, 0));
#endif
}

#ifdef SYS_utimensat_time64
constexpr long kUtimensat = SYS_utimensat_time64;  // a 32-bit processor
#else
constexpr long kUtimensat = SYS_utimensat;
#endif

}  // namespace

SpiedCalls::SpiedCalls() {
  g_spy = this;
}

SpiedCalls::~SpiedCalls() {
  g_spy = nullptr;
}

int SpiedCalls::note(const std::string& name) {
  static const std::set<std::string> unrecorded{
      "openat file", "openat directory", "close",     "read",     "fstat",           "fstatat",
      "readlinkat",  "mkdirat",          "symlinkat", "futimens", "sync_file_range", "pwrite"};
  if (unrecorded.count(name) == 0) {
    calls_.push_back(name);
  }
  const auto found = failures_.find(name);
  if (found == failures_.end()) {
    return 0;
  }
  const Failure failure = found->second;
  if (failure.passed > 0) {
    --found->second.passed;
    return 0;
  }
  if (failure.passed == 0) {
    failures_.erase(found);
  }
  if (failure.action) {
    failure.action();
  }
  return failure.error;
}

}  // namespace zell::test

// Replace the functions of the C library at link time.
extern "C" {

using zell::test::forward;

int fsync(int fd) {
  return static_cast<int>(forward(zell::test::fsyncOf(fd), SYS_fsync, fd));
}

int syncfs(int fd) noexcept {
  return static_cast<int>(forward("syncfs", SYS_syncfs, fd));
}

// Some processors take the arguments of the system call in another order.
int sync_file_range(int /*fd*/, off64_t /*offset*/, off64_t /*size*/, unsigned /*flags*/) {
  return zell::test::fails("sync_file_range") ? -1 : 0;
}

int openat(int directory, const char* name, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  const char* const call = (flags & O_DIRECTORY) != 0 ? "openat directory" : "openat file";
  return static_cast<int>(forward(call, SYS_openat, directory, name, flags | O_LARGEFILE, mode));
}

ssize_t write(int fd, const void* data, size_t size) {
  return forward("write", SYS_write, fd, data, size);
}

ssize_t read(int fd, void* data, size_t size) {
  return forward("read", SYS_read, fd, data, size);
}

int fstatat(int directory, const char* name, struct stat* st, int flags) noexcept {
  if (zell::test::fails("fstatat")) {
    return -1;
  }
  return zell::test::statOf(directory, name, flags, *st);
}

int fstat(int fd, struct stat* st) noexcept {
  if (zell::test::fails("fstat")) {
    return -1;
  }
  return zell::test::statOf(fd, "", AT_EMPTY_PATH, *st);
}

ssize_t readlinkat(int directory, const char* name, char* target, size_t size) noexcept {
  return forward("readlinkat", SYS_readlinkat, directory, name, target, size);
}

int renameat(int from, const char* name, int to, const char* newName) noexcept {
  return zell::test::renamed(from, name, to, newName);
}

// Some processors take the offset of the system call in another place.
ssize_t pwrite(int fd, const void* bytes, size_t count, off_t offset) {
  if (zell::test::fails("pwrite")) {
    return errno == zell::test::SpiedCalls::kReturnsZero ? 0 : -1;
  }
  const iovec part{const_cast<void*>(bytes), count};  // iovec has no const
  return pwritev(fd, &part, 1, offset);
}

int mkdirat(int directory, const char* name, mode_t mode) noexcept {
  return static_cast<int>(forward("mkdirat", SYS_mkdirat, directory, name, mode));
}

int symlinkat(const char* target, int directory, const char* name) noexcept {
  return static_cast<int>(forward("symlinkat", SYS_symlinkat, target, directory, name));
}

int futimens(int fd, const timespec* times) noexcept {
  return static_cast<int>(forward("futimens", zell::test::kUtimensat, fd, nullptr, times, 0));
}

// Some processors take the size of the system call in two parts.
int ftruncate(int fd, off_t size) noexcept {
  if (zell::test::fails("ftruncate")) {
    return -1;
  }
  static const auto kNext =
      reinterpret_cast<int (*)(int, off64_t)>(dlsym(RTLD_NEXT, "ftruncate64"));
  return kNext(fd, size);
}

int fchown(int fd, uid_t user, gid_t group) noexcept {
  return static_cast<int>(forward("fchown", SYS_fchownat, fd, "", user, group, AT_EMPTY_PATH));
}

int fchmod(int fd, mode_t mode) noexcept {
  return static_cast<int>(forward("fchmod", SYS_fchmod, fd, mode));
}

pid_t waitpid(pid_t pid, int* status, int options) {
  return static_cast<pid_t>(forward("waitpid", SYS_wait4, pid, status, options, nullptr));
}

int waitid(idtype_t type, id_t id, siginfo_t* info, int options) {
  return static_cast<int>(forward("waitid", SYS_waitid, type, id, info, options, nullptr));
}

// Like the kernel, closes the descriptor even if the call fails.
int close(int fd) {
  const bool failed = zell::test::fails("close");
  const int error = errno;
  const int result = static_cast<int>(syscall(SYS_close, fd));
  if (failed) {
    errno = error;
  }
  return failed ? -1 : result;
}

}  // extern "C"
