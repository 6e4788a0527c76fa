// SPDX-License-Identifier: Apache-2.0
// The lines and objects of a plan.
#include "commands/change_text.h"

#include <optional>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace runelctl {
namespace {

using Action = runel::TransferChange::Action;

std::string lineOf(const runel::TransferChange& change) {
  return changeLine(change, Style());
}

TEST(ChangeTextTest, LinesHaveActionPathAndSizes) {
  EXPECT_EQ(lineOf({Action::create, '-', "/a", "", 5, std::nullopt}), "create      /a  5 B");
  EXPECT_EQ(lineOf({Action::replace, '-', "/a", "", 5, 2048}),
            "replace     /a  5 B (old: 2.0 KiB)");
  EXPECT_EQ(lineOf({Action::create, 'd', "/d", "", 0, std::nullopt}), "create      /d/");
  EXPECT_EQ(lineOf({Action::create, 'd', "/d/", "", 0, std::nullopt}), "create      /d/");
  EXPECT_EQ(lineOf({Action::replace, 'l', "/l", "to", 0, std::nullopt}), "replace     /l -> to");
  EXPECT_EQ(lineOf({Action::remove, 'p', "/p", "", 0, std::nullopt}), "remove      /p");
  EXPECT_EQ(lineOf({Action::attributes, '-', "/a", "", 5, std::nullopt}), "attributes  /a");
}

TEST(ChangeTextTest, NamesAreEscapedOnATerminal) {
  Style style;
  style.outTerminal = true;
  EXPECT_EQ(changeLine({Action::create, 'l', "/\x1b[31m", "\r", 0, std::nullopt}, style),
            "create      /\\x1b[31m -> \\r");
}

TEST(ChangeTextTest, ObjectsHaveTheFieldsOfTheirType) {
  EXPECT_EQ(
      changeObject({Action::replace, '-', "/a", "", 5, 7}).dump(),
      R"({"entry":"change","action":"replace","type":"-","path":"/a","size":5,"old_size":7})");
  EXPECT_EQ(changeObject({Action::remove, 'l', "/l", "to", 9, std::nullopt}).dump(),
            R"({"entry":"change","action":"remove","type":"l","path":"/l","target":"to"})");
  EXPECT_EQ(changeObject({Action::create, 'd', "\xff", "", 0, std::nullopt}).dump(),
            R"({"entry":"change","action":"create","type":"d","path_base64":"/w=="})");
}

}  // namespace
}  // namespace runelctl
