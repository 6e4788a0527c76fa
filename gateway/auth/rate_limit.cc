// SPDX-License-Identifier: Apache-2.0
#include "gateway/auth/rate_limit.h"

#include <algorithm>
#include <chrono>
#include <cmath>

#include <arpa/inet.h>

namespace runelgw {

double TokenBucket::levelAt(const Rate& rate, runel::Clock::time_point now) const {
  if (!used_) {
    return rate.burst;
  }
  const double seconds = std::chrono::duration<double>(now - last_).count();
  return std::min(rate.burst, level_ + std::max(0.0, seconds) * rate.perSecond);
}

bool TokenBucket::take(const Rate& rate, runel::Clock::time_point now) {
  level_ = levelAt(rate, now);
  last_ = now;
  used_ = true;
  if (level_ < 1) {
    return false;
  }
  level_ -= 1;
  return true;
}

long TokenBucket::secondsLeft(const Rate& rate) const {
  if (rate.perSecond <= 0) {
    return 3600;
  }
  const double seconds = std::ceil((1 - level_) / rate.perSecond);
  return static_cast<long>(std::clamp(seconds, 1.0, 3600.0));
}

bool TokenBucket::isFull(const Rate& rate, runel::Clock::time_point now) const {
  return levelAt(rate, now) >= rate.burst;
}

TokenBucket& AddressLimit::bucketOf(const std::string& key, runel::Clock::time_point now) {
  const auto found = buckets_.find(key);
  if (found != buckets_.end()) {
    return found->second;
  }
  if (buckets_.size() >= limit_) {
    for (auto bucket = buckets_.begin(); bucket != buckets_.end();) {
      bucket = bucket->second.isFull(rate_, now) ? buckets_.erase(bucket) : std::next(bucket);
    }
  }
  return buckets_.size() >= limit_ ? shared_ : buckets_[key];
}

bool AddressLimit::take(const std::string& address, runel::Clock::time_point now) {
  return bucketOf(networkOf(address), now).take(rate_, now);
}

long AddressLimit::secondsLeft(const std::string& address) const {
  const auto found = buckets_.find(networkOf(address));
  return (found == buckets_.end() ? shared_ : found->second).secondsLeft(rate_);
}

std::string networkOf(const std::string& address) {
  in6_addr bytes{};
  if (inet_pton(AF_INET6, address.c_str(), &bytes) != 1 || IN6_IS_ADDR_V4MAPPED(&bytes)) {
    return address;
  }
  std::fill(bytes.s6_addr + 8, bytes.s6_addr + 16, 0);
  char text[INET6_ADDRSTRLEN];
  return std::string(inet_ntop(AF_INET6, &bytes, text, sizeof text)) + "/64";
}

}  // namespace runelgw
