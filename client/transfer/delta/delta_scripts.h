// SPDX-License-Identifier: Apache-2.0
// The shell texts that a device runs for a delta, in POSIX shell and with POSIX utilities and
// sha256sum.
#ifndef RUNEL_TRANSFER_DELTA_DELTA_SCRIPTS_H_
#define RUNEL_TRANSFER_DELTA_DELTA_SCRIPTS_H_

#include <cstdint>
#include <string>
#include <vector>

#include <runel/request.h>

#include "client/transfer/delta/delta_plan.h"

namespace runel {

/// Runs a shell text of bounded work on the device: all of them are made here. They are programs in
/// the foreground. The device serves no other client while one of them runs, so each of them does
/// little.
[[nodiscard]] Request shellRequest(const std::string& text, std::vector<std::string> arguments);

/// Asks for the missing utilities and for the free space beside @p target.
[[nodiscard]] Request askForTools(const std::string& target);

/// One request for the checksums of blocks, and how many of them.
struct SumRequest {
  Request request;
  BlockList blocks;
};
/// Asks for the sums by cksum of @p blocks of @p file. Each request reads 16 MiB or 64 blocks.
[[nodiscard]] std::vector<SumRequest> askForSums(const std::string& file, const BlockList& blocks);

/// Asks for the SHA-256 checksums of parts of @p file, whose borders are multiples of `kShortBlock`
/// or the end of the file. At most `kMostDigests` parts.
constexpr std::size_t kMostDigests = 64;
[[nodiscard]] Request askForDigests(const std::string& file, const std::vector<FileRange>& parts);

/// Appends a part of @p file, whose borders are multiples of `kShortBlock`, to @p to, which exists.
[[nodiscard]] Request copyPart(const std::string& file, const FileRange& part,
                               const std::string& to);

}  // namespace runel

#endif  // RUNEL_TRANSFER_DELTA_DELTA_SCRIPTS_H_
