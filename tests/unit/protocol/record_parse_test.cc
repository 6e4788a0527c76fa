// SPDX-License-Identifier: Apache-2.0
// Parsing of records: each record has exactly one valid form.
#include <cstdint>
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

using Args = std::vector<std::string>;

const char kFileExists[] = "SlaveTask 2 10:fileexists 10:/etc/hosts 0 0: 0 0 0 0 0";
const char kAllFields[] = "SlaveTask 2 4:exec 9:/bin/true -7 3:out 1 2 -3 4 5";

SlaveTask parsed(const std::string& message) {
  SlaveTask task;
  task.parse(message);
  return task;
}

// Both parse functions leave an empty record.
void expectRefused(const std::string& message) {
  SlaveTask copied({"old"}, 1, "old", SlaveStatus::error, WatchProcessState_t::running, 1, 2, 3);
  EXPECT_FALSE(copied.parse(message));
  EXPECT_EQ(recordText(copied), kEmptyRecord) << testing::PrintToString(message);
  SlaveTask moved({"old"}, 1, "old", SlaveStatus::error, WatchProcessState_t::running, 1, 2, 3);
  EXPECT_FALSE(moved.parse(std::string(message)));
  EXPECT_EQ(recordText(moved), kEmptyRecord) << testing::PrintToString(message);
}

TEST(RecordParseTest, DistinguishesAValidRecordFromAMalformedOne) {
  SlaveTask task;
  EXPECT_TRUE(task.parse(kEmptyRecord));
  EXPECT_TRUE(task.parse(std::string("SlaveTask 1 100000:") + std::string(100000, 'x') +
                         " 0 0: 0 0 0 0 0"));
}

TEST(RecordParseTest, ReadsTheArguments) {
  EXPECT_EQ(parsed(kFileExists).args(), (Args{"fileexists", "/etc/hosts"}));
}

TEST(RecordParseTest, ReadsEveryField) {
  const SlaveTask task = parsed(kAllFields);
  EXPECT_EQ(task.args(), (Args{"exec", "/bin/true"}));
  EXPECT_EQ(task.execParam(), -7);
  EXPECT_EQ(task.output(), "out");
  EXPECT_EQ(task.status().status, SlaveStatus::failure);
  EXPECT_EQ(task.status().state, WatchProcessState_t::exited);
  EXPECT_EQ(task.status().result, -3);
  EXPECT_EQ(task.status().error, 4);
  EXPECT_EQ(task.status().signal, 5);
}

TEST(RecordParseTest, AStringMayHoldAnyBytes) {
  const std::string bytes("\0 9:\x01\x02\xff\n", 8);
  EXPECT_EQ(parsed("SlaveTask 2 8:" + bytes + " 0: 0 0: 0 0 0 0 0").args(), (Args{bytes, ""}));
}

TEST(RecordParseTest, ARecordReplacesThePreviousOne) {
  SlaveTask task = parsed(kAllFields);
  task.parse(std::string(kFileExists));
  EXPECT_EQ(recordText(task), kFileExists);
}

TEST(RecordParseTest, NumbersMayHaveAnyValueOfThirtyTwoBits) {
  const std::string text =
      "SlaveTask 0 -2147483648 0: 2147483647 2147483647 2147483647 2147483647 "
      "2147483647";
  EXPECT_EQ(recordText(parsed(text)), text);
}

TEST(RecordParseTest, ATruncatedRecordIsRefused) {
  for (const std::string text : {kFileExists, kAllFields, kEmptyRecord}) {
    for (std::size_t length = 0; length < text.size(); ++length) {
      expectRefused(text.substr(0, length));
    }
  }
}

TEST(RecordParseTest, AnyByteAfterTheLastFieldIsRefused) {
  for (int byte = 0; byte < 256; ++byte) {
    if (byte < '0' || byte > '9') {
      expectRefused(std::string(kFileExists) + static_cast<char>(byte));
    }
  }
}

TEST(RecordParseTest, ASecondBlankAnywhereIsRefused) {
  const std::string text = kAllFields;
  for (std::size_t at = text.find(' '); at != std::string::npos; at = text.find(' ', at + 1)) {
    expectRefused(text.substr(0, at) + ' ' + text.substr(at));
  }
}

TEST(RecordParseTest, WhiteSpaceOtherThanABlankIsRefused) {
  const std::string text = kAllFields;
  for (std::size_t at = text.find(' '); at != std::string::npos; at = text.find(' ', at + 1)) {
    for (const char space : {'\t', '\n', '\r', '\v', '\f'}) {
      std::string changed = text;
      changed[at] = space;
      expectRefused(changed);
    }
  }
}

TEST(RecordParseTest, AnotherNameIsRefused) {
  expectRefused("slavetask 0 0 0: 0 0 0 0 0");
  expectRefused(" SlaveTask 0 0 0: 0 0 0 0 0");
  expectRefused("SlaveTask2 0 0 0: 0 0 0 0 0");
  expectRefused(" 0 0 0: 0 0 0 0 0");
}

// A number for each field in turn, and whether the field accepts it.
struct Spelling {
  const char* name;
  const char* text;
  bool fitsUnsigned;
  bool fitsSigned;
};

class RecordNumberTest : public testing::TestWithParam<Spelling> {
 protected:
  // The record with field @p place (0: EXECPARAM, 1: STATUS, ... 5: SIGNAL) written as @p text.
  static std::string with(std::size_t place, const std::string& text) {
    std::vector<std::string> fields(6, "0");
    fields[place] = text;
    std::string record = "SlaveTask 1 1:a " + fields[0] + " 0:";
    for (std::size_t i = 1; i < fields.size(); ++i) {
      record += ' ' + fields[i];
    }
    return record;
  }
};

