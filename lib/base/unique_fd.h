// SPDX-License-Identifier: Apache-2.0
// A file descriptor with an owner.
#ifndef ZELL_BASE_UNIQUE_FD_H_
#define ZELL_BASE_UNIQUE_FD_H_

#include <cerrno>
#include <utility>

#include <unistd.h>

namespace zell {

/// Owns one descriptor and closes it; -1 means no descriptor. Closing leaves errno unchanged, so
/// that an early return keeps the error of the failed call.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    reset(other.release());
    return *this;
  }

  [[nodiscard]] int get() const { return fd_; }
  [[nodiscard]] bool valid() const { return fd_ >= 0; }

  /// Releases ownership: the caller closes the descriptor.
  [[nodiscard]] int release() { return std::exchange(fd_, -1); }

  /// Closes the owned descriptor and takes ownership of @p fd.
  void reset(int fd = -1) {
    const int old = std::exchange(fd_, fd);
    if (old >= 0) {
      const int saved = errno;
      (void)::close(old);  // Linux frees the descriptor even when close fails
      errno = saved;
    }
  }

 private:
  int fd_ = -1;
};

}  // namespace zell

#endif  // ZELL_BASE_UNIQUE_FD_H_
