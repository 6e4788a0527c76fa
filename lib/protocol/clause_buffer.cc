// SPDX-License-Identifier: Apache-2.0
#include "protocol/clause_buffer.h"

#include <algorithm>
#include <utility>

#include "base/blank.h"
#include "protocol/protocol.h"

namespace zell {
namespace {

// Empties @p text and releases its storage when that is large.
void release(std::string& text) {
  text.clear();
  if (text.capacity() > ClauseBuffer::kKeptCapacity) {
    std::string().swap(text);
  }
}

}  // namespace

void ClauseBuffer::append(std::string_view bytes) {
  data_.append(bytes);
}

ClauseBuffer::Next ClauseBuffer::next(std::string& clause) {
  if (!findStart()) {
    clear();
    return Next::empty;
  }
  if (findSentinel()) {
    return Next::sentinel;
  }
  if (rest()[search_.start] != kClauseStart) {
    return Next::notOpening;
  }
  if (!findGt()) {
    return Next::noGt;
  }
  if (rest()[search_.gt - 1] == '/') {
    blanks_.append(rest().substr(0, search_.start));
    take(search_.gt + 1, clause);
    return Next::cut;
  }
  std::size_t end = 0;
  if (!findClosing(end)) {
    return Next::noClosing;
  }
  release(blanks_);
  take(end, clause);
  return Next::cut;
}

std::string ClauseBuffer::first(std::size_t count) const {
  std::string text = blanks_.substr(0, count);
  text.append(rest().substr(0, count - text.size()));
  return text;
}

std::string ClauseBuffer::last(std::size_t count) const {
  const std::string_view bytes = rest();
  const std::size_t fromRest = std::min(count, bytes.size());
  const std::size_t fromBlanks = std::min(count - fromRest, blanks_.size());
  std::string text = blanks_.substr(blanks_.size() - fromBlanks);
  text.append(bytes.substr(bytes.size() - fromRest));
  return text;
}

bool ClauseBuffer::endsWith(std::string_view text) const {
  const std::string_view bytes = rest();
  return bytes.size() >= text.size() && bytes.substr(bytes.size() - text.size()) == text;
}

bool ClauseBuffer::findStart() {
  if (search_.start == kUnknown) {
    const std::string_view bytes = rest();
    const auto* const start = std::find_if_not(bytes.begin(), bytes.end(), isBlank);
    work_ += static_cast<std::size_t>(start - bytes.begin());
    if (start == bytes.end()) {
      return false;
    }
    search_.start = static_cast<std::size_t>(start - bytes.begin());
  }
  return true;
}

bool ClauseBuffer::findSentinel() {
  if (!sentinel_) {
    const std::string_view fresh = rest().substr(clean_);
    work_ += fresh.size();
    sentinel_ = fresh.find(kFrameStart) != kUnknown || fresh.find(kCountEnd) != kUnknown;
    clean_ += fresh.size();
  }
  return sentinel_;
}

bool ClauseBuffer::findGt() {
  if (search_.gt == kUnknown) {
    search_.gt = nextGt();
  }
  return search_.gt != kUnknown;
}

// Searches the whole buffer for the closing tag: "</" and the name in the opening tag, which
// includes the tag's only '>'. A match ends in a '>' and contains no other '>', so it can only end
// at a '>' that follows the previous '>' by at least the length of the closing tag. So the compared
// windows never overlap, and all comparisons together cost no more than the search for '>'. No
// window ends at the opening tag's '>' or begins before that tag: only whitespace precedes the tag,
// and a match that begins at its '<' would require a name of slashes alone. So the first match is
// the first closing tag in the buffer.
bool ClauseBuffer::findClosing(std::size_t& end) {
  const std::string_view name = rest().substr(search_.start + 1, search_.gt - search_.start);
  const std::size_t length = name.size() + 2;
  for (;;) {
    const std::size_t before = search_.lastGt;
    const std::size_t gt = nextGt();
    if (gt == kUnknown) {
      return false;
    }
    if (gt - before < length) {
      continue;
    }
    work_ += length;
    const std::string_view window = rest().substr(gt + 1 - length, length);
    if (window[0] == '<' && window[1] == '/' && window.substr(2) == name) {
      end = gt + 1;
      return true;
    }
  }
}

// Finds the next '>'. Returns kUnknown when it has not been received; the search then continues
// with the next bytes.
std::size_t ClauseBuffer::nextGt() {
  const std::string_view bytes = rest();
  const std::size_t found = bytes.find('>', search_.resume);
  const std::size_t seen = found == std::string_view::npos ? bytes.size() : found + 1;
  work_ += seen - search_.resume;
  search_.resume = seen;
  if (found != std::string_view::npos) {
    search_.lastGt = found;
  }
  return found;
}

// Moves the bytes from the start of the search to @p end into the clause. The head is then at @p
// end.
void ClauseBuffer::take(std::size_t end, std::string& clause) {
  const std::size_t start = search_.start;
  const std::size_t length = end - start;
  const std::size_t after = rest().size() - end;
  if (length > kKeptCapacity && length > after) {
    takeStorage(start, end, clause);
  } else {
    clause.assign(rest(), start, length);
    work_ += length;
    head_ += end;
  }
  clean_ -= end;
  search_ = Search();
  compact();
}

// A large clause with fewer bytes behind it keeps its storage, and the bytes behind it move.
void ClauseBuffer::takeStorage(std::size_t start, std::size_t end, std::string& clause) {
  std::string behind(rest().substr(end));
  work_ += behind.size();
  data_.resize(head_ + end);
  if (head_ + start > 0) {
    data_.erase(0, head_ + start);
    work_ += data_.size();
  }
  clause = std::move(data_);
  data_ = std::move(behind);
  head_ = 0;
}

// Moves the rest to the front once the removed bytes before it are as many. The removed bytes pay
// for each move, and the storage is at most twice as large as the waiting bytes.
void ClauseBuffer::compact() {
  if (head_ < rest().size()) {
    return;
  }
  data_.erase(0, head_);
  head_ = 0;
  work_ += data_.size();
  if (data_.capacity() > kKeptCapacity && data_.size() < data_.capacity() / 4) {
    data_.shrink_to_fit();
    work_ += data_.size();
  }
}

void ClauseBuffer::clear() {
  release(blanks_);
  release(data_);
  head_ = 0;
  clean_ = 0;
  search_ = Search();
}

}  // namespace zell
