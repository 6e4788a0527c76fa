// SPDX-License-Identifier: Apache-2.0
// Identity, processes, stored states, and reboot of the device.
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <spawn.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "contract/linux/mount.h"
#include "contract/linux/proxy_test.h"
#include "contract/linux/refused_calls.h"
#include "fakes/system/fake_system.h"
#include "support/spied_calls.h"
#include "support/temp_dir.h"

namespace zell::test {
namespace {

const char* const kMachineId = "/etc/machine-id";
const char* const kStore = "/var/lib/runeld/umstate";

class DeviceTest : public ProxyTest {
 protected:
  DeviceTest() { FakeSystem::instance().reset(); }

  static std::string store(SlaveProxy& proxy, const std::string& key, const std::string& state) {
    (void)proxy.updateUmState(key, streamOf(state));
    return fields(proxy);
  }
  std::string store(const std::string& key, const std::string& state) {
    return store(proxy_, key, state);
  }
  std::string running(const std::string& name) {
    (void)proxy_.processRunning(name);
    return fields(proxy_);
  }
};

/// A sleeping process with the given argv[0]. Waits until /proc shows its arguments, which happens
/// shortly after the spawn. Where vfork(2) is a plain fork(2), it shows those of the caller before.
class Sleeper {
 public:
  explicit Sleeper(const std::string& argument) {
    std::string name = argument;
    std::string time = "1000";
    char* argv[] = {name.data(), time.data(), nullptr};
    EXPECT_EQ(posix_spawn(&pid_, "/bin/sleep", nullptr, nullptr, argv, environ), 0);
    const std::string shown = "/proc/" + std::to_string(pid_) + "/cmdline";
    const std::string arguments = name + '\0' + time + '\0';
    EXPECT_TRUE(becomesTrue([&] { return contentOf(shown) == arguments; }));
  }
  ~Sleeper() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  Sleeper(const Sleeper&) = delete;
  Sleeper& operator=(const Sleeper&) = delete;

 private:
  pid_t pid_ = 0;
};

TEST_F(DeviceTest, FindsAProcessByAnyOfItsNames) {
  const Sleeper sleeper("/opt/some where/odd-name");
  EXPECT_EQ(running("sleep"), kSuccess);  // the comm: the name of the file that runs
  EXPECT_EQ(running("/opt/some where/odd-name"), kSuccess);
  EXPECT_EQ(running("odd-name"), kSuccess);
}

TEST_F(DeviceTest, FindsNoProcessByAPartOfAName) {
  const Sleeper sleeper("/opt/directory/odd-name");
  const std::string none = failureWith(ESRCH);
  for (const char* name : {"odd", "odd-nam", "name", "directory/odd-name", "directory", "slee",
                           "1000", "sleep\n", "sleepy", "Sleep", "", "odd-name 1000"}) {
    EXPECT_EQ(running(name), none) << name;
  }
  EXPECT_EQ(running(std::string("sleep\0", 6)), failureWith(EINVAL));
}

TEST_F(DeviceTest, FindsAProcessAmongOddNames) {
  const std::string odd = ") Z (";
  const pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_NAME, odd.c_str());
    pause();
  }
  EXPECT_TRUE(becomesTrue([&] { return running(odd) == kSuccess; }));
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

TEST_F(DeviceTest, DoesNotCountAZombieAsRunning) {
  const pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_NAME, "odd-zombie");
    _exit(0);
  }
  EXPECT_TRUE(becomesTrue([&] { return stateOf(pid) == "Z"; }));
  EXPECT_EQ(contentOf("/proc/" + std::to_string(pid) + "/comm"), "odd-zombie\n");
  EXPECT_EQ(running("odd-zombie"), failureWith(ESRCH));
  waitpid(pid, nullptr, 0);
}

