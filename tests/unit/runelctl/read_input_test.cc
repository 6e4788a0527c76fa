// SPDX-License-Identifier: Apache-2.0
// Data of standard input: in memory, and in temporary files.
#include "commands/read_input.h"

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <memory>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "commands/settings.h"
#include "commands/temporary_file.h"
#include "support/temp_dir.h"
#include "unit/runelctl/variable.h"

namespace runelctl {
namespace {

using test::Variable;
using zell::UniqueFd;
using zell::test::TempDir;

class InputTest : public ::testing::Test {
 protected:
  InputTest() : before_(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3)) {}
  ~InputTest() override { EXPECT_EQ(dup2(before_.get(), STDIN_FILENO), STDIN_FILENO); }

  static void readFrom(const std::string& path) {
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(dup2(file.get(), STDIN_FILENO), STDIN_FILENO) << path;
  }
  [[nodiscard]] bool leftNothing() const { return std::filesystem::is_empty(dir.path()); }

  TempDir dir;
  TempDir sources;

 private:
  UniqueFd before_;
  Variable directory_{"TMPDIR", dir.path()};
};

TEST_F(InputTest, IsReadToItsEnd) {
  const std::string content(200000, 'x');
  readFrom(sources.write("input", content));
  std::string got = "old";
  EXPECT_EQ(readInput(got), "");
  EXPECT_EQ(got, content);
  EXPECT_EQ(readText(sources.write("text", "of a file"), got), "");
  EXPECT_EQ(got, "of a file");
  readFrom(sources.file("text"));
  EXPECT_EQ(readText("-", got), "");
  EXPECT_EQ(got, "of a file");
}

TEST_F(InputTest, AnErrorNamesItsSource) {
  std::string got;
  readFrom("/");
  EXPECT_EQ(readInput(got), "standard input: Is a directory");
  EXPECT_EQ(readText("/", got), "/: Is a directory");
  EXPECT_EQ(readText("/no/such", got), "/no/such: No such file or directory");
}

TEST_F(InputTest, AnEndlessTextIsTooLarge) {
  std::string got;
  EXPECT_EQ(readText("/dev/zero", got), "/dev/zero: File too large");
}

TEST_F(InputTest, IsSpooledToAPrivateFile) {
  readFrom(sources.write("input", std::string(100000, 'x')));
  {
    const auto file = spoolInput("name");
    ASSERT_TRUE(file) << file.error().text();
    const std::string path = (*file)->path();
    EXPECT_EQ(path.compare(0, dir.path().size(), dir.path()), 0) << path;
    EXPECT_EQ(std::filesystem::path(path).filename(), "name");
    EXPECT_EQ(zell::test::contentOf(path), std::string(100000, 'x'));
    struct stat about {};
    ASSERT_EQ(stat(std::filesystem::path(path).parent_path().c_str(), &about), 0);
    EXPECT_EQ(about.st_mode & 07777U, 0700U);
  }
  EXPECT_TRUE(leftNothing());
}

TEST_F(InputTest, SpoolingFailsWithoutAPlaceOrAnInput) {
  readFrom("/");
  EXPECT_EQ(spoolInput("name").error().text(), "standard input: Is a directory");
  EXPECT_EQ(spoolInput("no/name").error().number(), ENOENT);
  EXPECT_TRUE(leftNothing());
  const Variable nowhere("TMPDIR", "/no/such");
  const auto error = spoolInput("name").error();
  EXPECT_EQ(error.number(), ENOENT);
  EXPECT_EQ(error.text().compare(0, 17, "/no/such/runelctl"), 0) << error.text();
}

TEST_F(InputTest, SpoolingFailsWhenTheFileCannotGrow) {
  readFrom("/dev/zero");
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  rlimit small = before;
  small.rlim_cur = 100000;
  const auto usual = std::signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  const auto file = spoolInput("name");
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
  (void)std::signal(SIGXFSZ, usual);
  ASSERT_FALSE(file);
  EXPECT_EQ(file.error().number(), EFBIG);
  EXPECT_TRUE(leftNothing());
}

TEST_F(InputTest, ASignalEndsSpoolingAndRemovesTheFile) {
  int ends[2] = {-1, -1};
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const UniqueFd out(ends[0]);
  const UniqueFd in(ends[1]);  // nothing is ever written
  ASSERT_EQ(dup2(out.get(), STDIN_FILENO), STDIN_FILENO);
  sigset_t term;
  sigset_t before;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  ASSERT_EQ(sigprocmask(SIG_BLOCK, &term, &before), 0);
  ASSERT_EQ(std::raise(SIGTERM), 0);
  const auto file = spoolInput("name");
  int taken = 0;
  EXPECT_EQ(sigwait(&term, &taken), 0) << "it stays pending";
  ASSERT_EQ(sigprocmask(SIG_SETMASK, &before, nullptr), 0);
  ASSERT_FALSE(file);
  EXPECT_EQ(file.error().cause(), runel::Cause::cancelled);
  EXPECT_TRUE(leftNothing());
}

TEST(SettingsTest, TheSocketOfTheMasterIsInADirectoryOfThisUser) {
  const Variable chosen("RUNELCTL_SOCKET", "/chosen");
  EXPECT_EQ(defaultMasterSocket(), "/chosen");
  const Variable empty("RUNELCTL_SOCKET", "");
  const Variable runtime("XDG_RUNTIME_DIR", "/runtime");
  EXPECT_EQ(defaultMasterSocket(), "/runtime/runelctl-master.sock");
  const Variable relative("XDG_RUNTIME_DIR", "relative");
  const std::string user = std::to_string(geteuid());
  const std::string usual = "/run/user/" + user;
  ASSERT_FALSE(std::filesystem::exists(usual)) << "/run is private";
  EXPECT_EQ(defaultMasterSocket(), "/tmp/runelctl-" + user + "/runelctl-master.sock");
  ASSERT_TRUE(std::filesystem::create_directories(usual));
  EXPECT_EQ(defaultMasterSocket(), usual + "/runelctl-master.sock");
  EXPECT_TRUE(std::filesystem::remove(usual));
}

}  // namespace
}  // namespace runelctl
