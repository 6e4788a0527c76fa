// SPDX-License-Identifier: Apache-2.0
// The contract of a proxy. The suite runs against the Linux proxy and against the fake that the
// daemon's unit tests use, so that both behave the same.
#include <cerrno>
#include <csignal>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <zell/led_control.h>
#include <zell/slave_proxy_local.h>

#include "contract/device/environment.h"
#include "contract/fields.h"

namespace zell::test {
namespace {

const char* const kSuccess = "0 0 0 0 0";
const char* const kNoSuchFile = "1 0 1 2 0";

std::ostringstream streamOf(const std::string& text) {
  std::ostringstream stream;
  stream << text;
  return stream;
}

class SlaveProxyContract : public testing::Test {
 protected:
  SlaveProxyContract() {
    environment::reset();
    proxy_ = std::make_unique<SlaveProxyLocal>();
  }

  std::string read(const std::string& path) {
    std::istringstream content;
    (void)proxy_->readFile(path, content);
    return content.str();
  }

  std::unique_ptr<SlaveProxy> proxy_;
};

TEST_F(SlaveProxyContract, StartsWithASuccess) {
  EXPECT_EQ(fields(*proxy_), kSuccess);
  EXPECT_EQ(proxy_->output(), "");
}

TEST_F(SlaveProxyContract, ReadsWhatWasWritten) {
  EXPECT_TRUE(proxy_->writeFile(environment::file("a"), streamOf(std::string("x\0y\n", 4))));
  EXPECT_EQ(fields(*proxy_), kSuccess);
  EXPECT_EQ(read(environment::file("a")), std::string("x\0y\n", 4));
  EXPECT_EQ(fields(*proxy_), kSuccess);
}

TEST_F(SlaveProxyContract, ReplacesTheWholeContent) {
  (void)proxy_->writeFile(environment::file("a"), streamOf("long content"));
  EXPECT_TRUE(proxy_->writeFile(environment::file("a"), streamOf("")));
  EXPECT_EQ(read(environment::file("a")), "");
}

TEST_F(SlaveProxyContract, AppendsAtTheEndAndCreatesAMissingFile) {
  EXPECT_TRUE(proxy_->appendFile(environment::file("a"), streamOf("a")));
  EXPECT_TRUE(proxy_->appendFile(environment::file("a"), streamOf("b")));
  EXPECT_EQ(fields(*proxy_), kSuccess);
  EXPECT_EQ(read(environment::file("a")), "ab");
}

TEST_F(SlaveProxyContract, ReadsNothingOfAMissingFile) {
  std::istringstream content("as it was");
  EXPECT_FALSE(proxy_->readFile(environment::file("none"), content));
  EXPECT_EQ(content.str(), "as it was");
  EXPECT_EQ(fields(*proxy_), kNoSuchFile);
}

TEST_F(SlaveProxyContract, ReadsAndWritesStringsLikeStreams) {
  EXPECT_TRUE(proxy_->writeFile(environment::file("a"), std::string_view("x\0y", 3)));
  EXPECT_EQ(fields(*proxy_), kSuccess);
  EXPECT_TRUE(proxy_->appendFile(environment::file("a"), "z"));
  EXPECT_EQ(fields(*proxy_), kSuccess);
  std::string content("as it was");
  EXPECT_TRUE(proxy_->readFile(environment::file("a"), content));
  EXPECT_EQ(fields(*proxy_), kSuccess);
  EXPECT_EQ(content, std::string("x\0yz", 4));
  EXPECT_EQ(content, read(environment::file("a")));
}

TEST_F(SlaveProxyContract, LeavesAStringAloneWhenThereIsNothingToRead) {
  std::string content("as it was");
  EXPECT_FALSE(proxy_->readFile(environment::file("none"), content));
  EXPECT_EQ(content, "as it was");
  EXPECT_EQ(fields(*proxy_), kNoSuchFile);
}

TEST_F(SlaveProxyContract, FindsAnExistingFile) {
  (void)proxy_->writeFile(environment::file("a"), streamOf("12345"));
  struct stat st {};
  EXPECT_TRUE(proxy_->fileExists(environment::file("a")));
  EXPECT_TRUE(proxy_->access(environment::file("a"), 4));
  EXPECT_TRUE(proxy_->stat(environment::file("a"), st));
  EXPECT_EQ(st.st_size, 5);
  EXPECT_TRUE(proxy_->lstat(environment::file("a"), st));
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_TRUE(proxy_->chmodx(environment::file("a")));
  EXPECT_EQ(proxy_->realPath(environment::file("a")), environment::file("a"));
  EXPECT_EQ(fields(*proxy_), kSuccess);
}

TEST_F(SlaveProxyContract, DoesNotFindAMissingFile) {
  EXPECT_FALSE(proxy_->fileExists(environment::file("none")));
  EXPECT_EQ(fields(*proxy_), kNoSuchFile);
  (void)proxy_->hostId();
  EXPECT_EQ(fields(*proxy_), kSuccess);
  EXPECT_FALSE(proxy_->access(environment::file("none"), 0));
  EXPECT_EQ(fields(*proxy_), kNoSuchFile);
}

TEST_F(SlaveProxyContract, FailsOnAMissingFile) {
  EXPECT_FALSE(proxy_->unlink(environment::file("none")));
  EXPECT_FALSE(proxy_->chmodx(environment::file("none")));
  EXPECT_FALSE(proxy_->rename(environment::file("none"), environment::file("other")));
  EXPECT_EQ(fields(*proxy_), kNoSuchFile);
  EXPECT_EQ(proxy_->realPath(environment::file("none")), "");
  EXPECT_EQ(fields(*proxy_), kNoSuchFile);
}

TEST_F(SlaveProxyContract, LeavesTheRecordOfAMissingFileAlone) {
  struct stat st {};
  st.st_size = 77;
  EXPECT_FALSE(proxy_->stat(environment::file("none"), st));
  EXPECT_FALSE(proxy_->lstat(environment::file("none"), st));
  EXPECT_EQ(st.st_size, 77);
  EXPECT_EQ(fields(*proxy_), kNoSuchFile);
}

TEST_F(SlaveProxyContract, RenamesAndUnlinks) {
  (void)proxy_->writeFile(environment::file("a"), streamOf("content"));
  EXPECT_TRUE(proxy_->rename(environment::file("a"), environment::file("b")));
  EXPECT_FALSE(proxy_->fileExists(environment::file("a")));
  EXPECT_EQ(read(environment::file("b")), "content");
  EXPECT_TRUE(proxy_->unlink(environment::file("b")));
  EXPECT_EQ(fields(*proxy_), kSuccess);
  EXPECT_FALSE(proxy_->fileExists(environment::file("b")));
}

TEST_F(SlaveProxyContract, AppendsTheNamesOfADirectoryInByteOrder) {
  std::vector<std::string> entries{"before"};
  EXPECT_TRUE(proxy_->readDir(environment::makeDirectory("directory", {"b", "B", "a"}), entries));
  EXPECT_EQ(entries, (std::vector<std::string>{"before", "B", "a", "b"}));
  EXPECT_EQ(fields(*proxy_), kSuccess);
}

TEST_F(SlaveProxyContract, LeavesTheListOfAMissingDirectoryAlone) {
  std::vector<std::string> entries{"before"};
  EXPECT_FALSE(proxy_->readDir(environment::file("none"), entries));
  EXPECT_EQ(entries, (std::vector<std::string>{"before"}));
  EXPECT_EQ(fields(*proxy_), kNoSuchFile);
}

TEST_F(SlaveProxyContract, HasNoWalkerForAMissingDirectory) {
  EXPECT_NE(proxy_->walkTree(environment::makeDirectory("directory", {})), nullptr);
  EXPECT_EQ(fields(*proxy_), kSuccess);
  EXPECT_EQ(proxy_->walkTree(environment::file("none")), nullptr);
  EXPECT_EQ(fields(*proxy_), kNoSuchFile);
}

TEST_F(SlaveProxyContract, KnowsRunningProcesses) {
  EXPECT_TRUE(proxy_->processRunning(environment::runningProcess()));
  EXPECT_EQ(fields(*proxy_), kSuccess);
  EXPECT_FALSE(proxy_->processRunning("no such process"));
  EXPECT_EQ(fields(*proxy_), "1 0 1 3 0");
}

TEST_F(SlaveProxyContract, StoresStates) {
  EXPECT_TRUE(proxy_->updateUmState("contract", streamOf("state")));
  EXPECT_EQ(fields(*proxy_), kSuccess);
  EXPECT_EQ(read("/var/lib/runeld/umstate/contract"), "state");
}

TEST_F(SlaveProxyContract, KeepsTheOutputOfAProgramUntilTheNext) {
  EXPECT_EQ(proxy_->system(environment::programThatPrints("text"), 0), 0);
  EXPECT_EQ(fields(*proxy_), "0 2 0 0 0");
  (void)proxy_->fileExists(environment::file("none"));
  EXPECT_EQ(proxy_->output(), "text");
  EXPECT_EQ(proxy_->system(environment::programThatExitsWith(0), 0), 0);
  EXPECT_EQ(proxy_->output(), "");
}

TEST_F(SlaveProxyContract, ReportsHowAProgramEnded) {
  EXPECT_EQ(proxy_->system(environment::programThatExitsWith(7), 0), 0);
  EXPECT_EQ(fields(*proxy_), "1 2 7 0 0");
  EXPECT_EQ(proxy_->system(environment::programThatDiesOfSigusr1(), 5), 0);
  EXPECT_EQ(fields(*proxy_), "1 3 -1 0 " + std::to_string(SIGUSR1));
}

TEST_F(SlaveProxyContract, ReportsWhyAProgramDidNotStart) {
  (void)proxy_->system(environment::programThatPrints("text"), 0);
  EXPECT_EQ(proxy_->exec(std::vector<std::string>{environment::missingProgram()}, 0), ENOENT);
  EXPECT_EQ(fields(*proxy_), "1 0 1 2 0");
  EXPECT_EQ(proxy_->output(), "");
  EXPECT_EQ(proxy_->exec(environment::missingProgram(), -1), ENOENT);
  EXPECT_EQ(fields(*proxy_), "1 0 1 2 0");
}

TEST_F(SlaveProxyContract, RefusesAnEmptyProgramList) {
  EXPECT_EQ(proxy_->exec(std::vector<std::string>{}, 0), EINVAL);
  EXPECT_EQ(fields(*proxy_), "1 0 1 22 0");
  EXPECT_EQ(proxy_->exec(std::string(), 300), EINVAL);
  EXPECT_EQ(fields(*proxy_), "1 0 1 22 0");
}

TEST_F(SlaveProxyContract, KillsTheBackgroundProgramOnce) {
  EXPECT_EQ(proxy_->system(environment::programThatSleeps(), -1), 0);
  EXPECT_EQ(fields(*proxy_), "2 1 0 0 0");
  EXPECT_TRUE(proxy_->kill());
  EXPECT_EQ(fields(*proxy_), "0 3 -1 0 15");
  EXPECT_FALSE(proxy_->kill());
  EXPECT_EQ(fields(*proxy_), "1 0 1 3 0");
  EXPECT_FALSE(proxy_->wait());
  EXPECT_EQ(fields(*proxy_), "1 0 1 10 0");
}

TEST_F(SlaveProxyContract, WaitsForTheBackgroundProgramOnce) {
  EXPECT_EQ(proxy_->system(environment::programThatPrints("unseen"), -1), 0);
  EXPECT_EQ(proxy_->output(), "");
  EXPECT_TRUE(proxy_->wait());
  EXPECT_EQ(fields(*proxy_), "0 2 0 0 0");
  EXPECT_FALSE(proxy_->wait());
  EXPECT_EQ(fields(*proxy_), "1 0 1 10 0");
}

TEST_F(SlaveProxyContract, ForgetsTheBackgroundProgramWithTheNext) {
  (void)proxy_->system(environment::programThatSleeps(), -1);
  EXPECT_EQ(proxy_->exec(std::vector<std::string>{}, 0), EINVAL);
  EXPECT_FALSE(proxy_->kill());
  EXPECT_EQ(fields(*proxy_), "1 0 1 3 0");
}

TEST_F(SlaveProxyContract, DoesNotShareProgramsBetweenProxies) {
  (void)proxy_->system(environment::programThatSleeps(), -1);
  SlaveProxyLocal other;
  EXPECT_FALSE(other.kill());
  EXPECT_TRUE(proxy_->kill());
}

TEST_F(SlaveProxyContract, ReportsBlinkingToEveryProxyOfTheController) {
  SlaveProxyLocal newer;
  LedControl::instance().initialize(proxy_.get());
  LedControl::instance().initialize(&newer);
  (void)proxy_->fileExists(environment::file("none"));
  EXPECT_TRUE(LedControl::instance().blinkLeds(LedStyle::slow));
  EXPECT_EQ(fields(*proxy_), kSuccess);
  EXPECT_EQ(fields(newer), kSuccess);
}

TEST_F(SlaveProxyContract, ReportsAnUnknownStyleToEveryProxy) {
  SlaveProxyLocal newer;
  SlaveProxyLocal stranger;
  LedControl::instance().initialize(proxy_.get());
  LedControl::instance().initialize(&newer);
  EXPECT_FALSE(LedControl::instance().blinkLeds(LedStyle::toEnum("unheard of")));
  EXPECT_EQ(fields(*proxy_), "1 0 1 22 0");
  EXPECT_EQ(fields(newer), "1 0 1 22 0");
  EXPECT_EQ(fields(stranger), kSuccess);
}

TEST_F(SlaveProxyContract, DoesNotChangeTheStatusInThePeriodicWork) {
  LedControl::instance().initialize(proxy_.get());
  (void)LedControl::instance().blinkLeds(LedStyle::fast);
  (void)proxy_->fileExists(environment::file("none"));
  LedControl::instance().poll();
  EXPECT_EQ(fields(*proxy_), kNoSuchFile);
}

TEST_F(SlaveProxyContract, SwitchesTheLeds) {
  EXPECT_TRUE(proxy_->changeLeds(true, false));
  EXPECT_EQ(fields(*proxy_), kSuccess);
}

TEST_F(SlaveProxyContract, NamesStylesAndDevices) {
  EXPECT_EQ(LedStyle::toEnum("off"), LedStyle::off);
  EXPECT_EQ(LedStyle::toEnum("on"), LedStyle::on);
  EXPECT_EQ(LedStyle::toEnum("slow"), LedStyle::slow);
  EXPECT_EQ(LedStyle::toEnum("fast"), LedStyle::fast);
  EXPECT_EQ(LedStyle::toEnum("alternate"), LedStyle::alternate);
  for (const char* word : {"", "Slow", "slow ", "unknown"}) {
    EXPECT_EQ(LedStyle::toEnum(word), LedStyle::unknown) << word;
  }
  EXPECT_EQ(DeviceType::toString(DeviceType_t::unknown), "unknown");
  EXPECT_EQ(DeviceType::toString(DeviceType_t::controller), "controller");
  EXPECT_EQ(DeviceType::toString(DeviceType_t::server), "server");
}

}  // namespace
}  // namespace zell::test
