// SPDX-License-Identifier: Apache-2.0
// What the stages of one transfer share.
#ifndef RUNEL_TRANSFER_WORK_H_
#define RUNEL_TRANSFER_WORK_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <runel/export.h>
#include <runel/transfer.h>

#include "client/transfer/local_tree.h"
#include "client/transfer/pipeline.h"

namespace runel {
inline namespace v1 {

struct PushSources::Data {
  std::vector<LocalSource> sources;
  std::vector<std::string> skipped;
  PathFilter filter;
};

struct TransferReport::Data {
  std::optional<Error> error;
  std::vector<std::string> warnings;
  std::vector<std::string> notes;
  bool partial = false;
  bool complete = false;
  std::size_t files = 0;
  std::uint64_t bytes = 0;
  std::uint64_t saved = 0;
  std::uint64_t kept = 0;
  std::size_t removed = 0;
  std::optional<std::uint64_t> resumedAt;
};

/// The device and the options of one transfer, and what it has done. After its end it sends no
/// requests and calls no handlers; the same applies to its destruction.
class RUNEL_LOCAL TransferWork {
 public:
  using Answer = std::function<void(const Reply& reply)>;
  using Clock = std::chrono::steady_clock;

  /// @p device outlives the transfer.
  TransferWork(AsyncDevice& device, const TransferOptions& options, AsyncTransfer::Done done);
  virtual ~TransferWork() = default;
  TransferWork(const TransferWork&) = delete;
  TransferWork& operator=(const TransferWork&) = delete;

  [[nodiscard]] const TransferOptions& options() const { return options_; }
  /// The size of an archive and of a piece of a pulled file, in bytes: a multiple of `kPieceBlock`.
  /// A larger file is a large one.
  [[nodiscard]] std::size_t pieceBytes() const;

  /// Sends @p request and calls @p answer with the device's reply, later. If the connection is
  /// lost, the transfer ends instead.
  void ask(const Request& request, Answer answer);
  /// Sends a request whose reply makes no difference.
  void tell(const Request& request);
  /// Calls @p call in the next step of the loop, unless the transfer has ended.
  void later(std::function<void()> call);
  /// Sends the requests of @p source, then calls @p next. One at a time.
  void pipe(Pipeline::Source source, std::function<void()> next);
  /// The same with about as many bytes in flight as @p window returns.
  void pipe(Pipeline::Source source, Pipeline::Window window, std::function<void()> next);
  /// The shortest time in which a request that was sent alone was answered: about the round trip.
  /// Zero before such an answer.
  [[nodiscard]] Clock::duration fastestAnswer() const {
    return fastestAnswer_.value_or(Clock::duration::zero());
  }

  /// Records the failure of one file: the first one is the error of the transfer, the others are
  /// warnings.
  void fail(const Error& error);
  /// Adds a warning about what was left out or could not be done: the transfer is partial.
  void warn(const std::string& text);
  /// The same, unless it was added before.
  void warnOnce(const std::string& text);
  /// Adds a note about how the transfer was done, which is no failure.
  void note(const std::string& text) { done_.notes.push_back(text); }

  /// Adds @p bytes to the total of the progress.
  void expect(std::uint64_t bytes) { expected_ += bytes; }
  /// Adds @p bytes of the file @p name to the progress and to the transferred bytes.
  void count(std::uint64_t bytes, const std::string& name);
  /// @p bytes of the transferred ones were not sent.
  void save(std::uint64_t bytes) { done_.saved += bytes; }
  /// Adds @p bytes to the progress only: the device has them.
  void skip(std::uint64_t bytes, const std::string& name);
  /// The same, for bytes that a delta takes from the old file.
  void keep(std::uint64_t bytes, const std::string& name);
  void fileDone() { ++done_.files; }
  void removed(std::size_t entries) { done_.removed += entries; }
  /// Whether somebody wants to know what the transfer changes.
  [[nodiscard]] bool tellsChanges() const {
    return options_.planOnly() || options_.changeHandler() != nullptr;
  }
  /// Tells the caller of @p change. A plan counts it.
  void tellChange(const TransferChange& change);
  /// Where the transfer of the current file continues; nothing if it starts again.
  void resumedAt(std::optional<std::uint64_t> offset) { done_.resumedAt = offset; }

  /// From now on a transfer that ends early leaves files on the device, which @p remove removes;
  /// nothing: it leaves none.
  void leaves(std::optional<Request> remove) { leftover_ = std::move(remove); }
  [[nodiscard]] const std::optional<Request>& leftover() const { return leftover_; }

  /// Ends the transfer early.
  void end(const Error& error);
  /// Ends the transfer after its last stage.
  void finish();
  /// What was done so far.
  [[nodiscard]] TransferReport report() const;

 protected:
  /// The files of @p sources.
  [[nodiscard]] static const std::vector<LocalSource>& filesOf(const PushSources& sources) {
    return sources.data_->sources;
  }
  /// What @p sources leave out.
  [[nodiscard]] static const PathFilter& filterOf(const PushSources& sources) {
    return sources.data_->filter;
  }

 private:
  void callDone();
  void answered(bool alone, Clock::time_point asked);

  AsyncDevice& device_;
  const TransferOptions options_;
  AsyncTransfer::Done callback_;
  std::unique_ptr<Pipeline> pipeline_;
  TransferReport::Data done_;
  std::set<std::string> warned_;
  std::uint64_t expected_ = 0;
  std::uint64_t progressed_ = 0;
  std::optional<Request> leftover_;
  std::optional<Clock::duration> fastestAnswer_;
  bool reached_ = false;  // the device has answered a request
  bool ended_ = false;
  const std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace v1

/// The record in the reply to "stat" or "lstat". Empty for a failure and for malformed text.
[[nodiscard]] std::optional<Stat> statIn(const Reply& reply);
/// The error for an answer to "walktree" that cannot be parsed.
[[nodiscard]] Error malformedTree();

}  // namespace runel

#endif  // RUNEL_TRANSFER_WORK_H_