TEST_F(DeviceTest, FindsNoProcessWithoutProc) {
  EXPECT_EQ(inChild([&] {
              refuseCalls(SYS_getdents64, EIO);
              return running("sleep");
            }),
            failureWith(EIO));
}

// Files in /proc of a process that a test cannot create.
struct ShownProcess {
  const char* directory;
  std::string comm;
  std::string commandLine;
  std::string stat;
  bool found;
};

TEST_F(DeviceTest, FindsAProcessByItsFilesInProc) {
  const std::string alive = "1 (x) S 0";
  const std::string arguments("wanted\0other", 12);
  const ShownProcess shown[] = {
      {"10", "wanted\n", "", alive, true},
      {"99", "wanted\n", "", alive, true},
      {"10", "other\n", arguments, alive, true},
      {"10", "other\n", std::string("/bin/wanted\0", 12), alive, true},
      {"10", "other\n", std::string("other\0wanted", 12), alive, false},
      {"10", "", "", alive, false},
      {"10", "wanted", "", alive, false},  // matches whole lines only
      {"10", "wanted\n", "", "1 (x) Z 0", false},
      {"10", "wanted\n", "", "1 (x) X 0", false},
      {"10", "wanted\n", "", "", false},  // the process has ended meanwhile
      {"10", "other\n", "wanted", alive, false},
      {"self", "wanted\n", arguments, alive, false},
      {"1-2", "wanted\n", arguments, alive, false},
      {"1:2", "wanted\n", arguments, alive, false},
  };
  for (const ShownProcess& process : shown) {
    const Mount proc = Mount::memory("/proc");
    const std::string directory = std::string("/proc/") + process.directory;
    std::filesystem::create_directories(directory);
    std::ofstream(directory + "/comm") << process.comm;
    std::ofstream(directory + "/cmdline") << process.commandLine;
    std::ofstream(directory + "/stat") << process.stat;
    EXPECT_EQ(running("wanted"), process.found ? kSuccess : failureWith(ESRCH))
        << directory << " " << process.comm << " " << process.commandLine << " " << process.stat;
  }
}

TEST_F(DeviceTest, FindsNoProcessThatEndsDuringTheSearch) {
  const Mount proc = Mount::memory("/proc");
  std::filesystem::create_directories("/proc/10");
  std::ofstream("/proc/10/comm") << "wanted\n";
  EXPECT_EQ(running("wanted"), failureWith(ESRCH));
}

TEST_F(DeviceTest, TakesItsIdFromTheMachineId) {
  std::ofstream(kMachineId) << "0123abcd further words\n";
  EXPECT_EQ(proxy_.hostId(), "0123abcd");
  EXPECT_EQ(fields(proxy_), kSuccess);
}

TEST_F(DeviceTest, TakesItsIdFromTheSystemWithoutAMachineId) {
  std::ofstream("/etc/hostid", std::ios::binary).write("\x0d\x0c\x0b\x0a", 4);
  std::filesystem::remove(kMachineId);
  EXPECT_EQ(proxy_.hostId(), "0a0b0c0d");
  std::ofstream(kMachineId) << " \n";
  EXPECT_EQ(proxy_.hostId(), "0a0b0c0d");
  EXPECT_EQ(fields(proxy_), kSuccess);
}

TEST_F(DeviceTest, DerivesItsTypeFromTheHardwareDescription) {
  const Mount sys = Mount::memory("/sys");
  ASSERT_FALSE(std::filesystem::exists("/proc/device-tree/compatible"));
  EXPECT_EQ(proxy_.deviceType(), DeviceType_t::unknown);
  std::filesystem::create_directories("/sys/class/dmi/id");
  EXPECT_EQ(proxy_.deviceType(), DeviceType_t::server);
  std::filesystem::create_directories("/sys/firmware/devicetree/base");
  EXPECT_EQ(proxy_.deviceType(), DeviceType_t::server);
  std::ofstream("/sys/firmware/devicetree/base/compatible") << "board";
  EXPECT_EQ(proxy_.deviceType(), DeviceType_t::controller);
  EXPECT_EQ(fields(proxy_), kSuccess);
}

