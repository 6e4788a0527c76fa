// SPDX-License-Identifier: Apache-2.0
// The parsers of what a device tells a probe.
#include "probe/facts.h"

#include <optional>
#include <random>
#include <string>

#include <gtest/gtest.h>

namespace runelctl {
namespace {

const std::string kStat =
    "4711 (runeld) S 1 4711 4711 0 -1 4194560 210 0 0 0 3 1 0 0 20 0 1 0 250417 3006464 512 "
    "18446744073709551615 1 1 0 0 0 0 0 4096 16386 0 0 0 17 1 0 0 0 0 0\n";

TEST(ProbeFactsTest, ReadsTheUptime) {
  EXPECT_EQ(parseUptime("350735.47 234388.90\n"), 350735.47);
  EXPECT_EQ(parseUptime("0.00 0.00\n"), 0);
  EXPECT_EQ(parseUptime("12.05"), 12.05);
}

TEST(ProbeFactsTest, DoesNotReadAMalformedUptime) {
  for (const char* text : {"", "\n", " 1.00", "-1.00 1", "1 2\n", "1. 2", "1.5 2", "1.123 2",
                           ".50 1", "1,50 2", "1.-5 2", "1.50x", "x", "0x10.00", "1e9.00", "nan",
                           "inf", "1000000001.00 1", "99999999999999999999.00 1"}) {
    EXPECT_EQ(parseUptime(text), std::nullopt) << text;
  }
  EXPECT_EQ(parseUptime(std::string(1000000, '9')), std::nullopt);
}

TEST(ProbeFactsTest, ReadsTheStartOfAProcess) {
  EXPECT_EQ(parseProcessStart(kStat), 2504.17);
}

TEST(ProbeFactsTest, ReadsTheStartOfAProcessWithAnyName) {
  for (const char* name : {"a b", ") S 1 2 3", "((", "", "\n", "a) b"}) {
    std::string text = kStat;
    EXPECT_EQ(parseProcessStart(text.replace(text.find("runeld"), 6, name)), 2504.17) << name;
  }
}

TEST(ProbeFactsTest, DoesNotReadAMalformedStart) {
  for (const char* text :
       {"", "4711", "4711 (runeld)", "4711 (runeld) ", "4711 (runeld) S 1 2 3"}) {
    EXPECT_EQ(parseProcessStart(text), std::nullopt) << text;
  }
  for (const char* number : {"", "x", "-5", "1.5", "12345678901234567", "2 5"}) {
    std::string text = kStat;
    text.replace(text.find("250417"), 6, number);
    EXPECT_NE(parseProcessStart(text), 2504.17) << number;
  }
  std::string text = kStat;
  EXPECT_EQ(parseProcessStart(text.replace(text.find("250417"), 6, "25x")), std::nullopt);
}

TEST(ProbeFactsTest, AnyBytesAreReadWithoutAFailure) {
  std::mt19937 random(1);
  for (int round = 0; round < 20000; ++round) {
    std::string text = round % 2 == 0 ? kStat : "350735.47 234388.90\n";
    for (int change = 0; change < 3; ++change) {
      text[random() % text.size()] = static_cast<char>(random());
    }
    text.resize(random() % (text.size() + 1));
    const std::optional<double> start = parseProcessStart(text);
    const std::optional<double> uptime = parseUptime(text);
    EXPECT_TRUE(!start || (*start >= 0 && *start < 1e13)) << text;
    EXPECT_TRUE(!uptime || (*uptime >= 0 && *uptime <= 1e9 + 1)) << text;
  }
}

TEST(ProbeFactsTest, TheAgeIsTheTimeSinceTheStart) {
  EXPECT_EQ(ageOf(2504.17, 3504.67), 1000.5);
  EXPECT_EQ(ageOf(5.0, 5.0), 0);
}

// /proc/uptime is truncated to hundredths, and so is the start.
TEST(ProbeFactsTest, AnAgeBelowZeroIsARoundingErrorOrNoAge) {
  EXPECT_EQ(ageOf(5.01, 5.0), 0);
  EXPECT_EQ(ageOf(5.1, 5.0), std::nullopt);
  EXPECT_EQ(ageOf(std::nullopt, 5.0), std::nullopt);
  EXPECT_EQ(ageOf(5.0, std::nullopt), std::nullopt);
}

TEST(ProbeFactsTest, TheMedianIsTheMiddle) {
  EXPECT_EQ(medianOf({3, 1, 2}), 2);
  EXPECT_EQ(medianOf({4, 1}), 2.5);
  EXPECT_EQ(medianOf({7}), 7);
}

}  // namespace
}  // namespace runelctl
