// SPDX-License-Identifier: Apache-2.0
// Compares files of this host with files on the device by their SHA-256 checksums.
#ifndef RUNEL_TRANSFER_CHECKSUMS_H_
#define RUNEL_TRANSFER_CHECKSUMS_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/transfer/local_directory.h"
#include "client/transfer/work.h"

namespace runel {

/// A file on both sides.
struct Twin {
  std::string remote;
  LocalPath local;
  std::uint64_t size = 0;
};

/// Receives the results of a comparison, in the order of the files.
struct Verdicts {
  std::function<void(std::size_t index, bool same)> compared;
  /// The device does not tell the checksums of some files, for the reason @p why.
  std::function<void(const std::string& why)> unknown;
};

/// Compares all @p files, then calls @p next.
void compareChecksums(TransferWork& work, std::vector<Twin> files, Verdicts verdicts,
                      std::function<void()> next);

/// Compares all transferred @p files, then calls @p next. @p mismatch records the failure of one.
void verifyChecksums(TransferWork& work, std::vector<Twin> files,
                     std::function<void(std::size_t index)> mismatch, std::function<void()> next);

/// Parses the output of sha256sum for @p count names. Empty for other output.
[[nodiscard]] std::optional<std::vector<std::string>> parseChecksums(std::string_view text,
                                                                     std::size_t count);

/// Hex SHA-256 of the first @p count bytes of @p path. Empty if they cannot be read.
[[nodiscard]] std::optional<std::string> localSha256(const LocalPath& path, std::uint64_t count);

/// The error for the file @p path whose checksum differs on the other side.
[[nodiscard]] Error checksumMismatch(Kind kind, const std::string& path);

}  // namespace runel

#endif  // RUNEL_TRANSFER_CHECKSUMS_H_