TEST_F(DeviceTest, CreatesTheDirectoryOfTheStates) {
  std::filesystem::remove_all("/var/lib/runeld");
  const mode_t before = umask(077);
  EXPECT_EQ(store("first", "state"), kSuccess);
  umask(before);
  EXPECT_EQ(contentOf(std::string(kStore) + "/first"), "state");
  EXPECT_EQ(statusOf("/var/lib/runeld").st_mode, S_IFDIR | 0755U);
  EXPECT_EQ(statusOf(kStore).st_mode, S_IFDIR | 0755U);
}

TEST_F(DeviceTest, SyncsTheDirectoryOfTheStates) {
  std::filesystem::remove_all("/var/lib/runeld");
  SpiedCalls spy;
  EXPECT_EQ(store("first", "state"), kSuccess);
  EXPECT_EQ(spy.calls(), (std::vector<std::string>{"fsync directory", "fsync directory", "write",
                                                   "fsync file", "renameat", "fsync directory"}));
}

TEST_F(DeviceTest, ReplacesAStateDurably) {
  EXPECT_EQ(store("key", "old and long"), kSuccess);
  SpiedCalls spy;
  EXPECT_EQ(store("key", "new"), kSuccess);
  EXPECT_EQ(spy.calls(), (std::vector<std::string>{"fchown", "fchmod", "write", "fsync file",
                                                   "renameat", "fsync directory"}));
  EXPECT_EQ(contentOf(std::string(kStore) + "/key"), "new");
}

TEST_F(DeviceTest, TakesPlainFileNamesAsKeys) {
  for (const std::string& key :
       {std::string("a"), std::string("-._"), std::string("A.b_C-9"), std::string(255, 'k')}) {
    EXPECT_EQ(store(key, "state of " + key), kSuccess) << key;
    EXPECT_EQ(contentOf(std::string(kStore) + "/" + key), "state of " + key);
  }
}

TEST_F(DeviceTest, RefusesOtherKeys) {
  std::filesystem::remove_all("/var/lib/runeld");
  for (const std::string& key :
       {std::string(), std::string("."), std::string(".."), std::string(".a"), std::string("a/b"),
        std::string("/a"), std::string("a b"), std::string("a\n"), std::string("\xc3\xa4"),
        std::string("a\0b", 3), std::string(256, 'k'), std::string("a["), std::string("a{"),
        std::string("a@"), std::string("a`"), std::string("a:")}) {
    EXPECT_EQ(store(key, "state"), failureWith(EINVAL)) << key;
  }
  EXPECT_FALSE(std::filesystem::exists("/var/lib/runeld"));
}

TEST_F(DeviceTest, FailsToStoreWhenTheDirectoryCannotBeCreated) {
  std::filesystem::remove_all("/var/lib/runeld");
  std::ofstream("/var/lib/runeld") << "in the way";
  EXPECT_EQ(store("key", "state"), failureWith(ENOTDIR));
  std::filesystem::remove("/var/lib/runeld");
}

TEST_F(DeviceTest, SyncsBeforeItReboots) {
  FakeSystem::instance().rebootErrno = EIO;  // only called after a failure
  EXPECT_TRUE(proxy_.reboot());
  EXPECT_EQ(FakeSystem::instance().calls, (std::vector<std::string>{"sync", "reboot 0x1234567"}));
  EXPECT_EQ(fields(proxy_), kSuccess);
}

TEST_F(DeviceTest, ReportsAFailedReboot) {
  FakeSystem::instance().rebootResult = -1;
  FakeSystem::instance().rebootErrno = EPERM;
  EXPECT_FALSE(proxy_.reboot());
  EXPECT_EQ(fields(proxy_), failureWith(EPERM));
}

}  // namespace
}  // namespace zell::test