TEST_P(RecordNumberTest, IsAcceptedInExactlyOneSpelling) {
  const Spelling& spelling = GetParam();
  for (std::size_t place = 0; place < 6; ++place) {
    const std::string record = with(place, spelling.text);
    const bool isSigned = place == 0 || place == 3;  // EXECPARAM and RESULT
    if (isSigned ? spelling.fitsSigned : spelling.fitsUnsigned) {
      EXPECT_EQ(recordText(parsed(record)), record);
    } else {
      expectRefused(record);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Spellings, RecordNumberTest,
    testing::Values(
        Spelling{"Zero", "0", true, true}, Spelling{"One", "1", true, true},
        Spelling{"Largest", "2147483647", true, true},
        Spelling{"TooLarge", "2147483648", false, false},
        Spelling{"Unsigned", "4294967295", false, false},
        Spelling{"Unsigned64", "18446744073709551616", false, false},
        Spelling{"Minus", "-1", false, true}, Spelling{"Smallest", "-2147483648", false, true},
        Spelling{"TooSmall", "-2147483649", false, false}, Spelling{"Plus", "+1", false, false},
        Spelling{"MinusZero", "-0", false, false}, Spelling{"LeadingZero", "01", false, false},
        Spelling{"TwoZeros", "00", false, false},
        Spelling{"NegativeLeadingZero", "-01", false, false},
        Spelling{"MinusOnly", "-", false, false}, Spelling{"TwoMinuses", "--1", false, false},
        Spelling{"Empty", "", false, false}, Spelling{"Hex", "0x1", false, false},
        Spelling{"Point", "1.0", false, false}, Spelling{"Letter", "x", false, false},
        Spelling{"TrailingLetter", "1x", false, false}, Spelling{"Exponent", "1e1", false, false}),
    [](const auto& kind) { return std::string(kind.param.name); });

TEST(RecordParseTest, AWrongCountOfArgumentsIsRefused) {
  expectRefused("SlaveTask 1 10:fileexists 10:/etc/hosts 0 0: 0 0 0 0 0");
  expectRefused("SlaveTask 3 10:fileexists 10:/etc/hosts 0 0: 0 0 0 0 0");
  expectRefused("SlaveTask 0 10:fileexists 10:/etc/hosts 0 0: 0 0 0 0 0");
  expectRefused("SlaveTask -1 0 0: 0 0 0 0 0");
  expectRefused("SlaveTask 00 0 0: 0 0 0 0 0");
  expectRefused("SlaveTask +0 0 0: 0 0 0 0 0");
  expectRefused("SlaveTask 2147483647 0 0: 0 0 0 0 0");
  expectRefused("SlaveTask 4294967296 0 0: 0 0 0 0 0");
}

TEST(RecordParseTest, AWrongLengthIsRefused) {
  expectRefused("SlaveTask 1 2:a 0 0: 0 0 0 0 0");
  expectRefused("SlaveTask 1 0:a 0 0: 0 0 0 0 0");
  expectRefused("SlaveTask 1 01:a 0 0: 0 0 0 0 0");
  expectRefused("SlaveTask 1 -1:a 0 0: 0 0 0 0 0");
  expectRefused("SlaveTask 1 +1:a 0 0: 0 0 0 0 0");
  expectRefused("SlaveTask 1 :a 0 0: 0 0 0 0 0");
  expectRefused("SlaveTask 1 1 a 0 0: 0 0 0 0 0");
  expectRefused("SlaveTask 1 1: a 0 0: 0 0 0 0 0");
  expectRefused("SlaveTask 1 1 :a 0 0: 0 0 0 0 0");
  expectRefused("SlaveTask 1 2147483647:a 0 0: 0 0 0 0 0");
  expectRefused("SlaveTask 1 2147483648:a 0 0: 0 0 0 0 0");
  expectRefused("SlaveTask 1 4294967297:a 0 0: 0 0 0 0 0");
  expectRefused("SlaveTask 1 18446744073709551617:a 0 0: 0 0 0 0 0");
  expectRefused("SlaveTask 0 0 1: 0 0 0 0 0");
}

TEST(RecordParseTest, ALengthMayReachTheEndOnlyIfNothingMustFollow) {
  expectRefused("SlaveTask 1 22:abc 0 0: 0 0 0 0 0");
  expectRefused("SlaveTask 0 0 10: 0 0 0 0 0");
}

TEST(RecordParseTest, BothParseFunctionsReadTheSame) {
  const std::string longOne(200000, 'z');
  const std::string longest(300000, '\x01');
  const SlaveTask original({"write", longOne, "", longest, "end"}, 3, "output",
                           SlaveStatus::failure, WatchProcessState_t::signalled, -1, 0, 9);
  const std::string text = recordText(original);
  SlaveTask moved;
  moved.parse(std::string(text));
  EXPECT_TRUE(recordText(moved) == text);
  EXPECT_TRUE(recordText(parsed(text)) == text);
}

TEST(RecordParseTest, TwoLongestArgumentsKeepTheirPlaces) {
  const std::string first(100000, '1');
  const std::string second(100000, '2');
  SlaveTask task;
  task.parse(recordText(SlaveTask({"x", first, second}, 0, "", SlaveStatus::success,
                                  WatchProcessState_t::none, 0, 0, 0)));
  ASSERT_EQ(task.args().size(), 3u);
  EXPECT_TRUE(task.args()[1] == first);
  EXPECT_TRUE(task.args()[2] == second);
}

}  // namespace
}  // namespace zell
