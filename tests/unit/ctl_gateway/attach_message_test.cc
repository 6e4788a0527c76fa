// SPDX-License-Identifier: Apache-2.0
#include "gateway/attach_message.h"

#include <cerrno>
#include <string>

#include <gtest/gtest.h>

namespace runelctl {
namespace {

using Type = AttachMessage::Type;

TEST(AttachMessageTest, WritesTheMessagesOfAClient) {
  EXPECT_EQ(attachText(7, "gw \"1\"", runel::Milliseconds(27000)),
            R"({"attach":7,"device":"gw \"1\"","deadline_ms":27000})");
  EXPECT_EQ(detachText(7), R"({"detach":7})");
  EXPECT_EQ(creditText(7, 65536), R"({"credit":7,"bytes":65536})");
  EXPECT_EQ(listText("@all", 8, ""), R"({"list":"@all","id":8})");
  EXPECT_EQ(listText("@all", 8, "c"), R"({"list":"@all","id":8,"cursor":"c"})");
}

TEST(AttachMessageTest, ReadsTheMessagesOfAGateway) {
  EXPECT_EQ(parseAttachMessage(R"({"attached":7,"device":"a","hostid":"b"})")->type,
            Type::attached);
  EXPECT_EQ(parseAttachMessage(R"({"sent":7})")->type, Type::sent);
  EXPECT_EQ(parseAttachMessage(R"({"progress":7})")->type, Type::progress);
  const auto credit = parseAttachMessage(R"({"credit":7,"bytes":65536})");
  EXPECT_EQ(credit->type, Type::credit);
  EXPECT_EQ(credit->number, 7U);
  EXPECT_EQ(credit->bytes, 65536U);
  EXPECT_EQ(parseAttachMessage(R"({"weather":"fine"})")->type, Type::other);
}

TEST(AttachMessageTest, ReadsWhatHasBecomeOfARequest) {
  const auto busy = parseAttachMessage(
      R"({"failed":7,"outcome":"not run","reason":"busy","text":"busy with exec"})");
  ASSERT_TRUE(busy);
  EXPECT_EQ(busy->error.text(), "busy with exec");
  EXPECT_EQ(busy->error.outcome(), runel::Outcome::notSent);
  EXPECT_TRUE(busy->error.transient());
  const auto lost = parseAttachMessage(R"({"failed":7,"outcome":"unknown","reason":"lost"})");
  EXPECT_EQ(lost->error.outcome(), runel::Outcome::unknown);
  EXPECT_EQ(lost->error.cause(), runel::Cause::closed);
  const auto refused = parseAttachMessage(R"({"failed":7,"outcome":"not run","reason":"refused"})");
  EXPECT_EQ(refused->error.number(), EOPNOTSUPP);
  EXPECT_FALSE(refused->error.transient());
  const auto offline = parseAttachMessage(R"({"refused":7,"reason":"offline","text":"gone"})");
  EXPECT_EQ(offline->type, Type::refused);
  EXPECT_EQ(offline->error.text(), "gone");
  EXPECT_TRUE(offline->error.transient());
}

TEST(AttachMessageTest, AReasonMayBeNew) {
  const auto message =
      parseAttachMessage(R"({"failed":7,"outcome":"not run","reason":"moon","text":"full moon"})");
  EXPECT_EQ(message->error.text(), "full moon");
  EXPECT_EQ(message->error.outcome(), runel::Outcome::notSent);
}

TEST(AttachMessageTest, ReadsAPartOfAList) {
  const auto list = parseAttachMessage(
      R"({"devices":3,"list":[{"device":"a","state":"online"},{"device":"b"}],"next":"b"})");
  ASSERT_TRUE(list);
  ASSERT_EQ(list->devices.size(), 2U);
  EXPECT_EQ(list->devices[0].name, "a");
  EXPECT_EQ(list->devices[0].line, R"({"device":"a","state":"online"})");
  EXPECT_EQ(list->cursor, "b");
  const auto error = parseAttachMessage(R"({"error":"query","id":3,"text":"unknown key"})");
  EXPECT_EQ(error->type, Type::error);
  EXPECT_EQ(error->number, 3U);
  EXPECT_EQ(error->error.text(), "unknown key");
  EXPECT_EQ(parseAttachMessage(R"({"error":"stop","text":"bye"})")->number, 0U);
}

TEST(AttachMessageTest, RefusesMalformedText) {
  for (const std::string text : {"",
                                 "7",
                                 "[]",
                                 "{",
                                 "\"attached\"",
                                 R"({"attached":0})",
                                 R"({"attached":-1})",
                                 R"({"attached":4294967296})",
                                 R"({"attached":"7"})",
                                 R"({"attached":7.5})",
                                 R"({"credit":7})",
                                 R"({"credit":7,"bytes":-1})",
                                 R"({"credit":7,"bytes":9e99})",
                                 R"({"failed":7})",
                                 R"({"failed":7,"outcome":"maybe"})",
                                 R"({"devices":3})",
                                 R"({"devices":3,"list":{}})",
                                 R"({"devices":3,"list":["a"]})",
                                 R"({"devices":3,"list":[{"device":""}]})",
                                 R"({"devices":3,"list":[{"device":"a\nb"}]})",
                                 "{\"attached\":7} x",
                                 "{\"a\":\"\xff\"}"}) {
    EXPECT_FALSE(parseAttachMessage(text)) << text;
  }
  EXPECT_FALSE(parseAttachMessage(std::string(1000000, '[')));
}

}  // namespace
}  // namespace runelctl
