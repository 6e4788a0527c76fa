// SPDX-License-Identifier: Apache-2.0
#include "client/io/spool.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace runel {
inline namespace v1 {
namespace {

// So much of each text is not counted: many short texts need little memory.
constexpr std::size_t kUncounted = 16384;
// Smaller parts are collected before they are written to the file.
constexpr std::size_t kLeastSpilled = 65536;
constexpr std::size_t kHeldPiece = 262144;

// Creates a file without a name. It disappears with its descriptor.
zell::UniqueFd openUnnamed() {
  const char* chosen = std::getenv("TMPDIR");
  const std::string directory = chosen != nullptr && *chosen == '/' ? chosen : "/tmp";
  zell::UniqueFd file(open(directory.c_str(), O_RDWR | O_TMPFILE | O_EXCL | O_CLOEXEC, 0600));
  if (!file.valid() && (errno == EOPNOTSUPP || errno == EISDIR)) {
    std::string path = directory + "/runelctl-XXXXXX";
    file.reset(mkostemp(path.data(), O_CLOEXEC));
    if (file.valid()) {
      (void)unlink(path.c_str());  // on failure an empty name stays, which does no harm
    }
  }
  return file;
}

}  // namespace

bool Spool::use(std::size_t bytes, Held held) {
  const std::size_t limit = held == Held::waiting ? limit_ / 2 : limit_;
  if (bytes > limit || used_ > limit - bytes) {
    return false;
  }
  used_ += bytes;
  return true;
}

// After a failure the file gets nothing more: a full disk is not tried again for each piece.
std::optional<std::uint64_t> Spool::write(std::string_view bytes) {
  if (error_ == 0 && !file_.valid()) {
    file_ = openUnnamed();
    error_ = file_.valid() ? 0 : errno;
  }
  std::size_t done = 0;
  while (error_ == 0 && done < bytes.size()) {
    const ssize_t taken = pwrite(file_.get(), bytes.data() + done, bytes.size() - done,
                                 static_cast<off_t>(end_ + done));
    if (taken > 0) {
      done += static_cast<std::size_t>(taken);
    } else if (taken == 0 || errno != EINTR) {
      error_ = taken == 0 ? ENOSPC : errno;
    }
  }
  if (error_ != 0) {
    discard(end_, done);
    return std::nullopt;
  }
  end_ += bytes.size();
  return end_ - bytes.size();
}

bool Spool::read(std::uint64_t offset, char* bytes, std::size_t count) const {
  std::size_t done = 0;
  while (done < count) {
    const ssize_t got =
        pread(file_.get(), bytes + done, count - done, static_cast<off_t>(offset + done));
    if (got == 0) {
      errno = EIO;  // another process has truncated the file
      return false;
    }
    if (got < 0 && errno != EINTR) {
      return false;
    }
    done += got < 0 ? 0 : static_cast<std::size_t>(got);
  }
  return true;
}

void Spool::discard(std::uint64_t offset, std::size_t count) {
  if (count > 0) {
    // On failure the space is released with the file.
    (void)fallocate(file_.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                    static_cast<off_t>(offset), static_cast<off_t>(count));
  }
}

HeldBytes::HeldBytes(HeldBytes&& other) noexcept {
  swap(other);
}

HeldBytes& HeldBytes::operator=(HeldBytes&& other) noexcept {
  HeldBytes before(std::move(*this));
  swap(other);
  return *this;
}

void HeldBytes::swap(HeldBytes& other) noexcept {
  std::swap(spool_, other.spool_);
  std::swap(held_, other.held_);
  std::swap(extents_, other.extents_);
  std::swap(spilled_, other.spilled_);
  std::swap(memory_, other.memory_);
  std::swap(counted_, other.counted_);
  std::swap(size_, other.size_);
  std::swap(last_, other.last_);
}

void HeldBytes::clear() {
  if (spool_) {
    for (const Extent& extent : extents_) {
      spool_->discard(extent.offset, extent.size);
    }
    spool_->free(counted_);
  }
  extents_.clear();
  std::string().swap(memory_);
  spilled_ = 0;
  counted_ = 0;
  size_ = 0;
}

void HeldBytes::expect(std::size_t bytes) {
  if (makeRoom(bytes)) {
    memory_.reserve(memory_.size() + bytes);
  }
}

// Counts the memory for @p bytes more. It grows in steps, so that a text of many lines is seldom
// copied, but never by more than half, so that little of it stays unused.
bool HeldBytes::makeRoom(std::size_t bytes) {
  const std::size_t needed = memory_.size() + bytes;
  if (!spool_ || needed <= counted_) {
    return true;
  }
  if (!extents_.empty() || needed <= kUncounted) {
    return extents_.empty();
  }
  for (const std::size_t wanted : {std::max(needed, memory_.size() / 2 * 3), needed}) {
    if (spool_->use(wanted - counted_, held_)) {
      counted_ = wanted;
      return true;
    }
  }
  return false;
}

void HeldBytes::add(std::string_view bytes) {
  if (bytes.empty()) {
    return;
  }
  size_ += bytes.size();
  last_ = bytes.back();
  if (!makeRoom(bytes.size())) {
    spill(bytes);
    return;
  }
  if (memory_.capacity() < counted_) {
    memory_.reserve(counted_);
  }
  memory_.append(bytes);
}

void HeldBytes::take(std::string&& bytes) {
  if (size_ > 0 || bytes.empty() || !makeRoom(bytes.capacity())) {
    add(bytes);
    std::string().swap(bytes);
    return;
  }
  size_ = bytes.size();
  last_ = bytes.back();
  memory_ = std::move(bytes);
}

// Everything before @p bytes goes to the file first. Short parts are collected in memory.
void HeldBytes::spill(std::string_view bytes) {
  const bool collect = !extents_.empty() && memory_.size() + bytes.size() < kLeastSpilled;
  if (!collect && append(memory_)) {
    std::string().swap(memory_);
    spool_->free(std::exchange(counted_, 0));
    if (append(bytes)) {
      return;
    }
  }
  memory_.append(bytes);
  if (!collect) {
    // The file is full. Count what cannot be helped.
    const std::size_t more = memory_.size() - std::min(counted_, memory_.size());
    spool_->useAnyway(more);
    counted_ += more;
  }
}

// Appends @p bytes to the file.
bool HeldBytes::append(std::string_view bytes) {
  if (bytes.empty()) {
    return true;
  }
  const std::optional<std::uint64_t> offset = spool_->write(bytes);
  if (!offset) {
    return false;
  }
  if (!extents_.empty() && extents_.back().offset + extents_.back().size == *offset) {
    extents_.back().size += bytes.size();
  } else {
    extents_.push_back({*offset, bytes.size()});
  }
  spilled_ += bytes.size();
  return true;
}

// Copies @p count bytes from the position @p begin.
bool HeldBytes::copy(std::size_t begin, char* bytes, std::size_t count) const {
  std::size_t first = 0;  // the position of the extent
  for (const Extent& extent : extents_) {
    if (count > 0 && begin < first + extent.size) {
      const std::size_t part = std::min(count, first + extent.size - begin);
      if (!spool_->read(extent.offset + (begin - first), bytes, part)) {
        return false;
      }
      begin += part;
      bytes += part;
      count -= part;
    }
    first += extent.size;
  }
  if (count > 0) {
    memory_.copy(bytes, count, begin - spilled_);
  }
  return true;
}

// The piece at the position @p begin, in memory or in @p buffer.
std::optional<std::string_view> HeldBytes::piece(std::size_t begin, std::string& buffer) const {
  const std::size_t count = std::min(kHeldPiece, size_ - begin);
  if (begin >= spilled_) {
    return std::string_view(memory_).substr(begin - spilled_, count);
  }
  buffer.resize(count);
  if (!copy(begin, buffer.data(), count)) {
    return std::nullopt;
  }
  return buffer;
}

bool HeldBytes::forEach(const std::function<bool(std::string_view)>& each) const {
  std::string buffer;
  for (std::size_t begin = 0; begin < size_; begin += kHeldPiece) {
    const std::optional<std::string_view> part = piece(begin, buffer);
    if (!part || !each(*part)) {
      return false;
    }
  }
  return true;
}

bool HeldBytes::operator==(const HeldBytes& other) const {
  if (size_ != other.size_) {
    return false;
  }
  std::string buffer;
  std::size_t begin = 0;
  return forEach([&](std::string_view part) {
    const std::optional<std::string_view> same = other.piece(begin, buffer);
    begin += part.size();
    return same && *same == part;
  });
}

std::optional<std::string> HeldBytes::release() {
  std::string bytes;
  if (extents_.empty()) {
    bytes = std::move(memory_);
  } else {
    bytes.resize(size_);
    if (!copy(0, bytes.data(), size_)) {
      return std::nullopt;
    }
  }
  clear();
  return bytes;
}

}  // namespace v1
}  // namespace runel
