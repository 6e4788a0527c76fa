// SPDX-License-Identifier: Apache-2.0
#include "gateway/api/json_text.h"

#include <random>
#include <string>

#include <gtest/gtest.h>

#include "gateway/api/cursor.h"

namespace runelgw {
namespace {

std::string errorOf(const std::string& text) {
  std::string error;
  return parseJson(text, error) ? "" : error;
}

TEST(JsonTextTest, AcceptsObjects) {
  std::string error;
  const auto json = parseJson(R"({"a":[1,true,null,"\u00e4"],"b":{"a":-1.5}})", error);
  ASSERT_TRUE(json) << error;
  EXPECT_EQ((*json)["a"][3], "\xc3\xa4");
}

TEST(JsonTextTest, RefusesWhatTwoProgramsMayReadDifferently) {
  EXPECT_EQ(errorOf(R"({"a":1,"a":2})"), "a name occurs twice in an object");
  EXPECT_EQ(errorOf(R"({"x":[{"a":1,"b":2,"\u0061":3}]})"), "a name occurs twice in an object");
  EXPECT_EQ(errorOf(R"({"a":{"b":1},"b":{"b":1}})"), "");
  for (const char* const text : {"", "{", "{}x", "{} {}", "{'a':1}", "{\"a\":01}", "{\"a\":NaN}",
                                 "{\"a\":1,}", "// c\n{}", "\xef\xbb\xbf{", "{\"a\":\"\x01\"}"}) {
    EXPECT_NE(errorOf(text), "") << text;
  }
}

TEST(JsonTextTest, RefusesInvalidUtf8) {
  for (const char* const bytes : {"\xff", "\xc0\x80", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xc3"}) {
    EXPECT_NE(errorOf(std::string("{\"a\":\"") + bytes + "\"}"), "");
    EXPECT_NE(errorOf(std::string("{\"") + bytes + "\":1}"), "");
  }
  EXPECT_NE(errorOf(R"({"a":"\ud800"})"), "");
  EXPECT_EQ(errorOf(R"({"a":"\ud83d\ude00"})"), "");
}

TEST(JsonTextTest, RefusesDeepAndManyValues) {
  const auto nested = [](std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
  };
  EXPECT_EQ(errorOf(nested(kDeepestJson)), "");
  EXPECT_EQ(errorOf(nested(kDeepestJson + 1)), "nested too deeply");
  EXPECT_EQ(errorOf(std::string(5000000, '[')), "nested too deeply");
  std::string many = "[0";
  for (std::size_t value = 2; value < kMostJsonValues; ++value) {
    many += ",0";
  }
  EXPECT_EQ(errorOf(many + "]"), "");
  EXPECT_EQ(errorOf(many + ",0]"), "too many values");
}

TEST(JsonTextTest, Base64ComesBackAndHasOneForm) {
  std::mt19937 random(7);
  for (std::size_t length = 0; length < 70; ++length) {
    std::string bytes;
    for (std::size_t at = 0; at < length; ++at) {
      bytes += static_cast<char>(random());
    }
    EXPECT_EQ(fromBase64(toBase64(bytes)), bytes);
    EXPECT_EQ(fromBase64Url(toBase64Url(bytes)), bytes);
  }
  EXPECT_EQ(toBase64("M"), "TQ==");
  EXPECT_EQ(toBase64("Ma"), "TWE=");
  EXPECT_EQ(toBase64(std::string("\xff\xfe\xfd", 3)), "//79");
  for (const char* const text : {"TQ", "TQ=", "TR==", "TWF=", "TQ==TQ==", "T===", "====", "TQ==\n",
                                 " TQ==", "TW-=", "=TQ="}) {
    EXPECT_FALSE(fromBase64(text)) << text;
  }
  EXPECT_FALSE(fromBase64Url("TQ=="));
  EXPECT_FALSE(fromBase64Url("+/79"));
}

TEST(JsonTextTest, BytesAreATextIfTheyCanBe) {
  EXPECT_EQ(bytesOf("gr\xc3\xbc\xc3\x9f"), Json("gr\xc3\xbc\xc3\x9f"));
  EXPECT_EQ(bytesOf(std::string("a\0b", 3)), Json(std::string("a\0b", 3)));
  EXPECT_EQ(bytesOf("\xff"), Json({{"base64", "/w=="}}));
  EXPECT_EQ(bytesFrom(Json({{"base64", "/w=="}})), "\xff");
  EXPECT_EQ(bytesFrom(Json("x")), "x");
  for (const Json& wrong :
       {Json(1), Json(nullptr), Json::array({"x"}), Json({{"base64", 1}}), Json({{"base64", "x"}}),
        Json({{"base64", ""}, {"more", 1}}), Json::object()}) {
    EXPECT_FALSE(bytesFrom(wrong)) << wrong;
  }
}

TEST(JsonTextTest, TextsForLogsHaveOneLine) {
  EXPECT_EQ(printable("a\r\nb\x1b[0m\x7f\xff\xc3\xa4\xc2\x85"),
            "a\\x0d\\x0ab\\x1b[0m\\x7f\\xff\xc3\xa4\\xc2\\x85");
}

TEST(JsonTextTest, InvalidUtf8IsNeverSent) {
  EXPECT_NO_THROW((void)textOf(Json({{"a", "\xff\xfe"}})));
}

TEST(JsonTextTest, TimesComeBack) {
  EXPECT_EQ(timeOf(1700000000123), "2023-11-14T22:13:20.123Z");
  EXPECT_EQ(timeOf(0), nullptr);
  EXPECT_EQ(timeFrom("2023-11-14T22:13:20.123Z"), 1700000000123);
  EXPECT_EQ(timeFrom("2023-11-14T22:13:20Z"), 1700000000000);
  EXPECT_EQ(timeFrom("2023-11-14T22:13:20.5Z"), 1700000000500);
  for (const char* const text :
       {"", "2023-11-14", "2023-11-14T22:13:20", "2023-11-14T22:13:20+01:00",
        "2023-02-30T00:00:00Z", "2023-11-14T24:00:01Z", "1969-12-31T23:59:59Z",
        "2023-11-14T22:13:20.Z", "2023-11-14T22:13:20.123Zx", "20231114T221320Z",
        "2023-13-01T00:00:00Z"}) {
    EXPECT_FALSE(timeFrom(text)) << text;
  }
}

TEST(FieldsTest, TellsTheFirstWrongMemberWithItsPointer) {
  const Json json = {{"name", 3}, {"a/b~c", 1}, {"limit", 5}};
  Fields fields(json, {"name", "limit", "a/b~c"}, "/task");
  EXPECT_EQ(fields.number("limit", 1, 4), 0);
  EXPECT_EQ(fields.text("name", 9), "");
  EXPECT_FALSE(fields.ok());
  EXPECT_EQ(fields.pointer(), "/task/limit");
  EXPECT_NE(fields.error().find("from 1 to 4"), std::string::npos);
  Fields escaped(json, {"name", "limit"}, "");
  EXPECT_EQ(escaped.pointer(), "/a~1b~0c");
}

TEST(FieldsTest, NumbersAreWholeAndWithinTheirLimits) {
  const auto wrong = [](const Json& value) {
    const Json json = {{"n", value}};
    Fields fields(json, {"n"});
    (void)fields.number("n", -5, 5);
    return !fields.ok();
  };
  EXPECT_FALSE(wrong(-5));
  EXPECT_FALSE(wrong(5));
  for (const Json& value : {Json(6), Json(-6), Json(1.5), Json(1.0), Json("1"), Json(true),
                            Json(18446744073709551615ULL), Json(nullptr)}) {
    EXPECT_TRUE(wrong(value)) << value;
  }
}

TEST(FieldsTest, OnlyAnObjectHasMembers) {
  for (const Json& json : {Json::array(), Json("x"), Json(nullptr)}) {
    EXPECT_FALSE(Fields(json, {"a"}).ok());
  }
}

TEST(CursorTest, BelongsToItsListAndCannotBeMade) {
  const Cursors cursors("key");
  const std::string position("gw-7\0\xff", 6);
  const std::string cursor = cursors.make("list", position);
  EXPECT_EQ(cursors.read("list", cursor), position);
  EXPECT_FALSE(cursors.read("lis", cursor));
  EXPECT_FALSE(cursors.read("list2", cursor));
  EXPECT_FALSE(Cursors("other").read("list", cursor));
  for (std::size_t at = 0; at < cursor.size(); ++at) {
    std::string changed = cursor;
    changed[at] = changed[at] == 'A' ? 'B' : 'A';
    EXPECT_FALSE(cursors.read("list", changed)) << at;
  }
  EXPECT_FALSE(cursors.read("list", ""));
  EXPECT_FALSE(cursors.read("list", cursor.substr(1)));
  EXPECT_FALSE(cursors.read("list", cursor + "AAAA"));
  EXPECT_FALSE(cursors.read("list", std::string(100000, 'A')));
}

TEST(CursorTest, TheNameOfAListDoesNotRunIntoThePosition) {
  const Cursors cursors("key");
  EXPECT_NE(cursors.make("ab", "c").substr(0, 40), cursors.make("a", "bc").substr(0, 40));
}

}  // namespace
}  // namespace runelgw
