// SPDX-License-Identifier: Apache-2.0
#include "client/master/proxy_header.h"

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace runel {
namespace {

using State = ProxyHeader::State;

std::string number(std::size_t value, int bytes) {
  std::string text;
  for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
    text.push_back(static_cast<char>(value >> shift & 0xff));
  }
  return text;
}

std::string field(int type, const std::string& value) {
  return number(static_cast<std::size_t>(type), 1) + number(value.size(), 2) + value;
}

std::string tls(int flags, std::uint32_t verification, const std::string& fields) {
  return field(0x20, number(static_cast<std::size_t>(flags), 1) + number(verification, 4) + fields);
}

std::string header(const std::string& fields, int command = 0x21, int family = 0x11) {
  const std::string addresses =
      number(0x0a000102, 4) + number(0x7f000001, 4) + number(40001, 2) + number(5112, 2);
  return std::string("\r\n\r\n\0\r\nQUIT\n", 12) + number(static_cast<std::size_t>(command), 1) +
         number(static_cast<std::size_t>(family), 1) + number(addresses.size() + fields.size(), 2) +
         addresses + fields;
}

ProxyHeader parsed(std::string_view bytes, std::size_t cut = 100000, bool more = false) {
  ProxyHeader made;
  while (!bytes.empty() && made.missing() > 0) {
    const std::size_t part = std::min({made.missing(), cut, bytes.size()});
    made.add(bytes.substr(0, part));
    bytes.remove_prefix(part);
  }
  EXPECT_TRUE(bytes.empty() || more || made.state() == State::invalid);
  return made;
}

TEST(ProxyHeaderTest, GivesTheAddressOfTheClient) {
  for (const std::size_t cut : {1U, 7U, 16U, 1000U}) {
    const ProxyHeader got = parsed(header(field(0x01, "h2") + field(0xee, "")), cut);
    EXPECT_EQ(got.state(), State::proxied);
    EXPECT_EQ(got.address(), 0x0a000102U);
    EXPECT_EQ(got.port(), 40001);
    EXPECT_EQ(got.verifiedName(), "");
    EXPECT_EQ(got.missing(), 0U);
  }
}

TEST(ProxyHeaderTest, ANameCountsOnlyIfTheProxyHasVerifiedIt) {
  const std::string name = field(0x22, "gw-7");
  EXPECT_EQ(parsed(header(tls(0x03, 0, name))).verifiedName(), "gw-7");
  EXPECT_EQ(parsed(header(tls(0x07, 0, field(0x21, "TLSv1.3") + name))).verifiedName(), "gw-7");
  EXPECT_EQ(parsed(header(tls(0x05, 0, name))).verifiedName(), "gw-7") << "a resumed session";
  for (const int flags : {0x00, 0x01, 0x02, 0x04, 0x06}) {
    const ProxyHeader got = parsed(header(tls(flags, 0, name)));
    EXPECT_EQ(got.state(), State::proxied);
    EXPECT_EQ(got.verifiedName(), "") << flags;
  }
  for (const std::uint32_t verification : {1U, 0x100U, 0x10000U, 0x1000000U, 0xffffffffU}) {
    EXPECT_EQ(parsed(header(tls(0x03, verification, name))).verifiedName(), "") << verification;
  }
  EXPECT_EQ(parsed(header(name)).verifiedName(), "") << "not within the fields of TLS";
  EXPECT_EQ(parsed(header(tls(0x03, 0, ""))).verifiedName(), "");
}

TEST(ProxyHeaderTest, ANameIsAnyBytes) {
  const std::string name("a\0\n\xff", 4);
  EXPECT_EQ(parsed(header(tls(0x03, 0, field(0x22, name)))).verifiedName(), name);
}

TEST(ProxyHeaderTest, AmbiguousOrLongNamesAreInvalid) {
  const std::string name = field(0x22, "gw-7");
  EXPECT_EQ(parsed(header(tls(0x03, 0, name + name))).state(), State::invalid);
  EXPECT_EQ(parsed(header(tls(0x03, 0, name) + tls(0x03, 0, name))).state(), State::invalid);
  EXPECT_EQ(parsed(header(tls(0x03, 0, field(0x22, std::string(257, 'x'))))).state(),
            State::invalid);
  EXPECT_EQ(parsed(header(tls(0x03, 0, field(0x22, std::string(256, 'x'))))).verifiedName(),
            std::string(256, 'x'));
}

TEST(ProxyHeaderTest, HealthChecksAreLocal) {
  EXPECT_EQ(parsed(header("", 0x20)).state(), State::local);
  EXPECT_EQ(parsed(std::string("\r\n\r\n\0\r\nQUIT\n\x20\0\0\0", 16)).state(), State::local);
}

TEST(ProxyHeaderTest, OtherHeadersAreInvalid) {
  for (const std::string& bytes :
       {std::string("\x01", 1), std::string("PROXY TCP4 1.2.3.4 5.6.7.8 1 2\r\n"),
        std::string("<a/>"), std::string("\r\n\r\n\0\r\nQUIT\r", 12), header("", 0x11),
        header("", 0x22), header("", 0x21, 0x21), header("", 0x21, 0x00), header("", 0x21, 0x12),
        std::string("\r\n\r\n\0\r\nQUIT\n\x21\x11\0\x0b", 16) + std::string(11, 'x'),
        std::string("\r\n\r\n\0\r\nQUIT\n\x21\x11\x40\0", 16)}) {
    const ProxyHeader got = parsed(bytes);
    EXPECT_EQ(got.state(), State::invalid) << bytes;
    EXPECT_NE(got.problem(), "");
    EXPECT_EQ(got.missing(), 0U);
  }
}

TEST(ProxyHeaderTest, FieldsThatAreCutOffAreInvalid) {
  const std::string fields = tls(0x03, 0, field(0x21, "TLSv1.3") + field(0x22, "gw-7"));
  for (std::size_t size = 1; size < fields.size(); ++size) {
    const ProxyHeader got = parsed(header(fields.substr(0, size)));
    EXPECT_EQ(got.state(), State::invalid) << size;
    EXPECT_EQ(got.verifiedName(), "");
  }
  EXPECT_EQ(parsed(header(field(0x20, "\x03"))).state(), State::invalid);
}

TEST(ProxyHeaderTest, AHeaderThatIsCutOffIsIncomplete) {
  const std::string whole = header(tls(0x03, 0, field(0x22, "gw-7")));
  for (std::size_t size = 0; size < whole.size(); ++size) {
    const ProxyHeader got = parsed(std::string_view(whole).substr(0, size));
    EXPECT_EQ(got.state(), State::incomplete) << size;
    EXPECT_GT(got.missing(), 0U);
    EXPECT_LE(got.missing(), whole.size() - size);
  }
}

// CRC-32C by another way: the table of the remainders, from the highest bit.
std::uint32_t checksum(const std::string& bytes) {
  const auto reflect = [](std::uint32_t value, int bits) {
    std::uint32_t out = 0;
    for (int i = 0; i < bits; ++i) {
      out |= (value >> i & 1U) << (bits - 1 - i);
    }
    return out;
  };
  std::vector<std::uint32_t> table(256);
  for (std::uint32_t i = 0; i < 256; ++i) {
    std::uint32_t value = i << 24;
    for (int bit = 0; bit < 8; ++bit) {
      value = (value & 0x80000000U) != 0 ? value << 1 ^ 0x1edc6f41U : value << 1;
    }
    table[i] = value;
  }
  std::uint32_t sum = 0xffffffff;
  for (const char byte : bytes) {
    const std::uint32_t in = reflect(static_cast<unsigned char>(byte), 8);
    sum = sum << 8 ^ table[(sum >> 24 ^ in) & 0xff];
  }
  return reflect(sum, 32) ^ 0xffffffff;
}

TEST(ProxyHeaderTest, AWrongChecksumIsInvalid) {
  ASSERT_EQ(checksum("123456789"), 0xe3069283U);
  const std::string name = tls(0x03, 0, field(0x22, "gw-7"));
  const std::string zero = header(field(0x03, std::string(4, '\0')) + name);
  std::string right = zero;
  right.replace(zero.find(std::string("\x03\0\x04", 3)) + 3, 4, number(checksum(zero), 4));
  EXPECT_EQ(parsed(right).state(), State::proxied);
  EXPECT_EQ(parsed(zero).state(), State::invalid);
  right.back() = '8';
  EXPECT_EQ(parsed(right).state(), State::invalid);
  EXPECT_EQ(parsed(header(field(0x03, "abc"))).state(), State::invalid);
}

TEST(ProxyHeaderTest, NeverAsksForMoreThanItsLimit) {
  std::mt19937 random(11);
  for (int run = 0; run < 20000; ++run) {
    std::string bytes = header(tls(0x03, 0, field(0x22, "gw-7")));
    for (int change = 0; change < 3; ++change) {
      bytes[random() % bytes.size()] = static_cast<char>(random());
    }
    const ProxyHeader got = parsed(bytes + std::string(70000, 'x'), 1 + random() % 5000, true);
    ASSERT_NE(got.state(), State::incomplete);
    ASSERT_TRUE(got.state() == State::proxied || got.verifiedName().empty());
  }
}

}  // namespace
}  // namespace runel
