// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "gateway/store/text_codec.h"
#include "unit/gateway/store/store_fixture.h"

namespace runelgw::test {
namespace {

using Writer = std::string (*)(std::string_view);
using Reader = bool (*)(std::string_view, std::string&);

struct Form {
  Writer write;
  Reader read;
};
const Form kForms[] = {{hexText, readHex}, {base64Text, readBase64}, {escapedText, readEscaped}};

// Reads back what is written, and the text is one that every database takes.
void expectRoundTrip(const std::string& bytes) {
  for (const Form& form : kForms) {
    const std::string text = form.write(bytes);
    std::string back = "old";
    EXPECT_TRUE(form.read(text, back)) << text;
    EXPECT_EQ(back, bytes) << text;
    EXPECT_TRUE(std::all_of(text.begin(), text.end(), [](char c) {
      const auto byte = static_cast<unsigned char>(c);
      return byte >= 0x20 && byte != 0x7f;
    })) << text;
  }
}

TEST(TextCodecTest, ReadsBackAllBytesInAllPositions) {
  expectRoundTrip("");
  expectRoundTrip(allBytes());
  for (int first = 0; first < 256; ++first) {
    const std::string one(1, static_cast<char>(first));
    expectRoundTrip(one);
    expectRoundTrip("ab" + one);
    for (const int second : {0x00, 0x5c, 0x78, 0x7f, 0x80, 0x8f, 0x90, 0x9f, 0xa0, 0xbf, 0xc0}) {
      expectRoundTrip(one + static_cast<char>(second));
      expectRoundTrip(one + static_cast<char>(second) + "\x80\xbf");
    }
  }
}

TEST(TextCodecTest, KeepsReadableTextReadable) {
  EXPECT_EQ(escapedText("gw-1 über €𝄞"), "gw-1 über €𝄞");
  EXPECT_EQ(escapedText("a\\b"), "a\\\\b");
  EXPECT_EQ(escapedText(std::string("a\0\n\x7f", 4)), "a\\x00\\x0a\\x7f");
  EXPECT_EQ(hexText("gw"), "6777");
  EXPECT_EQ(base64Text("a"), "YQ==");
  EXPECT_EQ(base64Text("ab"), "YWI=");
  EXPECT_EQ(base64Text("abc"), "YWJj");
}

TEST(TextCodecTest, EscapesInvalidUtf8) {
  EXPECT_EQ(escapedText("\xc0\x80"), "\\xc0\\x80");                    // overlong
  EXPECT_EQ(escapedText("\xe0\x9f\xbf"), "\\xe0\\x9f\\xbf");           // overlong
  EXPECT_EQ(escapedText("\xed\xa0\x80"), "\\xed\\xa0\\x80");           // surrogate
  EXPECT_EQ(escapedText("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");  // beyond the last character
  EXPECT_EQ(escapedText("\xe2\x82"), "\\xe2\\x82");                    // incomplete
  EXPECT_EQ(escapedText("\xe2\x82z"), "\\xe2\\x82z");
}

TEST(TextCodecTest, RefusesWhatItDoesNotWrite) {
  std::string bytes;
  for (const char* text : {"6", "6G", "6A", "gg", "67 "}) {
    EXPECT_FALSE(readHex(text, bytes)) << text;
  }
  for (const char* text : {"Y", "YQ", "YQ=", "YR==", "YWJ=", "Y===", "====", "YQ==YQ==", "YW*j"}) {
    EXPECT_FALSE(readBase64(text, bytes)) << text;
  }
  for (const char* text : {"\\", "a\\", "\\y", "\\x", "\\x4", "\\x4G", "\\X41"}) {
    EXPECT_FALSE(readEscaped(text, bytes)) << text;
  }
  std::vector<std::string> items;
  EXPECT_FALSE(readList("a", items));
  EXPECT_FALSE(readList("a\n\\\n", items));
}

TEST(TextCodecTest, TellsAnEmptyListFromAnEmptyItem) {
  for (const std::vector<std::string>& list :
       {std::vector<std::string>{}, {""}, {"", ""}, {"a", "b\n", "\\", allBytes()}}) {
    std::vector<std::string> back = {"old"};
    EXPECT_TRUE(readList(listText(list), back));
    EXPECT_EQ(back, list);
  }
}

}  // namespace
}  // namespace runelgw::test
