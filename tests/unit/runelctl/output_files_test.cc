// SPDX-License-Identifier: Apache-2.0
// The files with the output of each device.
#include "output/output_files.h"

#include <cerrno>
#include <set>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/spied_calls.h"
#include "support/temp_dir.h"

namespace runelctl {
namespace {

using zell::test::contentOf;
using zell::test::SpiedCalls;
using zell::test::TempDir;

TEST(FileNameTest, IsTheNameOfTheDeviceIfThatIsHarmless) {
  for (const char* name :
       {"gw-03", "192.0.2.11", "192.0.2.11:7000", "@unit-7", "b\xc3\xbc", "a..b"}) {
    EXPECT_EQ(fileNameFor(name), name);
  }
}

TEST(FileNameTest, EscapesWhatCouldLeaveTheDirectoryOrHide) {
  EXPECT_EQ(fileNameFor("../../etc/passwd"), "%2e.%2f..%2fetc%2fpasswd");
  EXPECT_EQ(fileNameFor("/x"), "%2fx");
  EXPECT_EQ(fileNameFor("."), "%2e");
  EXPECT_EQ(fileNameFor(".."), "%2e.");
  EXPECT_EQ(fileNameFor("a b\n\x1b\xff\\"), "a%20b%0a%1b%ff%5c");
  EXPECT_EQ(fileNameFor("%2e"), "%252e");
}

TEST(FileNameTest, DifferentNamesHaveDifferentFileNames) {
  std::set<std::string> seen;
  const std::string longOne(300, 'x');
  for (const std::string& name :
       {std::string("a/b"), std::string("a_b"), std::string("a%2fb"), std::string("a%252fb"),
        longOne + "1", longOne + "2", longOne, std::string(240, '\x01')}) {
    const std::string file = fileNameFor(name);
    EXPECT_TRUE(seen.insert(file).second) << file;
    EXPECT_LE(file.size(), 240U);
    EXPECT_EQ(file.find('/'), std::string::npos);
  }
}

class OutputDirectoryTest : public ::testing::Test {
 protected:
  void write(const std::string& device, const std::string& out, const std::string& err) {
    const auto files = directory_.create(device);
    ASSERT_TRUE(files);
    files->addOutput(out);
    files->addError(err);
    EXPECT_EQ(files->error(), 0);
  }

  TempDir dir_;
  OutputDirectory directory_;
};

TEST_F(OutputDirectoryTest, CreatesTheDirectoryAndTwoFilesForEachDevice) {
  ASSERT_EQ(directory_.open(dir_.file("new")), 0);
  write("gw-1", "out", "err");
  write("a/b", "", "");
  EXPECT_EQ(contentOf(dir_.file("new/gw-1.out")), "out");
  EXPECT_EQ(contentOf(dir_.file("new/gw-1.err")), "err");
  EXPECT_EQ(contentOf(dir_.file("new/a%2fb.out")), "");
}

TEST_F(OutputDirectoryTest, ReplacesTheFilesOfAnEarlierRun) {
  ASSERT_EQ(directory_.open(dir_.path()), 0);
  dir_.write("gw-1.out", "a longer old output");
  write("gw-1", "new", "");
  EXPECT_EQ(contentOf(dir_.file("gw-1.out")), "new");
}

TEST_F(OutputDirectoryTest, DoesNotWriteThroughALink) {
  ASSERT_EQ(directory_.open(dir_.path()), 0);
  const std::string target = dir_.write("target", "untouched");
  ASSERT_EQ(symlink(target.c_str(), dir_.file("gw-1.out").c_str()), 0);
  ASSERT_EQ(link(target.c_str(), dir_.file("gw-1.err").c_str()), 0);
  write("gw-1", "out", "err");
  EXPECT_EQ(contentOf(target), "untouched");
  EXPECT_EQ(contentOf(dir_.file("gw-1.out")), "out");
}

TEST_F(OutputDirectoryTest, ASecondDeviceWithTheSameNameLosesNothing) {
  ASSERT_EQ(directory_.open(dir_.path()), 0);
  write("gw-1", "one", "");
  write("gw-1", "two", "err");
  EXPECT_EQ(contentOf(dir_.file("gw-1.out")), "onetwo");
  EXPECT_EQ(contentOf(dir_.file("gw-1.err")), "err");
}

TEST_F(OutputDirectoryTest, FailuresAreReported) {
  EXPECT_EQ(directory_.open(dir_.file("no/such")), ENOENT);
  EXPECT_EQ(directory_.open(dir_.write("file", "")), ENOTDIR);
  ASSERT_EQ(directory_.open(dir_.path()), 0);
  ASSERT_EQ(mkdir(dir_.file("gw-1.out").c_str(), 0700), 0);
  EXPECT_FALSE(directory_.create("gw-1"));
  EXPECT_EQ(errno, EISDIR);
  EXPECT_EQ(directory_.pathFor("gw-1"), dir_.file("gw-1.out"));
}

TEST_F(OutputDirectoryTest, AFailedWriteIsReported) {
  ASSERT_EQ(directory_.open(dir_.path()), 0);
  const auto files = directory_.create("gw-1");
  SpiedCalls calls;
  calls.fail("write", ENOSPC);
  files->addOutput("one");
  files->addOutput("two");
  EXPECT_EQ(files->error(), ENOSPC);
  EXPECT_EQ(contentOf(dir_.file("gw-1.out")), "");
}

}  // namespace
}  // namespace runelctl
