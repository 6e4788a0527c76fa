// SPDX-License-Identifier: Apache-2.0
// What a transfer tells before it changes something, and transfers that only tell.
#include <cerrno>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <runel/transfer.h>

#include "drivers.h"
#include "support/temp_dir.h"
#include "unit/client/prepared_device.h"

namespace runel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Strings = std::vector<std::string>;
namespace fs = std::filesystem;

// "create -/path 3", with the size that is replaced after an arrow.
std::string textOf(const TransferChange& change) {
  static const char* const kNames[] = {"create", "replace", "attributes", "remove"};
  std::string text = kNames[static_cast<int>(change.action)];
  text += " " + (change.type + change.path) + " ";
  text += change.type == 'l' ? change.target : std::to_string(change.size);
  return text + (change.oldSize ? " <- " + std::to_string(*change.oldSize) : "");
}

class PlanTest : public ::testing::Test {
 protected:
  PlanTest() {
    options.setRecursive(true).setPlanOnly(true).setChangeHandler(
        [this](const TransferChange& change) { changes.push_back(textOf(change)); });
    fs::create_directories(here.file("tree/d"));
    for (const char* name : {"tree/a", "tree/d/b", "tree/d/c.log"}) {
      const timespec times[2] = {{7, 8}, {7, 8}};
      const std::string path = here.write(name, "12345");
      EXPECT_EQ(chmod(path.c_str(), 0644) + utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    }
    EXPECT_EQ(chmod(here.file("tree").c_str(), 0755) + chmod(here.file("tree/d").c_str(), 0755), 0);
    fs::create_symlink("a", here.file("tree/l"));
  }

  void push(const std::string& source) {
    const auto sources = PushSources::scan({here.file(source)}, true, excludes);
    run([&](AsyncTransfer::Done done) {
      return AsyncTransfer::push(device.client(), *sources, "/t", options, std::move(done));
    });
  }
  void sync() {
    const auto sources = PushSources::scan({here.file("tree")}, true, excludes);
    run([&](AsyncTransfer::Done done) {
      return AsyncTransfer::sync(device.client(), *sources, "/t", options, std::move(done));
    });
  }
  void pull(const Strings& sources, const std::string& target) {
    options.setExcludes(excludes);
    run([&](AsyncTransfer::Done done) {
      return AsyncTransfer::pull(device.client(), sources, here.file(target), options,
                                 std::move(done));
    });
  }
  template <typename Start>
  void run(const Start& start) {
    const auto transfer = start([this](const TransferReport& done) { report = done; });
    ASSERT_TRUE(test::runUntil(loop, [this] { return report.has_value(); }));
  }
  // No request of a plan changes anything.
  void expectReads() {
    for (const std::string& request : device.requests()) {
      const std::string task = request.substr(0, request.find(' '));
      EXPECT_TRUE(task == "stat" || task == "lstat" || task == "walktree" || task == "fileexists")
          << request;
    }
  }

  zell::test::TempDir here;
  Loop loop;
  PreparedDevice device{loop};
  TransferOptions options;
  Strings excludes;
  Strings changes;
  std::optional<TransferReport> report;
};

TEST_F(PlanTest, APushToNothingCreatesEverything) {
  push("tree");
  EXPECT_TRUE(report->ok());
  EXPECT_THAT(changes, ElementsAre("create d/t 0", "create -/t/a 5", "create d/t/d 0",
                                   "create -/t/d/b 5", "create -/t/d/c.log 5", "create l/t/l a"));
  EXPECT_EQ(report->files(), 3U);
  EXPECT_EQ(report->bytes(), 15U);
  expectReads();
}

TEST_F(PlanTest, APushReplacesWhatIsThere) {
  for (const char* path : {"/t", "/t/tree", "/t/tree/d"}) {
    device.succeed("stat " + std::string(path), PreparedDevice::stat("0040755", 0));
    device.succeed("fileexists " + std::string(path), "");
  }
  device.succeed("lstat /t/tree/a", PreparedDevice::stat("0100644", 99));
  device.succeed("lstat /t/tree/d/b", PreparedDevice::stat("0120777", 3));  // a link to a file
  device.succeed("stat /t/tree/d/b", PreparedDevice::stat("0100644", 7));
  device.succeed("lstat /t/tree/l", PreparedDevice::stat("0120777", 1));
  push("tree");
  EXPECT_TRUE(report->ok());
  EXPECT_THAT(changes, ElementsAre("replace -/t/tree/a 5 <- 99", "replace -/t/tree/d/b 5 <- 7",
                                   "create -/t/tree/d/c.log 5", "replace l/t/tree/l a"));
  expectReads();
}

// A transfer would find out.
TEST_F(PlanTest, ADirectoryThatCannotBeLookedAtIsNoFailure) {
  device.succeed("fileexists /t", "");
  device.succeed("stat /t", PreparedDevice::stat("0040755", 0));
  device.fail("stat /t/tree/d", EACCES);
  push("tree");
  EXPECT_TRUE(report->ok());
}

// The answers are for all paths that begin so.
TEST_F(PlanTest, APushThatWouldFailSaysSo) {
  device.succeed("fileexists /t", "");
  device.succeed("stat /t", PreparedDevice::stat("0100644", 0));
  device.succeed("lstat /t/a", PreparedDevice::stat("0040755", 0));
  device.succeed("lstat /t/l", PreparedDevice::stat("0040755", 0));
  push("tree");
  EXPECT_EQ(report->error()->text(), "/t: Not a directory");
  EXPECT_THAT(report->warnings(),
              ElementsAre("/t/d: Not a directory", "/t/a: Is a directory", "/t/l: Is a directory"));
  EXPECT_THAT(changes, ElementsAre("create -/t/d/b 5", "create -/t/d/c.log 5"));
}

TEST_F(PlanTest, ASyncTellsDifferencesAndRemovals) {
  options.setDelete(true);
  device.succeed("walktree /t/.",
                 "d 0755 0 0 0 0 .\n- 0644 0 0 5 7 a\n- 0644 0 0 2 7 d\n- 0644 0 0 1 1 old/x\n"
                 "d 0755 0 0 0 0 old\nl 0777 0 0 1 1 l -> a\n- 0600 0 0 3 3 z\n");
  device.succeed("fileexists /t/d", "");
  device.succeed("fileexists /t", "");
  device.succeed("lstat /t/d", PreparedDevice::stat("0100644", 2));
  sync();
  EXPECT_TRUE(report->ok());
  EXPECT_THAT(changes, ElementsAre("remove -/t/d 2", "remove d/t/old 0", "remove -/t/old/x 1",
                                   "remove -/t/z 3", "create d/t/d 0", "create -/t/d/b 5",
                                   "create -/t/d/c.log 5"));
  EXPECT_EQ(report->removed(), 3U);
  EXPECT_EQ(report->bytes(), 10U);
  expectReads();
}

TEST_F(PlanTest, ASyncTellsAttributesOnce) {
  options.setChecksum(true);
  device.succeed("walktree /t/.",
                 "d 0700 0 0 0 0 .\n- 0600 0 0 5 9 a\nd 0755 0 0 0 0 d\n- 0644 0 0 4 7 d/b\n"
                 "- 0644 0 0 5 7 d/c.log\nl 0777 0 0 1 1 l -> a\n");
  // The SHA-256 of "12345".
  const std::string sum =
      "5994471abb01112afcc18159f6cc74b4f511b99806da59b3caf5a9c173cacfc5  name\n";
  device.succeed("exec sha256sum", sum + sum);
  device.succeed("fileexists", "");
  device.succeed("lstat /t/d/b", PreparedDevice::stat("0100644", 4));
  sync();
  EXPECT_THAT(changes,
              ElementsAre("attributes d/t 0", "attributes -/t/a 5", "replace -/t/d/b 5 <- 4"));
}

TEST_F(PlanTest, ExcludedNamesAreNeitherSentNorRemoved) {
  options.setDelete(true);
  excludes = {"*.log", "/a"};
  device.succeed("walktree /t/.",
                 "d 0755 0 0 0 0 .\n- 0644 0 0 9 9 a\nd 0755 0 0 0 0 old\n"
                 "- 0644 0 0 1 1 old/x.log\n- 0644 0 0 1 1 old/y\n");
  sync();
  EXPECT_THAT(changes, ElementsAre("remove -/t/old/y 1", "create d/t/d 0", "create -/t/d/b 5",
                                   "create l/t/l a"));
}

TEST_F(PlanTest, APushLeavesOutASourceByItsName) {
  excludes = {"tree"};
  push("tree");
  EXPECT_TRUE(report->ok());
  EXPECT_THAT(changes, IsEmpty());
  report.reset();
  excludes = {"tree"};
  device.succeed("walktree /t/.", "");
  sync();  // its directory is not one of the names
  EXPECT_EQ(changes.size(), 6U);
}

TEST_F(PlanTest, APatternForDirectoriesLeavesOutNoFileThatIsASource) {
  excludes = {"a/"};
  push("tree/a");
  EXPECT_THAT(changes, ElementsAre("create -/t 5"));
}

TEST_F(PlanTest, ATransferTellsAndDoesTheSame) {
  options.setPlanOnly(false).setDelete(true);
  device.succeed("walktree /t/.", "d 0755 0 0 0 0 .\n- 0644 0 0 1 1 z\n");
  device.succeed("fileexists /t", "");
  device.onRequest("exec rm", [this] { EXPECT_THAT(changes, ElementsAre("remove -/t/z 1")); });
  sync();
  EXPECT_TRUE(report->ok());
  EXPECT_THAT(changes, ElementsAre("remove -/t/z 1", "create -/t/a 5", "create -/t/d/b 5",
                                   "create -/t/d/c.log 5", "create l/t/l a"));
  EXPECT_EQ(device.count("exec rm -r -f -- /t/z"), 1U);
  EXPECT_EQ(report->files(), 3U);
}

class PullPlanTest : public PlanTest {
 protected:
  PullPlanTest() {
    device.succeed("stat /x", PreparedDevice::stat("0040755", 0));
    device.succeed("walktree /x/.",
                   "d 0755 0 0 0 0 .\n- 0644 0 0 8 7 a\nd 0755 0 0 0 0 d\n- 0644 0 0 9 7 d/c.log\n"
                   "l 0777 0 0 1 1 l -> a\n");
  }
};

TEST_F(PullPlanTest, ComparesWithWhatIsHere) {
  const std::string to = here.file("tree");
  device.succeed("stat /x/.", PreparedDevice::stat("0040755", 0));
  device.succeed("walktree /x/./.",
                 "d 0755 0 0 0 0 .\n- 0644 0 0 8 7 a\n- 0644 0 0 1 7 new\n"
                 "d 0755 0 0 0 0 d\nl 0777 0 0 1 1 l -> a\n");
  pull({"/x/."}, "tree");
  EXPECT_TRUE(report->ok());
  EXPECT_THAT(changes, ElementsAre("replace -" + to + "/a 8 <- 5", "replace l" + to + "/l a",
                                   "create -" + to + "/new 1"));
  EXPECT_EQ(report->bytes(), 9U);
  expectReads();
}

TEST_F(PullPlanTest, CreatesNothing) {
  options.setSubdirectory("device");
  excludes = {"*.log"};
  pull({"/x"}, "new");
  const std::string to = here.file("new/device/x");
  EXPECT_THAT(changes, ElementsAre("create d" + to + " 0", "create -" + to + "/a 8",
                                   "create d" + to + "/d 0", "create l" + to + "/l a"));
  EXPECT_FALSE(fs::exists(here.file("new")));
  expectReads();
}

TEST_F(PullPlanTest, SaysWhatWouldFail) {
  fs::create_directories(here.file("to/x/a"));
  fs::create_symlink("../..", here.file("to/x/d"));
  pull({"/x"}, "to");
  EXPECT_EQ(report->error()->text(), here.file("to/x/d") + ": File exists");
  EXPECT_THAT(report->warnings(),
              ElementsAre(here.file("to/x/a") + ": Is a directory",
                          here.file("to/x/d/c.log") + ": a symbolic link is in the path"));
  EXPECT_THAT(changes, ElementsAre("create l" + here.file("to/x/l") + " a"));
}

TEST_F(PullPlanTest, ATargetThatIsNoDirectoryIsAnError) {
  options.setIntoDirectory(true);
  pull({"/x"}, "tree/a");
  EXPECT_EQ(report->error()->number(), ENOTDIR);
  EXPECT_THAT(changes, IsEmpty());
}

TEST_F(PullPlanTest, AnInvalidRuleEndsTheTransfer) {
  excludes = {"!"};
  pull({"/x"}, "to");
  EXPECT_FALSE(report->complete());
  EXPECT_FALSE(PushSources::scan({here.file("tree")}, true, {"!"}));
  EXPECT_THAT(device.requests(), IsEmpty());
}

TEST_F(PullPlanTest, LeavesOutASourceByItsName) {
  excludes = {"x/"};
  pull({"/x"}, "to");
  EXPECT_TRUE(report->ok());
  EXPECT_THAT(changes, IsEmpty());
  EXPECT_EQ(device.count("walktree"), 0U);
}

}  // namespace
}  // namespace runel
