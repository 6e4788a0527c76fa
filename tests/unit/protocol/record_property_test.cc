// SPDX-License-Identifier: Apache-2.0
// Every record survives serializing and parsing, and malformed input is refused.
#include <cstdint>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <zell/slave_task.h>

#include "record_text.h"

namespace zell {
namespace {

using test::kEmptyRecord;
using test::recordText;

using Random = std::mt19937;

int between(Random& random, int least, int most) {
  return std::uniform_int_distribution<int>(least, most)(random);
}

std::string randomString(Random& random) {
  std::string bytes;
  const int most = between(random, 0, 9) == 0 ? 70000 : 20;
  for (int length = between(random, 0, most); length > 0; --length) {
    bytes.push_back(static_cast<char>(between(random, 0, 255)));
  }
  return bytes;
}

SlaveTask randomRecord(Random& random) {
  std::vector<std::string> args;
  for (int count = between(random, 0, 6); count > 0; --count) {
    args.push_back(randomString(random));
  }
  const std::string output = randomString(random);
  return {args,
          between(random, INT32_MIN, INT32_MAX),
          output,
          static_cast<SlaveStatus::Type>(between(random, 0, 4)),
          static_cast<WatchProcessState_t>(between(random, 0, 4)),
          between(random, INT32_MIN, INT32_MAX),
          between(random, 0, INT32_MAX),
          between(random, 0, INT32_MAX)};
}

bool sameFields(const SlaveTask& a, const SlaveTask& b) {
  return a.args() == b.args() && a.execParam() == b.execParam() && a.output() == b.output() &&
         a.status().status == b.status().status && a.status().state == b.status().state &&
         a.status().result == b.status().result && a.status().error == b.status().error &&
         a.status().signal == b.status().signal;
}

// A record has one valid form, so an accepted one serializes to the same text. A refused one leaves
// an empty record. Returns whether the text was accepted.
bool expectTakenOrRefused(const std::string& text, unsigned seed) {
  SlaveTask copied;
  copied.parse(text);
  SlaveTask moved;
  moved.parse(std::string(text));
  EXPECT_TRUE(sameFields(copied, moved)) << "seed " << seed;
  const std::string written = recordText(copied);
  EXPECT_TRUE(written == text || written == kEmptyRecord)
      << "seed " << seed << ' ' << testing::PrintToString(text);
  return written == text;
}

TEST(RecordPropertyTest, ASerializedRecordIsParsedUnchanged) {
  for (unsigned seed = 1; seed <= 500; ++seed) {
    Random random(seed);
    const SlaveTask original = randomRecord(random);
    SlaveTask copied;
    copied.parse(recordText(original));
    ASSERT_TRUE(sameFields(copied, original)) << "seed " << seed;
    const std::string text = recordText(original);
    copied.parse(text);
    ASSERT_TRUE(sameFields(copied, original)) << "seed " << seed;
  }
}

TEST(RecordPropertyTest, ADamagedRecordIsAnotherRecordOrRefused) {
  int refused = 0;
  for (unsigned seed = 1; seed <= 3000; ++seed) {
    Random random(seed);
    std::string text =
        recordText(SlaveTask({"task", randomString(random)}, between(random, -2, 2), "",
                             SlaveStatus::success, WatchProcessState_t::none, 0, 0, 0));
    const int last = static_cast<int>(text.size()) - 1;
    const auto at = static_cast<std::size_t>(between(random, 0, last));
    text[at] = static_cast<char>(between(random, 0, 255));
    refused += expectTakenOrRefused(text, seed) ? 0 : 1;
  }
  EXPECT_GT(refused, 500);
}

TEST(RecordPropertyTest, AnySequenceOfRecordBytesIsARecordOrRefused) {
  const std::string alphabet = "  0001239:-+a";
  int taken = 0;
  for (unsigned seed = 1; seed <= 50000; ++seed) {
    Random random(seed);
    std::string text = "SlaveTask 0";
    for (int length = between(random, 0, 18); length > 0; --length) {
      const int last = static_cast<int>(alphabet.size()) - 1;
      text.push_back(alphabet[static_cast<std::size_t>(between(random, 0, last))]);
    }
    taken += expectTakenOrRefused(text, seed) ? 1 : 0;
    ASSERT_FALSE(HasFailure());
  }
  RecordProperty("taken", taken);
}

TEST(RecordPropertyTest, AnyBytesAreParsedWithoutAThrow) {
  for (unsigned seed = 1; seed <= 20000; ++seed) {
    Random random(seed);
    std::string text = between(random, 0, 1) == 0 ? "" : "SlaveTask ";
    for (int length = between(random, 0, 60); length > 0; --length) {
      text.push_back(static_cast<char>(between(random, 0, 255)));
    }
    ASSERT_NO_THROW(expectTakenOrRefused(text, seed)) << "seed " << seed;
  }
}

}  // namespace
}  // namespace zell
