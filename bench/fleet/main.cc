// SPDX-License-Identifier: Apache-2.0
// bench_fleet --master ADDRESS:PORT [OPTIONS]: many simulated devices in one process.
//
//   --devices N        number of devices (default: 100)
//   --first ADDRESS    address of the first device, the others follow (default: 127.16.0.1)
//   --prefix TEXT      host identifiers are TEXT and a number of six digits (default: sim-)
//   --rate N           connects in a second, 0 for all at once (default: 0)
//   --slow N           the first N devices answer late (default: 0)
//   --delay MS         how late, in milliseconds (default: 1000)
//
// Reads commands from standard input, and ends at its end:
//   state              prints one line of JSON: connects, connected, answered, bytes, bridge_frames
//   drop N             closes the connections of the first N devices, which connect again
//   away N             the same, and they stay away
//   back N             the first N devices connect again
//   clause N TEXT      the agents of the first N devices send TEXT
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <unistd.h>

#include "device.h"

namespace runel::bench {
namespace {

constexpr Milliseconds kTick{10};

[[noreturn]] void fail(const std::string& text) {
  std::cerr << "bench_fleet: " << text << "\n";
  std::exit(2);
}

// The options, each with its value.
class Options {
 public:
  Options(int argc, char** argv) {
    for (int i = 1; i < argc; i += 2) {
      if (values_.count(argv[i]) == 0 || i + 1 == argc) {
        fail(std::string("unknown option or no value: ") + argv[i]);
      }
      values_[argv[i]] = argv[i + 1];
    }
  }

  [[nodiscard]] const std::string& text(const std::string& name) const { return values_.at(name); }
  [[nodiscard]] std::size_t number(const std::string& name) const {
    char* end = nullptr;
    const unsigned long value = std::strtoul(text(name).c_str(), &end, 10);
    if (text(name).empty() || *end != 0) {
      fail(name + " is not a number: " + text(name));
    }
    return value;
  }
  [[nodiscard]] in_addr address(const std::string& name) const {
    in_addr value{};
    if (inet_pton(AF_INET, text(name).c_str(), &value) != 1) {
      fail(name + " is not an address: " + text(name));
    }
    return value;
  }

 private:
  std::map<std::string, std::string> values_{
      {"--master", ""}, {"--devices", "100"}, {"--first", "127.16.0.1"}, {"--prefix", "sim-"},
      {"--rate", "0"},  {"--slow", "0"},      {"--delay", "1000"}};
};

sockaddr_in masterOf(const std::string& text) {
  sockaddr_in master{};
  const std::size_t colon = text.rfind(':');
  master.sin_family = AF_INET;
  if (colon == std::string::npos ||
      inet_pton(AF_INET, text.substr(0, colon).c_str(), &master.sin_addr) != 1) {
    fail("--master needs ADDRESS:PORT");
  }
  master.sin_port = htons(static_cast<std::uint16_t>(std::atoi(text.c_str() + colon + 1)));
  return master;
}

/// All devices, and the commands.
class Fleet {
 public:
  Fleet(Loop& loop, const Options& options)
      : simulation_{loop, masterOf(options.text("--master"))}, rate_(options.number("--rate")) {
    const std::uint32_t first = ntohl(options.address("--first").s_addr);
    const std::size_t count = options.number("--devices");
    for (std::size_t i = 0; i < count; ++i) {
      char number[24];
      (void)std::snprintf(number, sizeof number, "%06zu", i);
      const in_addr address{htonl(first + static_cast<std::uint32_t>(i))};
      const bool slow = i < options.number("--slow");
      devices_.push_back(std::make_unique<Device>(
          simulation_, address, options.text("--prefix") + number,
          slow ? Milliseconds(static_cast<int>(options.number("--delay"))) : Milliseconds(0)));
    }
    begin_ = Clock::now();
    connectSome();
  }

  void readCommands() {
    char bytes[4096];
    const ssize_t got = read(STDIN_FILENO, bytes, sizeof bytes);
    if (got <= 0) {
      simulation_.loop.stop();
      return;
    }
    input_.append(bytes, static_cast<std::size_t>(got));
    for (std::size_t end = input_.find('\n'); end != std::string::npos; end = input_.find('\n')) {
      obey(input_.substr(0, end));
      input_.erase(0, end + 1);
    }
  }

 private:
  void connectSome() {
    const auto passed = std::chrono::duration<double>(Clock::now() - begin_ + kTick).count();
    const auto due = static_cast<std::size_t>(passed * static_cast<double>(rate_));
    while (next_ < devices_.size() && (rate_ == 0 || next_ < due)) {
      devices_[next_++]->connect();
    }
    if (next_ < devices_.size()) {
      simulation_.loop.after(kTick, [this] { connectSome(); });
    }
  }

  void obey(const std::string& line) {
    std::istringstream words(line);
    std::string verb;
    std::size_t count = 0;
    words >> verb >> count;
    if (verb == "state") {
      std::printf(
          "{\"connects\": %ju, \"connected\": %ju, \"answered\": %ju, \"bytes\": %ju,"
          " \"bridge_frames\": %ju}\n",
          static_cast<std::uintmax_t>(simulation_.connects),
          static_cast<std::uintmax_t>(simulation_.connected),
          static_cast<std::uintmax_t>(simulation_.answered),
          static_cast<std::uintmax_t>(simulation_.bytesReceived),
          static_cast<std::uintmax_t>(simulation_.bridgeFrames));
      (void)std::fflush(stdout);
      return;
    }
    std::string text;
    std::getline(words >> std::ws, text);
    for (std::size_t i = 0; i < count && i < devices_.size(); ++i) {
      apply(verb, *devices_[i], text);
    }
  }

  static void apply(const std::string& verb, Device& device, const std::string& text) {
    if (verb == "drop" || verb == "away") {
      device.drop(verb == "away");
    } else if (verb == "back") {
      device.connect();
    } else if (verb == "clause") {
      device.sendClause(text);
    } else {
      fail("unknown command: " + verb);
    }
  }

  Simulation simulation_;
  const std::size_t rate_;
  Clock::time_point begin_;
  std::size_t next_ = 0;
  std::vector<std::unique_ptr<Device>> devices_;
  std::string input_;
};

void run(int argc, char** argv) {
  rlimit descriptors{};
  if (getrlimit(RLIMIT_NOFILE, &descriptors) == 0) {
    descriptors.rlim_cur = descriptors.rlim_max;
    (void)setrlimit(RLIMIT_NOFILE, &descriptors);
  }
  Loop loop;
  Fleet fleet(loop, Options(argc, argv));
  if (!loop.watch(STDIN_FILENO, EPOLLIN, [&fleet](std::uint32_t) { fleet.readCommands(); })) {
    fail("standard input must be a pipe or a terminal");
  }
  loop.run();
}

}  // namespace
}  // namespace runel::bench

int main(int argc, char** argv) {
  runel::bench::run(argc, argv);
  return 0;
}
