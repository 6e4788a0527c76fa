// SPDX-License-Identifier: Apache-2.0
#include "client/transfer/delta/delta_transfer.h"

#include <algorithm>
#include <utility>

#include "client/transfer/checksums.h"
#include "client/transfer/delta/delta_answers.h"
#include "client/transfer/programs.h"

namespace runel {
namespace {

constexpr std::uint64_t kLeastForDelta = 524288;
constexpr std::uint64_t kLeastForAutomaticDelta = 4194304;
constexpr std::uint64_t kMostForDelta = std::uint64_t{64} << 30U;
constexpr std::size_t kHashStep = 262144;  // requests wait for a step
constexpr std::size_t kSentStep = 524288;
// The device syncs after each step of this length, so that the last sync does not take longer than
// the I/O timeout.
constexpr std::uint64_t kCopyStep = 16777216;
constexpr std::uint64_t kDigestPart = 8388608;
constexpr std::uint64_t kDigestStep = 2 * kDigestPart;

}  // namespace

bool mayUseDelta(Delta use, const std::optional<Stat>& there, std::uint64_t size) {
  const std::uint64_t least = use == Delta::always ? kLeastForDelta : kLeastForAutomaticDelta;
  return use != Delta::never && there && there->isRegular() && there->size > least &&
         there->size <= kMostForDelta && size > least;
}

DeltaTransfer::DeltaTransfer(TransferWork& work, const LocalReader& reader, DeltaFiles files)
    : work_(work), reader_(reader), files_(std::move(files)) {}

void DeltaTransfer::prepare() {
  if (blockLength_ == 0) {
    askTools();
    const std::size_t length = longBlock(files_.oldSize);
    sum({length, {{0, files_.oldSize / length * length}}});
    wake();
  }
}

void DeltaTransfer::assemble(std::uint64_t offset, Last last, Done done) {
  offset_ = offset;
  last_ = std::move(last);
  done_ = std::move(done);
  assembling_ = true;
  prepare();
  proceed();
}

void DeltaTransfer::askTools() {
  work_.ask(askForTools(files_.target), [this](const Reply& reply) { takeTools(reply); });
}

void DeltaTransfer::takeTools(const Reply& reply) {
  const auto tools = reply.ok() ? parseTools(reply.output()) : std::nullopt;
  if (!tools) {
    trouble_ = programTrouble("sh", reply);
  } else if (!tools->missing.empty()) {
    trouble_ = "the device has no " + tools->missing;
  } else if (tools->freeBytes && *tools->freeBytes < reader_.size()) {
    trouble_ = "the device has no space for both files";
  }
  toolsKnown_ = true;
  proceed();
}

void DeltaTransfer::sum(const BlockList& blocks) {
  blockLength_ = blocks.length;
  sums_.emplace(blocks.length);
  toAsk_ = askForSums(files_.target, blocks);
  nextToAsk_ = 0;
  summed_ = false;
  work_.pipe([this] { return nextSums(); },
             [this] {
               summed_ = true;
               proceed();
             });
}

std::optional<Pipeline::Item> DeltaTransfer::nextSums() {
  if (!trouble_.empty() || nextToAsk_ == toAsk_.size()) {
    return std::nullopt;
  }
  SumRequest& asked = toAsk_[nextToAsk_++];
  const auto handle = [this, blocks = std::move(asked.blocks)](const Reply& reply) {
    takeSums(blocks, reply);
    return trouble_.empty();
  };
  return Pipeline::Item{std::move(asked.request), 0, handle};
}

void DeltaTransfer::takeSums(const BlockList& blocks, const Reply& reply) {
  const auto sums = parseSums(reply.output(), blocks.count(), blocks.length);
  if (!reply.ok() || !sums) {
    trouble_ = trouble_.empty() ? "unexpected output of cksum" : trouble_;
    return;
  }
  auto sum = sums->begin();
  for (const FileRange& range : blocks.ranges) {
    for (std::uint64_t at = range.begin; at < range.end; at += blocks.length) {
      sums_->add(at, *sum++);
    }
  }
}

// Called whenever something has arrived that a search needs.
void DeltaTransfer::proceed() {
  if (!assembling_ || !toolsKnown_ || !summed_ || ended_) {
    return;
  }
  if (!trouble_.empty()) {
    end({});
    return;
  }
  if (!plan_) {
    plan_.emplace(offset_, reader_.size());
  }
  search();
}

void DeltaTransfer::search() {
  sums_->prepare();
  const auto read = [this](std::uint64_t offset, std::size_t count, std::string& bytes) {
    return reader_.read(offset, count, bytes);
  };
  search_ = std::make_unique<BlockSearch>(*std::move(sums_), read, plan_->gaps());
  wake();
}

void DeltaTransfer::wake() {
  if (!std::exchange(turning_, true)) {
    work_.later([this] { turn(); });
  }
}

// A search decides what is sent next. The checksum of the whole file is due at the end.
void DeltaTransfer::turn() {
  turning_ = false;
  if (ended_) {
    return;
  }
  if (search_) {
    if (!search_->step()) {
      searched();
    }
    wake();
  } else if (hashMore()) {
    wake();
  }
}

bool DeltaTransfer::hashMore() {
  if (error_ || hashed_ == reader_.size()) {
    return false;
  }
  std::string bytes;
  const std::uint64_t rest = reader_.size() - hashed_;
  error_ = reader_.read(hashed_, static_cast<std::size_t>(std::min<std::uint64_t>(rest, kHashStep)),
                        bytes);
  if (error_) {
    compare();
    return false;
  }
  hash_.add(bytes);
  hashed_ += bytes.size();
  if (hashed_ % kDigestPart == 0 || hashed_ == reader_.size()) {
    localDigests_.push_back(std::exchange(hash_, Sha256()).finish());
    compare();
  }
  return true;
}

void DeltaTransfer::searched() {
  plan_->add(search_->matches());
  error_ = error_ ? error_ : search_->error();
  search_.reset();
  if (error_) {
    end({});
    return;
  }
  confirm();
}

// Before the next, shorter blocks: a long block in the wrong place hides what is there.
void DeltaTransfer::confirm() {
  doubts_ = plan_->doubtful();
  doubts_.erase(
      std::remove_if(doubts_.begin(), doubts_.end(),
                     [this](const BlockMatch& match) { return confirmed_.count(match.at) != 0; }),
      doubts_.end());
  work_.pipe([this] { return nextDoubts(); }, [this] { refine(); });
}

void DeltaTransfer::refine() {
  const BlockList next = plan_->refine(blockLength_, files_.oldSize);
  if (next.ranges.empty()) {
    send();
  } else {
    sum(next);
  }
}

std::optional<Pipeline::Item> DeltaTransfer::nextDoubts() {
  if (doubts_.empty()) {
    return std::nullopt;
  }
  const std::size_t count = std::min(doubts_.size(), kMostDigests);
  const auto from = doubts_.end() - static_cast<std::ptrdiff_t>(count);
  const std::vector<BlockMatch> some(from, doubts_.end());
  doubts_.erase(from, doubts_.end());
  std::vector<FileRange> parts;
  parts.reserve(count);
  for (const BlockMatch& match : some) {
    parts.push_back({match.from, match.from + match.length});
  }
  return Pipeline::Item{askForDigests(files_.target, parts), 0, [this, some](const Reply& reply) {
                          dropUnlessEqual(some, reply);
                          return true;
                        }};
}

void DeltaTransfer::dropUnlessEqual(const std::vector<BlockMatch>& doubts, const Reply& reply) {
  const auto digests = parseChecksums(reply.output(), doubts.size());
  for (std::size_t i = 0; i < doubts.size(); ++i) {
    if (digests && localDigest(doubts[i]) == (*digests)[i]) {
      confirmed_.insert(doubts[i].at);
    } else {
      plan_->remove(doubts[i]);
    }
  }
}

std::optional<std::string> DeltaTransfer::localDigest(const BlockMatch& match) {
  std::string bytes;
  if (reader_.read(match.at, static_cast<std::size_t>(match.length), bytes)) {
    return std::nullopt;
  }
  Sha256 hash;
  hash.add(bytes);
  return hash.finish();
}

void DeltaTransfer::send() {
  if (plan_->kept() == 0) {
    trouble_ = "the old file has none of its blocks";
    end({});
    return;
  }
  segments_ = plan_->segments();
  assembled_ = offset_;
  work_.pipe([this] { return nextItem(); },
             [this] {
               allAnswered_ = true;
               compare();
             });
}

std::optional<Pipeline::Item> DeltaTransfer::nextItem() {
  if (error_ || !trouble_.empty()) {
    return std::nullopt;
  }
  if (std::exchange(sync_, false)) {
    return Pipeline::Item{Request({"append", files_.part}, ""), 0,
                          [](const Reply& reply) { return reply.ok(); }};
  }
  if (digestIsDue()) {
    return digestItem();
  }
  while (segment_ < segments_.size() && segments_[segment_].length == 0) {
    ++segment_;
  }
  if (segment_ == segments_.size()) {
    return last_();
  }
  DeltaSegment& segment = segments_[segment_];
  return segment.kept ? keptItem(segment) : sentItem(segment);
}

// As soon as they are complete, while the line is busy with the next bytes.
bool DeltaTransfer::digestIsDue() const {
  return digested_ + kDigestStep <= assembled_ ||
         (assembled_ == reader_.size() && digested_ < assembled_);
}

Pipeline::Item DeltaTransfer::digestItem() {
  std::vector<FileRange> parts;
  while (parts.size() < kDigestStep / kDigestPart && digested_ < assembled_) {
    const std::uint64_t end = std::min(digested_ + kDigestPart, assembled_);
    parts.push_back({digested_, end});
    digested_ = end;
  }
  return {askForDigests(files_.part, parts), 0, [this, count = parts.size()](const Reply& reply) {
            const auto digests = parseChecksums(reply.output(), count);
            if (reply.ok() && digests) {
              deviceDigests_.insert(deviceDigests_.end(), digests->begin(), digests->end());
            } else if (trouble_.empty()) {
              trouble_ = programTrouble("sha256sum", reply);
            }
            return reply.ok();
          }};
}

Pipeline::Item DeltaTransfer::keptItem(DeltaSegment& segment) {
  const std::uint64_t count = std::min(segment.length, kCopyStep);
  const FileRange part{segment.from, segment.from + count};
  segment.from += count;
  segment.length -= count;
  assembled_ += count;
  sync_ = count == kCopyStep;
  return {copyPart(files_.target, part, files_.part), 0, [this, count](const Reply& reply) {
            if (reply.ok()) {
              work_.keep(count, files_.target);
            } else if (trouble_.empty()) {
              trouble_ = programTrouble("dd", reply);
            }
            return reply.ok();
          }};
}

std::optional<Pipeline::Item> DeltaTransfer::sentItem(DeltaSegment& segment) {
  const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(segment.length, kSentStep));
  std::string bytes;
  error_ = reader_.read(segment.from, count, bytes);
  if (error_) {
    return std::nullopt;
  }
  segment.from += count;
  segment.length -= count;
  assembled_ += count;
  return Pipeline::Item{Request({"append", files_.part}, std::move(bytes)), count,
                        [this, count](const Reply& reply) {
                          work_.count(count, files_.target);
                          if (!reply.ok() && !error_) {
                            error_ = reply.error(files_.target);
                          }
                          return reply.ok();
                        }};
}

// All parts of the file on both sides.
void DeltaTransfer::compare() {
  if (!allAnswered_ || ended_) {
    return;
  }
  if (error_ || !trouble_.empty()) {
    end({});
  } else if (hashed_ == reader_.size()) {
    End result;
    result.assembled = localDigests_ == deviceDigests_;
    trouble_ = result.assembled ? "" : "the assembled file has another checksum";
    end(std::move(result));
  }
}

void DeltaTransfer::end(End end) {
  ended_ = true;
  end.why = trouble_;
  end.untouched = segments_.empty();
  end.error = error_;
  segments_.clear();
  done_(end);
}

}  // namespace runel
