// SPDX-License-Identifier: Apache-2.0
// The master of `runelctl master`: its devices, and the processes on its control socket.
#include "control/master.h"

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <runel/loop.h>

#include "base/unique_fd.h"
#include "output/text.h"
#include "support/loopback.h"
#include "support/temp_dir.h"
#include "unit/client/scripted_device.h"
#include "unit/control/streams.h"

namespace runelctl {
namespace {

using runel::frameOf;
using runel::recordOf;
using runel::ScriptedDevice;
using test::ReplacedStream;
using ::testing::HasSubstr;
using zell::UniqueFd;
using zell::test::TempDir;

std::uint16_t freePort() {
  std::uint16_t port = 0;
  const UniqueFd listener = zell::test::listenOnLoopback(port);
  return port;
}

class LocalMasterTest : public ::testing::Test {
 protected:
  LocalMasterTest() {
    style.json = true;
    settings.port = freePort();
    settings.socket = dir.file("socket");
  }
  void open() {
    journal = std::make_unique<Journal>(loop, style, true);
    master = std::make_unique<Master>(loop, settings, *journal);
    ASSERT_EQ(master->open(), "");
  }
  void runUntil(const std::function<bool()>& done) {
    test::runUntil(loop, [&] {
      for (ScriptedDevice& device : devices) {
        if (device.isOpen()) {
          device.serve();
        }
      }
      return done();
    });
  }
  /// Waits for the next event @p name. Returns its object.
  Json told(const std::string& name) {
    Json object;
    runUntil([&] {
      printed_ += out_.read();
      for (std::size_t end = printed_.find('\n'); end != std::string::npos;
           end = printed_.find('\n')) {
        object = Json::parse(printed_.substr(0, end));
        printed_.erase(0, end + 1);
        if (object["event"] == name) {
          return true;
        }
      }
      return false;
    });
    return object;
  }
  ScriptedDevice& dial(const std::string& hostid) {
    return devices.emplace_back(settings.port, hostid);
  }
  UniqueFd call(const std::string& line) {
    UniqueFd caller(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    settings.socket.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(connect(caller.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
              0);
    EXPECT_EQ(send(caller.get(), line.data(), line.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(line.size()));
    return caller;
  }
  /// Reads at least @p size bytes, or to the end.
  std::string hear(const UniqueFd& caller, std::size_t size = SIZE_MAX) {
    std::string all;
    bool ended = false;
    runUntil([&] {
      char part[65536];
      const ssize_t got = recv(caller.get(), part, sizeof part, MSG_DONTWAIT);
      all.append(part, static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
      ended = got == 0;
      return ended || all.size() >= size;
    });
    return all;
  }

  TempDir dir;
  MasterSettings settings;
  Style style;
  runel::Loop loop;
  std::list<ScriptedDevice> devices;
  std::unique_ptr<Journal> journal;
  std::unique_ptr<Master> master;

 private:
  ReplacedStream out_{STDOUT_FILENO};
  std::string printed_;
};

TEST_F(LocalMasterTest, TellsWhereItListens) {
  open();
  const Json object = told("listening");
  EXPECT_EQ(object["address"], "127.0.0.1:" + std::to_string(settings.port));
  EXPECT_EQ(object["socket"], settings.socket);
}

TEST_F(LocalMasterTest, TellsConnectsLossesAndClauses) {
  open();
  ScriptedDevice& device = dial("gw-3");
  EXPECT_EQ(told("connected")["device"], "gw-3");
  ScriptedDevice& bridge = dial("gw-3");
  bridge.answers = false;
  EXPECT_EQ(told("further")["address"], "127.0.0.1");
  bridge.say("<a>1</a>");
  EXPECT_EQ(told("agent")["hostid"], "gw-3");
  EXPECT_EQ(told("clause")["clause"], "<a>1</a>");
  bridge.close();
  EXPECT_EQ(told("lost")["role"], "agent");
  device.close();
  EXPECT_EQ(told("lost")["role"], "slave");
}

TEST_F(LocalMasterTest, ARefusalNamesTheOption) {
  ASSERT_TRUE(settings.options.allowHostids("gw-4"));
  open();
  dial("gw-3");
  EXPECT_THAT(told("refused")["why"].get<std::string>(), HasSubstr("by --allow-hostid"));
  master.reset();
  ASSERT_TRUE(settings.options.allowAddresses("192.0.2.0/24"));
  open();
  dial("gw-4");
  EXPECT_THAT(told("refused")["why"].get<std::string>(), HasSubstr("by --allow"));
}

TEST_F(LocalMasterTest, TellsWhenAFurtherConnectionCloses) {
  open();
  dial("gw-3");
  (void)told("connected");
  ScriptedDevice& further = dial("gw-3");
  (void)told("further");
  further.close();
  const Json object = told("lost");
  EXPECT_EQ(object["role"], "further");
  EXPECT_NE(object["why"], "");
}

TEST_F(LocalMasterTest, RefusesTooManyConnectionsFromOneAddress) {
  open();
  for (int connection = 0; connection < 17; ++connection) {
    dial("gw-3");
  }
  EXPECT_EQ(told("refused")["why"], "too many connections from this address");
}

TEST_F(LocalMasterTest, ListsItsDevices) {
  open();
  EXPECT_EQ(hear(call("devices\n")), "");
  dial("gw-3");
  (void)told("connected");
  const Json object = Json::parse(hear(call("devices\n")));
  EXPECT_EQ(object["device"], "gw-3");
  EXPECT_EQ(object["address"], "127.0.0.1");
  EXPECT_EQ(object["devicetype"], "server");
  EXPECT_EQ(object["connects"], 1);
  EXPECT_FALSE(object.contains("last_loss"));
}

TEST_F(LocalMasterTest, ListsTheLossesOfADeviceThatHasReturned) {
  open();
  dial("gw-3");
  (void)told("connected");
  devices.front().close();
  (void)told("lost");
  dial("gw-3");
  (void)told("connected");
  const Json object = Json::parse(hear(call("devices\n")));
  EXPECT_EQ(object["losses"], 1);
  EXPECT_EQ(object["connects"], 2);
  EXPECT_NE(object["last_loss_why"], "");
  EXPECT_NE(object["last_loss"], "");
}

TEST_F(LocalMasterTest, AProcessUsesADevice) {
  open();
  dial("gw-3");
  (void)told("connected");
  const UniqueFd caller = call("attach gw-3\n" + frameOf("SlaveTask 2 4:stat 1:/ 0 0 0 0 0"));
  const std::string expected = "ok\n" + frameOf(recordOf("done"));
  EXPECT_EQ(hear(caller, expected.size()), expected);
  EXPECT_EQ(Json::parse(hear(call("devices\n")))["users"], 1);
}

TEST_F(LocalMasterTest, AProcessThatLeavesDetaches) {
  open();
  dial("gw-3");
  (void)told("connected");
  UniqueFd caller = call("attach gw-3\n");
  EXPECT_EQ(hear(caller, 3), "ok\n");
  caller.reset();
  runUntil([this] { return Json::parse(hear(call("devices\n")))["users"] == 0; });
}

TEST_F(LocalMasterTest, AProcessThatIsGoneBeforeItsAnswerDetaches) {
  open();
  dial("gw-3");
  (void)told("connected");
  call("attach gw-3\n").reset();
  const UniqueFd next = call("attach gw-3\n");
  EXPECT_EQ(hear(next, 3), "ok\n");
  EXPECT_EQ(Json::parse(hear(call("devices\n")))["users"], 1);
}

TEST_F(LocalMasterTest, TheLossOfADeviceEndsItsProcesses) {
  open();
  ScriptedDevice& device = dial("gw-3");
  (void)told("connected");
  const UniqueFd caller = call("attach gw-3\n");
  EXPECT_EQ(hear(caller, 3), "ok\n");
  device.close();
  EXPECT_EQ(hear(caller), "");
}

TEST_F(LocalMasterTest, RefusesOtherRequests) {
  open();
  EXPECT_EQ(hear(call("attach\n")), "unknown request\n");
  EXPECT_EQ(hear(call("\n")), "unknown request\n");
  EXPECT_THAT(hear(call("attach gw-3\n")), HasSubstr("gw-3"));
}

TEST_F(LocalMasterTest, ReportsWhatKeepsItFromListening) {
  std::uint16_t port = 0;
  const UniqueFd listener = zell::test::listenOnLoopback(port);
  journal = std::make_unique<Journal>(loop, style, false);
  settings.port = port;
  const std::string where = "127.0.0.1:" + std::to_string(port);
  EXPECT_EQ(Master(loop, settings, *journal).open(), where + ": Address already in use");
  settings.host = "no.such.host.invalid";
  EXPECT_THAT(Master(loop, settings, *journal).open(), HasSubstr("no.such.host.invalid:"));
  settings.socket = dir.file("no/such/socket");
  EXPECT_THAT(Master(loop, settings, *journal).open(), HasSubstr("not a private directory"));
}

}  // namespace
}  // namespace runelctl
