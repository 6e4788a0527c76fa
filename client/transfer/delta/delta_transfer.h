// SPDX-License-Identifier: Apache-2.0
// Makes the part of a large file on the device of the old file there and of what differs.
#ifndef RUNEL_TRANSFER_DELTA_DELTA_TRANSFER_H_
#define RUNEL_TRANSFER_DELTA_DELTA_TRANSFER_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <runel/export.h>
#include <runel/transfer.h>

#include "client/core/sha256.h"
#include "client/transfer/delta/block_search.h"
#include "client/transfer/delta/delta_plan.h"
#include "client/transfer/delta/delta_scripts.h"
#include "client/transfer/local_file.h"
#include "client/transfer/work.h"

namespace runel {

/// Whether a file of @p size bytes may be sent as a delta to the target @p there: a regular file,
/// both of them large enough.
[[nodiscard]] bool mayUseDelta(Delta use, const std::optional<Stat>& there, std::uint64_t size);

/// Both files on the device.
struct DeltaFiles {
  std::string target;
  std::uint64_t oldSize = 0;  ///< of the target
  std::string part;           ///< receives the new content
};

/// One file. Requests about the target may run while the caller still looks at the part.
class RUNEL_LOCAL DeltaTransfer {
 public:
  /// How it ended: the part has the new content, or the file must be sent otherwise, or it failed.
  struct End {
    bool assembled = false;
    std::string why;             ///< otherwise: the reason
    bool untouched = false;      ///< nothing was added to the part
    std::optional<Error> error;  ///< instead of a reason: the failure of the file
  };
  using Done = std::function<void(const End& end)>;
  /// Returns the next request that needs the complete part, or nothing at the end.
  using Last = Pipeline::Source;

  /// @p reader is the open new file. Both arguments outlive this object.
  DeltaTransfer(TransferWork& work, const LocalReader& reader, DeltaFiles files);
  DeltaTransfer(const DeltaTransfer&) = delete;
  DeltaTransfer& operator=(const DeltaTransfer&) = delete;

  /// Asks for the checksums of the old file. Uses the pipeline of the transfer until `assemble` has
  /// called back.
  void prepare();
  /// Sends the new file from @p offset on to the part, which has all before. The requests of
  /// @p last follow at once, although the part may turn out to be wrong. Calls @p done once, which
  /// must not destroy this object.
  void assemble(std::uint64_t offset, Last last, Done done);

 private:
  void askTools();
  void takeTools(const Reply& reply);
  void sum(const BlockList& blocks);
  std::optional<Pipeline::Item> nextSums();
  void takeSums(const BlockList& blocks, const Reply& reply);
  void proceed();
  void search();
  void searched();
  void wake();
  void turn();
  [[nodiscard]] bool hashMore();
  void confirm();
  void refine();
  std::optional<Pipeline::Item> nextDoubts();
  void dropUnlessEqual(const std::vector<BlockMatch>& doubts, const Reply& reply);
  [[nodiscard]] std::optional<std::string> localDigest(const BlockMatch& match);
  void send();
  std::optional<Pipeline::Item> nextItem();
  Pipeline::Item keptItem(DeltaSegment& segment);
  std::optional<Pipeline::Item> sentItem(DeltaSegment& segment);
  [[nodiscard]] bool digestIsDue() const;
  Pipeline::Item digestItem();
  void compare();
  void end(End end);

  TransferWork& work_;
  const LocalReader& reader_;
  const DeltaFiles files_;
  Last last_;
  Done done_;
  std::uint64_t offset_ = 0;
  bool assembling_ = false;
  bool toolsKnown_ = false;
  bool summed_ = false;
  bool turning_ = false;  // the loop is going to call `turn`
  bool ended_ = false;
  std::string trouble_;  // why it cannot be a delta
  std::optional<Error> error_;

  std::size_t blockLength_ = 0;
  std::vector<SumRequest> toAsk_;
  std::size_t nextToAsk_ = 0;
  std::optional<BlockTable> sums_;
  std::optional<DeltaPlan> plan_;
  std::unique_ptr<BlockSearch> search_;
  std::vector<BlockMatch> doubts_;
  std::set<std::uint64_t> confirmed_;  // where the matches begin in the new file
  std::vector<DeltaSegment> segments_;
  std::size_t segment_ = 0;
  bool sync_ = false;            // the device has much to write
  std::uint64_t assembled_ = 0;  // bytes of the part, when all requests so far are answered
  std::uint64_t digested_ = 0;   // bytes of the part whose digests are requested
  bool allAnswered_ = false;

  // The digests of the new file, of kDigestPart bytes each.
  Sha256 hash_;
  std::uint64_t hashed_ = 0;
  std::vector<std::string> localDigests_;
  std::vector<std::string> deviceDigests_;
};

}  // namespace runel

#endif  // RUNEL_TRANSFER_DELTA_DELTA_TRANSFER_H_
