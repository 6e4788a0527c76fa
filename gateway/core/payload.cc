// SPDX-License-Identifier: Apache-2.0
#include "gateway/core/payload.h"

#include <algorithm>
#include <utility>

namespace runelgw {

Payload::Payload(std::string bytes)
    : bytes_(std::make_shared<const std::string>(std::move(bytes))) {}

Payload::Payload(std::shared_ptr<const PayloadSource> source) : source_(std::move(source)) {}

std::uint64_t Payload::size() const {
  return source_ ? source_->size() : bytes().size();
}

const std::string& Payload::bytes() const {
  static const std::string kNothing;
  return bytes_ ? *bytes_ : kNothing;
}

bool Payload::read(std::uint64_t offset, std::size_t count, std::string& out) const {
  const std::uint64_t begin = std::min(offset, size());
  const auto part = static_cast<std::size_t>(std::min<std::uint64_t>(count, size() - begin));
  if (source_) {
    return source_->read(begin, part, out);
  }
  out.assign(bytes(), static_cast<std::size_t>(begin), part);
  return true;
}

}  // namespace runelgw
