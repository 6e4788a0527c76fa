// SPDX-License-Identifier: Apache-2.0
// Measures the line with the first pieces of a large file.
#ifndef RUNEL_TRANSFER_DELTA_LINE_RATE_H_
#define RUNEL_TRANSFER_DELTA_LINE_RATE_H_

#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include <runel/export.h>
#include <runel/loop.h>

#include "client/transfer/local_file.h"
#include "client/transfer/work.h"

namespace runel {

/// Whether @p bytes in @p time make a line of less than 5 MB/s.
[[nodiscard]] bool isSlowLine(std::uint64_t bytes, Clock::duration time);

class RUNEL_LOCAL LineRate {
 public:
  /// Receives the offset behind what was sent.
  using Done = std::function<void(std::uint64_t offset, bool slow)>;

  /// @p name is that of the file in transfer. @p work and @p reader outlive this object.
  LineRate(TransferWork& work, const LocalReader& reader, std::string part, std::string name)
      : work_(work), reader_(reader), part_(std::move(part)), name_(std::move(name)) {}
  /// Appends one or two pieces to the part, from @p offset on. Calls @p done once. A piece that
  /// fails ends the measurement: the next one will fail too.
  void measure(std::uint64_t offset, Done done);

 private:
  void askNothing(std::function<void()> next);
  void sendPiece(bool last);

  TransferWork& work_;
  const LocalReader& reader_;
  const std::string part_;
  const std::string name_;
  std::uint64_t offset_ = 0;
  Clock::duration roundTrip_ = Clock::duration::max();
  Done done_;
};

}  // namespace runel

#endif  // RUNEL_TRANSFER_DELTA_LINE_RATE_H_
