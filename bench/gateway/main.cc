// SPDX-License-Identifier: Apache-2.0
// bench_gateway direct|http|attach --at ADDRESS:PORT [OPTIONS]: asks devices "fileexists /",
// through the gateway, or as their master without one, and measures the answers.
//
//   --devices N      number of devices (default: 1)
//   --prefix TEXT    their names are TEXT and a number of six digits (default: sim-)
//   --device NAME    the only device has this name
//   --requests N     number of requests (default: 1000); 0: waits for the end of standard input
//   --window N       requests under way (default: 1)
//   --rate N         requests in a second, 0 for as many as possible (default: 0)
//   --slow N         the first N devices get one request after the other, and are not measured
//   --token-file F   file with the token
//   --tls yes        with TLS; the certificate is not verified
//
// Prints one line of JSON when all devices can be asked, and one with the figures.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <string>

#include <arpa/inet.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <runel/request.h>

#include "traffic.h"
#include "ways.h"
#include "wire.h"

namespace runel::bench {
namespace {

class Options {
 public:
  Options(int argc, char** argv) {
    for (int i = 2; i < argc; i += 2) {
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
  [[nodiscard]] sockaddr_in address(const std::string& name) const {
    const std::string& value = text(name);
    const std::size_t colon = value.rfind(':');
    sockaddr_in address{};
    address.sin_family = AF_INET;
    if (colon == std::string::npos ||
        inet_pton(AF_INET, value.substr(0, colon).c_str(), &address.sin_addr) != 1) {
      fail(name + " needs ADDRESS:PORT");
    }
    address.sin_port = htons(static_cast<std::uint16_t>(std::atoi(value.c_str() + colon + 1)));
    return address;
  }

 private:
  std::map<std::string, std::string> values_{
      {"--at", ""},           {"--devices", "1"}, {"--prefix", "sim-"}, {"--device", ""},
      {"--requests", "1000"}, {"--window", "1"},  {"--rate", "0"},      {"--slow", "0"},
      {"--token-file", ""},   {"--tls", "no"}};
};

std::string firstLine(const std::string& path) {
  std::string line;
  if (!path.empty() && !std::getline(std::ifstream(path), line)) {
    fail("no token in " + path);
  }
  return line;
}

Target targetOf(const Options& options) {
  Target target;
  target.address = options.address("--at");
  target.tls = options.text("--tls") == "yes";
  target.token = firstLine(options.text("--token-file"));
  target.prefix = options.text("--prefix");
  target.device = options.text("--device");
  target.devices = options.number("--devices");
  target.connections = options.number("--window") + options.number("--slow");
  return target;
}

std::unique_ptr<Way> wayOf(const std::string& kind, Loop& loop, const Target& target) {
  if (kind == "direct") {
    return directWay(loop, target);
  }
  if (kind == "http") {
    return httpWay(loop, target);
  }
  if (kind == "attach") {
    return attachWay(loop, target);
  }
  fail("direct, http or attach?");
}

void raiseDescriptorLimit() {
  rlimit descriptors{};
  if (getrlimit(RLIMIT_NOFILE, &descriptors) == 0) {
    descriptors.rlim_cur = descriptors.rlim_max;
    (void)setrlimit(RLIMIT_NOFILE, &descriptors);
  }
}

void run(int argc, char** argv) {
  const Options options(argc, argv);
  Plan plan;
  plan.devices = options.number("--devices");
  plan.slow = options.number("--slow");
  plan.window = options.number("--window");
  plan.requests = options.number("--requests");
  plan.rate = options.number("--rate");
  if (plan.devices <= plan.slow) {
    fail("no device is left that is not slow");
  }
  raiseDescriptorLimit();
  Loop loop;
  const std::unique_ptr<Way> way = wayOf(argc > 1 ? argv[1] : "", loop, targetOf(options));
  Traffic traffic(loop, *way, plan);
  const auto input = [&loop](std::uint32_t) {
    char byte = 0;
    if (read(STDIN_FILENO, &byte, 1) <= 0) {
      loop.stop();
    }
  };
  if (plan.requests == 0 && !loop.watch(STDIN_FILENO, EPOLLIN, input)) {
    fail("standard input must be a pipe or a terminal");
  }
  traffic.start();
  loop.run();
  if (plan.requests > 0) {
    std::cout << traffic.report() << "\n";
  }
}

}  // namespace

std::string nameOf(const Target& target, std::size_t number) {
  if (!target.device.empty()) {
    return target.device;
  }
  char digits[24];
  (void)std::snprintf(digits, sizeof digits, "%06zu", number);
  return target.prefix + digits;
}

std::string requestRecord() {
  return Request({"fileexists", "/"}).encode();
}

}  // namespace runel::bench

int main(int argc, char** argv) {
  runel::bench::run(argc, argv);
  return 0;
}
