// SPDX-License-Identifier: Apache-2.0
#include "client/master/proxy_header.h"

#include <algorithm>
#include <array>

namespace runel {
namespace {

constexpr std::string_view kSignature("\r\n\r\n\0\r\nQUIT\n", 12);
constexpr std::size_t kFixedPart = 16;  // signature, version and command, family, length
constexpr unsigned char kLocal = 0x20;
constexpr unsigned char kProxied = 0x21;
constexpr unsigned char kTcp4 = 0x11;
constexpr std::size_t kTcp4Size = 12;  // two addresses, two ports
constexpr std::size_t kSourcePort = 8;

constexpr unsigned char kChecksum = 0x03;
constexpr std::size_t kChecksumSize = 4;
constexpr unsigned char kTls = 0x20;
constexpr std::size_t kTlsStart = 5;  // flags, result of the verification
constexpr unsigned char kOverTls = 0x01;
// A certificate was presented on this connection, or earlier in the TLS session that it resumes.
constexpr unsigned char kCertificate = 0x02 | 0x04;
constexpr unsigned char kCommonName = 0x22;

unsigned char byteAt(std::string_view bytes, std::size_t at) {
  return static_cast<unsigned char>(bytes[at]);
}

std::uint32_t numberAt(std::string_view bytes, std::size_t at, std::size_t size) {
  std::uint32_t number = 0;
  for (std::size_t i = 0; i < size; ++i) {
    number = number << 8 | byteAt(bytes, at + i);
  }
  return number;
}

/// One field of type, length and value.
struct Field {
  unsigned char type = 0;
  std::string_view value;
};

// Removes the first field. Returns false if it is cut off.
bool takeTypedField(std::string_view& fields, Field& field) {
  constexpr std::size_t kHead = 3;
  if (fields.size() < kHead) {
    return false;
  }
  const std::size_t size = numberAt(fields, 1, 2);
  if (fields.size() - kHead < size) {
    return false;
  }
  field = {byteAt(fields, 0), fields.substr(kHead, size)};
  fields.remove_prefix(kHead + size);
  return true;
}

// The checksum of the header, CRC-32C, bit by bit: it is short and there is one a connection.
std::uint32_t addToChecksum(std::uint32_t sum, unsigned char byte) {
  constexpr std::uint32_t kPolynomial = 0x82f63b78;
  sum ^= byte;
  for (int bit = 0; bit < 8; ++bit) {
    sum = (sum & 1) != 0 ? sum >> 1 ^ kPolynomial : sum >> 1;
  }
  return sum;
}

}  // namespace

ProxyHeader::ProxyHeader() : length_(kFixedPart) {}

std::size_t ProxyHeader::missing() const {
  return state_ == State::incomplete ? length_ - bytes_.size() : 0;
}

void ProxyHeader::add(std::string_view bytes) {
  bytes_.append(bytes.substr(0, missing()));
  const std::size_t compared = std::min(bytes_.size(), kSignature.size());
  if (state_ == State::incomplete &&
      bytes_.compare(0, compared, kSignature.substr(0, compared)) != 0) {
    fail("no header of a proxy");
  }
  if (state_ == State::incomplete && bytes_.size() == kFixedPart && length_ == kFixedPart) {
    parseStart();
  }
  if (state_ == State::incomplete && bytes_.size() == length_) {
    parseRest();
  }
}

void ProxyHeader::parseStart() {
  const unsigned char command = byteAt(bytes_, kSignature.size());
  const std::size_t rest = numberAt(bytes_, kFixedPart - 2, 2);
  if (command != kLocal && command != kProxied) {
    fail("unknown version or command in the header of the proxy");
  } else if (kFixedPart + rest > kLongest) {
    fail("the header of the proxy is too long");
  }
  length_ = kFixedPart + rest;
}

void ProxyHeader::parseRest() {
  if (byteAt(bytes_, kSignature.size()) == kLocal) {
    state_ = State::local;
  } else if (byteAt(bytes_, kSignature.size() + 1) != kTcp4) {
    fail("the header of the proxy has no IPv4 address");
  } else if (length_ < kFixedPart + kTcp4Size) {
    fail("the header of the proxy is too short");
  } else {
    address_ = numberAt(bytes_, kFixedPart, 4);
    port_ = static_cast<std::uint16_t>(numberAt(bytes_, kFixedPart + kSourcePort, 2));
    if (parseFields(std::string_view(bytes_).substr(kFixedPart + kTcp4Size))) {
      state_ = State::proxied;
    } else {
      name_.clear();
      fail("malformed field in the header of the proxy");
    }
  }
  bytes_ = std::string();
}

bool ProxyHeader::parseFields(std::string_view fields) {
  Field field;
  while (!fields.empty()) {
    if (!takeTypedField(fields, field)) {
      return false;
    }
    const auto at = static_cast<std::size_t>(field.value.data() - bytes_.data());
    if (field.type == kChecksum && (field.value.size() != kChecksumSize || !checksumFits(at))) {
      return false;
    }
    if (field.type == kTls && !parseTls(field.value)) {
      return false;
    }
  }
  return true;
}

// The sum is that of the header with zeros in the place of the sum.
bool ProxyHeader::checksumFits(std::size_t at) const {
  std::uint32_t sum = 0xffffffff;
  for (std::size_t i = 0; i < bytes_.size(); ++i) {
    const bool own = i >= at && i < at + kChecksumSize;
    sum = addToChecksum(sum, own ? 0 : byteAt(bytes_, i));
  }
  return (sum ^ 0xffffffff) == numberAt(bytes_, at, kChecksumSize);
}

// A second field of TLS, or a second name in it, would leave open which one counts.
bool ProxyHeader::parseTls(std::string_view value) {
  if (hasTls_ || value.size() < kTlsStart) {
    return false;
  }
  hasTls_ = true;
  const unsigned char flags = byteAt(value, 0);
  const bool verified = (flags & kOverTls) != 0 && (flags & kCertificate) != 0 &&
                        numberAt(value, 1, kTlsStart - 1) == 0;
  value.remove_prefix(kTlsStart);
  bool named = false;
  Field field;
  while (!value.empty()) {
    if (!takeTypedField(value, field)) {
      return false;
    }
    if (field.type == kCommonName) {
      if (named || field.value.size() > kLongestName) {
        return false;
      }
      named = true;
      name_ = verified ? field.value : std::string_view();
    }
  }
  return true;
}

void ProxyHeader::fail(const char* why) {
  state_ = State::invalid;
  problem_ = why;
}

}  // namespace runel
