// SPDX-License-Identifier: Apache-2.0
// The whole daemon in one process: its loop over socket pairs, on a fake device and a fake system.
// The input is a list of steps, one at the end of each pass: a byte that selects the action, a byte
// that selects the connection, and for bytes to send their number and the bytes.
#include <cerrno>
#include <cstddef>
#include <deque>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>

#include <dirent.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include "fuzz.h"
#include "unit/agent/agent_case.h"

namespace {

using zell::fuzz::require;
using zell::test::LogEntry;

constexpr std::size_t kMostPeers = 12;

class World : public zell::test::AgentCase {
 public:
  void TestBody() override {}
  [[nodiscard]] const std::vector<LogEntry>& lines() const { return log.entries(); }
};

// The peers of the server's connections, and the actions on them.
class Script {
 public:
  explicit Script(std::string_view input) : rest_(input) {}

  void step(zell::test::TestRunel& server) {
    if (rest_.empty()) {
      zell::ServerBase::s_run = false;
      return;
    }
    const unsigned what = next();
    switch (what % 8) {
      case 0:
        return accept(server);
      case 1:
        return connect(server);
      case 2:
        return leave();
      case 3:
        return fail(what);
      default:
        return say();
    }
  }

 private:
  unsigned next() {
    if (rest_.empty()) {
      return 0;
    }
    const auto byte = static_cast<unsigned char>(rest_.front());
    rest_.remove_prefix(1);
    return byte;
  }

  void accept(zell::test::TestRunel& server) {
    if (peers_.size() < kMostPeers) {
      peers_.push_back(server.accept("198.51.100.7"));
    }
  }

  void connect(zell::test::TestRunel& server) {
    for (const zell::Host& host : server.m_hosts) {
      if (host.socket == -1 && peers_.size() < kMostPeers) {
        peers_.push_back(server.connect());
        return;
      }
    }
  }

  void leave() {
    if (!peers_.empty()) {
      peers_.erase(peers_.begin() + static_cast<std::ptrdiff_t>(next() % peers_.size()));
    }
  }

  // Makes a task fail, or succeed again.
  static void fail(unsigned what) {
    static const std::string kTasks[] = {"writeFile", "stat", "exec", "kill", "readFile", "reboot"};
    auto& failures = zell::test::FakeDevice::instance().failures;
    const std::string& task = kTasks[what / 8 % std::size(kTasks)];
    if (failures.erase(task) == 0) {
      failures[task] = EIO;
    }
  }

  void say() {
    const unsigned whom = next();
    const std::string bytes(rest_.substr(0, next()));
    rest_.remove_prefix(bytes.size());
    if (peers_.empty()) {
      return;
    }
    const zell::test::Peer& peer = peers_[whom % peers_.size()];
    (void)peer.received();  // so that the server never waits for a reader
    peer.say(bytes);
  }

  std::string_view rest_;
  std::deque<zell::test::Peer> peers_;
};

std::size_t openDescriptors() {
  DIR* const directory = opendir("/proc/self/fd");
  require(directory != nullptr);
  std::size_t count = 0;
  while (readdir(directory) != nullptr) {
    ++count;
  }
  (void)closedir(directory);
  return count;
}

void runDaemon(Script& script, int verbosity) {
  zell::test::TestRunel server("127.0.0.1", false, verbosity);
  server.m_ports.clear();
  server.set_timeout(0);
  server.onLoop = [&script](zell::test::TestRunel& running) { script.step(running); };
  require(server.run() == 0);
  require(server.m_connections.empty() && server.m_hosts.empty());
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool kInWorld = (World::SetUpTestSuite(), true);
  (void)kInWorld;
  const std::size_t descriptors = openDescriptors();
  {
    World world;
    Script script(std::string_view(reinterpret_cast<const char*>(data), size));
    runDaemon(script, size == 0 ? 0 : data[0] % 5);
    for (const LogEntry& line : world.lines()) {
      require(line.priority >= LOG_CRIT && line.priority <= LOG_DEBUG);
    }
  }
  require(zell::test::FakeProxy::living().empty());
  require(openDescriptors() == descriptors);
  return 0;
}
