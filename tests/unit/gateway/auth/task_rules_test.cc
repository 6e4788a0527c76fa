// SPDX-License-Identifier: Apache-2.0
#include "gateway/core/task_rules.h"

#include <map>
#include <set>
#include <string>

#include <gtest/gtest.h>
#include <runel/request.h>

#include "gateway/auth/role.h"
#include "protocol/task_table.h"

namespace runelgw {
namespace {

TEST(TaskRulesTest, EachTaskOfTheTableHasItsKind) {
  const std::map<std::string, std::set<std::string>> expected = {
      {"look",
       {"access", "devicetype", "fileexists", "freeblocks", "hostid", "lstat", "processrunning",
        "realpath", "stat"}},
      {"read", {"read", "readdir", "walktree"}},
      {"write", {"append", "chmodx", "rename", "unlink", "write"}},
      {"run", {"exec", "kill", "wait"}},
      {"led", {"blinkleds", "changeleds"}},
      {"state", {"updateumstate"}},
      {"power", {"reboot", "restart"}},
  };
  std::map<std::string, std::set<std::string>> found;
  for (const zell::TaskTraits& task : zell::kTasks) {
    ASSERT_TRUE(kindOf(task.name)) << task.name;
    found[nameOf(*kindOf(task.name))].insert(std::string(task.name));
  }
  EXPECT_EQ(found, expected);
}

TEST(TaskRulesTest, NoTaskThatChangesSomethingIsOfTheKindLook) {
  for (const zell::TaskTraits& task : zell::kTasks) {
    if (task.changes) {
      EXPECT_NE(kindOf(task.name), TaskKind::look) << task.name;
    }
  }
}

TEST(TaskRulesTest, FindsEachKindByItsName) {
  for (std::size_t kind = 0; kind < kTaskKinds; ++kind) {
    EXPECT_EQ(findTaskKind(nameOf(static_cast<TaskKind>(kind))), static_cast<TaskKind>(kind));
  }
  EXPECT_FALSE(findTaskKind("exec"));
  EXPECT_FALSE(findTaskKind(""));
}

TEST(TaskRulesTest, AnUnknownTaskHasNoKindAndCountsAsChange) {
  EXPECT_FALSE(kindOf("format"));
  EXPECT_FALSE(kindOf(""));
  EXPECT_TRUE(changes("format"));
  EXPECT_TRUE(changes("write"));
  EXPECT_FALSE(changes("read"));
}

TEST(TaskRulesTest, RefusesWhatSharesTheBackgroundProgramAndWhatNeverEnds) {
  for (const auto& [task, param] : std::map<std::string, int>{
           {"kill", 0}, {"wait", 0}, {"exec", -1}, {"exec ", 0}, {"nothing", 0}}) {
    EXPECT_TRUE(refusalOf(task, param)) << task;
  }
  EXPECT_TRUE(refusalOf("exec", 0));
  EXPECT_NE(refusalOf("kill", 0)->hint.find("job"), std::string::npos);
  EXPECT_NE(refusalOf("exec", -1)->hint.find("job"), std::string::npos);
}

TEST(TaskRulesTest, PassesAllOtherTasks) {
  std::size_t passed = 0;
  for (const zell::TaskTraits& task : zell::kTasks) {
    passed += refusalOf(task.name, task.name == "exec" ? 30 : 0) ? 0 : 1;
  }
  EXPECT_EQ(passed, std::size(zell::kTasks) - 2);
}

TEST(TaskRulesTest, ReadsTheTaskOfARequest) {
  const auto summary = summaryOf(runel::Request::exec({"/bin/sh", "-c", "a b"}, 12).encode());
  ASSERT_TRUE(summary);
  EXPECT_EQ(summary->task, "exec");
  EXPECT_EQ(summary->execParam, 12);
  const auto write = summaryOf(runel::Request({"write", "/f"}, std::string("\0 0:", 4)).encode());
  ASSERT_TRUE(write);
  EXPECT_EQ(write->task, "write");
  EXPECT_EQ(write->execParam, 0);
}

TEST(TaskRulesTest, ReadsNoTaskOfAMalformedRecord) {
  const std::string record = runel::Request({"rename", "/a", "/b"}).encode();
  for (std::size_t length = 0; length < record.find(" 0 0:") + 1; ++length) {
    EXPECT_FALSE(summaryOf(record.substr(0, length))) << length;
  }
  EXPECT_FALSE(summaryOf("SlaveTask 0 0 0: 0 0 0 0 0"));
  EXPECT_FALSE(summaryOf("SlaveTask 2147483647 4:exec 0 0: 0 0 0 0 0"));
}

TEST(RoleTest, AViewerOnlyLooks) {
  EXPECT_EQ(KindSet::of(Role::viewer).names(), std::vector<std::string>{"look"});
  for (const Role role : {Role::deviceOperator, Role::admin}) {
    EXPECT_EQ(KindSet::of(role).names().size(), kTaskKinds);
  }
}

TEST(RoleTest, FindsEachRoleByItsName) {
  for (const Role role : {Role::viewer, Role::deviceOperator, Role::admin}) {
    EXPECT_EQ(findRole(nameOf(role)), role);
  }
  EXPECT_FALSE(findRole("root"));
  EXPECT_LT(Role::viewer, Role::deviceOperator);
  EXPECT_LT(Role::deviceOperator, Role::admin);
}

}  // namespace
}  // namespace runelgw
