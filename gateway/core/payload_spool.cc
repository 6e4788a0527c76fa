// SPDX-License-Identifier: Apache-2.0
#include "gateway/core/payload_spool.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <runel/error.h>

#include "base/unique_fd.h"

namespace runelgw {
namespace {

using runel::Cause;
using runel::Error;
using runel::Kind;

constexpr mode_t kOwnerOnly = 0600;

// A file without a name, also on file systems that cannot create one directly.
zell::UniqueFd openUnnamed(const std::string& directory) {
  zell::UniqueFd file(open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, kOwnerOnly));
  if (!file.valid() && (errno == EOPNOTSUPP || errno == EISDIR)) {
    std::string name = directory + "/runelgw.XXXXXX";
    file.reset(mkostemp(name.data(), O_CLOEXEC));
    if (file.valid()) {
      (void)unlink(name.c_str());  // it exists
    }
  }
  return file;
}

}  // namespace

/// The file and the accounting of its room. Each payload has its own range: the file grows at its
/// end, freed ranges become holes, and an empty file starts again.
class PayloadSpool::File {
 public:
  File(std::string directory, std::uint64_t limit)
      : directory_(std::move(directory)), limit_(limit) {}

  bool open() {
    if (!file_.valid()) {
      file_ = openUnnamed(directory_);
    }
    return file_.valid();
  }
  [[nodiscard]] bool fits(std::uint64_t size) const { return size <= limit_ - used_; }
  std::uint64_t reserve(std::uint64_t size) {
    used_ += size;
    return std::exchange(end_, end_ + size);
  }
  void free(std::uint64_t begin, std::uint64_t size) {
    used_ -= size;
    if (used_ == 0) {
      end_ = 0;
      (void)ftruncate(file_.get(), 0);  // a failure only keeps the blocks until the next use
    } else {
      (void)fallocate(file_.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                      static_cast<off_t>(begin), static_cast<off_t>(size));  // as above
    }
  }
  [[nodiscard]] bool write(std::uint64_t at, std::string_view bytes) const {
    while (!bytes.empty()) {
      const ssize_t put = pwrite(file_.get(), bytes.data(), bytes.size(), static_cast<off_t>(at));
      if (put < 0 && errno != EINTR) {
        return false;
      }
      const auto part = static_cast<std::size_t>(put < 0 ? 0 : put);
      bytes.remove_prefix(part);
      at += part;
    }
    return true;
  }
  [[nodiscard]] bool read(std::uint64_t at, char* bytes, std::size_t count) const {
    while (count > 0) {
      const ssize_t got = pread(file_.get(), bytes, count, static_cast<off_t>(at));
      if (got == 0 || (got < 0 && errno != EINTR)) {
        errno = got == 0 ? EIO : errno;
        return false;
      }
      const auto part = static_cast<std::size_t>(got < 0 ? 0 : got);
      bytes += part;
      at += part;
      count -= part;
    }
    return true;
  }
  [[nodiscard]] const std::string& directory() const { return directory_; }
  [[nodiscard]] std::uint64_t used() const { return used_; }
  [[nodiscard]] std::uint64_t limit() const { return limit_; }

 private:
  const std::string directory_;
  const std::uint64_t limit_;
  zell::UniqueFd file_;
  std::uint64_t used_ = 0;
  std::uint64_t end_ = 0;
};

/// The range of one payload.
class PayloadSpool::Extent : public PayloadSource {
 public:
  Extent(std::shared_ptr<File> file, std::uint64_t size)
      : file_(std::move(file)), begin_(file_->reserve(size)), size_(size) {}
  ~Extent() override { file_->free(begin_, size_); }

  [[nodiscard]] std::uint64_t size() const override { return size_; }
  [[nodiscard]] bool read(std::uint64_t offset, std::size_t count,
                          std::string& out) const override {
    out.resize(count);
    return file_->read(begin_ + offset, out.data(), count);
  }
  [[nodiscard]] bool write(std::uint64_t offset, std::string_view bytes) const {
    return file_->write(begin_ + offset, bytes);
  }

 private:
  const std::shared_ptr<File> file_;
  const std::uint64_t begin_;
  const std::uint64_t size_;
};

class PayloadSpool::Writer : public PayloadWriter {
 public:
  explicit Writer(std::shared_ptr<Extent> extent) : extent_(std::move(extent)) {}

  bool add(std::string_view bytes) override {
    if (error_ == 0 && bytes.size() > extent_->size() - written_) {
      error_ = EFBIG;
    } else if (error_ == 0 && !extent_->write(written_, bytes)) {
      error_ = errno;
    }
    written_ += error_ == 0 ? bytes.size() : 0;
    errno = error_ == 0 ? errno : error_;
    return error_ == 0;
  }
  [[nodiscard]] bool complete() const override {
    return error_ == 0 && written_ == extent_->size();
  }
  [[nodiscard]] Payload finish() override {
    return complete() ? Payload(std::shared_ptr<const PayloadSource>(std::move(extent_)))
                      : Payload();
  }

 private:
  std::shared_ptr<Extent> extent_;
  std::uint64_t written_ = 0;
  int error_ = 0;
};

PayloadSpool::PayloadSpool(std::string directory, std::uint64_t limit)
    : file_(std::make_shared<File>(std::move(directory), limit)) {}

PayloadSpool::~PayloadSpool() = default;

runel::Result<std::unique_ptr<PayloadWriter>> PayloadSpool::begin(std::uint64_t size) {
  if (!file_->fits(size)) {
    return Error(Kind::local, Cause::other,
                 "the temporary file is full (" + std::to_string(file_->used()) + " of " +
                     std::to_string(file_->limit()) + " bytes used)");
  }
  if (!file_->open()) {
    return Error::local(file_->directory() + ": cannot create a temporary file", errno);
  }
  return std::unique_ptr<PayloadWriter>(
      std::make_unique<Writer>(std::make_shared<Extent>(file_, size)));
}

std::uint64_t PayloadSpool::used() const {
  return file_->used();
}

std::uint64_t PayloadSpool::limit() const {
  return file_->limit();
}

}  // namespace runelgw
