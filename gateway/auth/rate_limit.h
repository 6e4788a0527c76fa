// SPDX-License-Identifier: Apache-2.0
// Limits of rates: of one client, and of clients by their address.
#ifndef RUNELGW_AUTH_RATE_LIMIT_H_
#define RUNELGW_AUTH_RATE_LIMIT_H_

#include <cstddef>
#include <string>
#include <unordered_map>

#include <runel/loop.h>

namespace runelgw {

/// So many events a second on average, and so many at once.
struct Rate {
  double perSecond = 50;
  double burst = 200;
};

/// Counts the events of one client.
class TokenBucket {
 public:
  /// Whether there is room for one more event at the time @p now. It is counted only then.
  [[nodiscard]] bool take(const Rate& rate, runel::Clock::time_point now);
  /// The full seconds until there is room for one, at least 1.
  [[nodiscard]] long secondsLeft(const Rate& rate) const;
  /// Whether the bucket says no more than a new one would at the time @p now.
  [[nodiscard]] bool isFull(const Rate& rate, runel::Clock::time_point now) const;

 private:
  [[nodiscard]] double levelAt(const Rate& rate, runel::Clock::time_point now) const;

  bool used_ = false;
  double level_ = 0;
  runel::Clock::time_point last_;
};

/// A bucket for each address, in bounded memory: addresses above the limit share one bucket.
class AddressLimit {
 public:
  explicit AddressLimit(Rate rate, std::size_t limit = 4096) : rate_(rate), limit_(limit) {}

  /// Whether there is room for one more event of @p address, which is counted then. The addresses
  /// of an IPv6 network of 64 bits are one.
  [[nodiscard]] bool take(const std::string& address, runel::Clock::time_point now);
  /// As `TokenBucket::secondsLeft`.
  [[nodiscard]] long secondsLeft(const std::string& address) const;
  [[nodiscard]] std::size_t size() const { return buckets_.size(); }

 private:
  TokenBucket& bucketOf(const std::string& key, runel::Clock::time_point now);

  Rate rate_;
  std::size_t limit_;
  std::unordered_map<std::string, TokenBucket> buckets_;
  TokenBucket shared_;
};

/// @p address, or the first 64 bits of an IPv6 address.
[[nodiscard]] std::string networkOf(const std::string& address);

}  // namespace runelgw

#endif  // RUNELGW_AUTH_RATE_LIMIT_H_
