// SPDX-License-Identifier: Apache-2.0
// The prompt, compared with a model of its rules. The first byte of the input is the number of
// bytes that every program writes. The rest are the packets, separated by zero bytes.
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

#include <zell/led_control.h>
#include <zell/slave_proxy_local.h>

#include "connections/plain_slave.h"
#include "fakes/zell/fake_zell.h"
#include "fuzz.h"
#include "support/socket_pair.h"

namespace {

using zell::fuzz::require;

const std::string kBlanks = " \t\r\n\v\f";

// Control bytes except tab are removed first, so only spaces and tabs remain as whitespace.
std::string cleaned(const std::string& packet) {
  std::string text;
  for (const char byte : packet) {
    const auto code = static_cast<unsigned char>(byte);
    if (code == '\t' || (code >= 0x20 && code != 0x7f)) {
      text += byte;
    }
  }
  while (!text.empty() && kBlanks.find(text.front()) != std::string::npos) {
    text.erase(0, 1);
  }
  while (!text.empty() && kBlanks.find(text.back()) != std::string::npos) {
    text.pop_back();
  }
  return text;
}

std::string lines(const std::string& output) {
  std::istringstream in(output);
  std::string all;
  for (std::string line; std::getline(in, line);) {
    all += line + "\n";
  }
  return all;
}

std::string hostName() {
  char name[1024] = {};
  require(gethostname(name, sizeof name) == 0);
  return name;
}

// One command line, parsed by the rules.
struct Command {
  explicit Command(const std::string& packet)
      : line(cleaned(packet)), word(line.substr(0, line.find_first_of(kBlanks))) {
    args = cleaned(line.substr(word.size()));
  }
  std::string line;
  std::string word;
  std::string args;
};

// The words of @p text with one blank between them.
std::string spaced(const std::string& text) {
  std::istringstream in(text);
  std::string all;
  for (std::string word; in >> word;) {
    all += (all.empty() ? "" : " ") + word;
  }
  return all;
}

// The device operation that @p command calls. Empty for most commands.
std::string callFor(const Command& command) {
  static const std::map<std::string, std::string> kStyles = {
      {"off", "0 0"}, {"on", "1 1"}, {"slow", "1 1"}, {"fast", "1 1"}, {"alternate", "1 0"}};
  if (command.line.empty() || command.word == "version" || command.word == "quit") {
    return "";
  }
  if (command.word == "terminate") {
    return "kill";
  }
  if (command.word == "syscall") {
    const auto style = kStyles.find(command.args);
    return style == kStyles.end() ? "" : "setLeds " + style->second;
  }
  if (command.word == "exec") {
    return "exec " + spaced(command.args) + " | 300";
  }
  return "exec /bin/sh -c " + (command.word == "shell" ? command.args : command.line) + " | 0";
}

// The error that the client receives first.
std::string errorFor(const Command& command) {
  if (command.word == "version" && command.args != "1") {
    return "error 1 version: invalid protocol version\n";
  }
  return command.word == "exec" && command.args.empty() ? "error 22 exec: start process failed\n"
                                                        : "";
}

// The model of a prompt, of the output of its programs and of the last output.
class Model {
 public:
  explicit Model(std::string output) : output_(std::move(output)) {}

  std::string answerTo(const Command& command) {
    const std::string prompt = hostName_ + "$ ";
    if (command.line.empty()) {
      return prompt;
    }
    const std::string call = callFor(command);
    const std::string error = errorFor(command);
    if (call.compare(0, 4, "exec") == 0) {
      last_ = error.empty() ? output_ : "";
    }
    return error + lines(last_) + prompt;
  }

 private:
  std::string hostName_ = hostName();
  std::string output_;
  std::string last_;
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const zell::test::SocketPair kSockets = zell::test::SocketPair::local();
  auto& device = zell::test::FakeDevice::instance();
  device.reset();
  const auto [length, input] = zell::fuzz::firstByteChooses(data, size);
  const std::string output = input.substr(0, length);
  Model model(output);
  zell::PlainSlave slave(kSockets.near());
  const zell::SlaveProxyLocal driver;
  zell::LedControl::instance().initialize(&driver);
  std::istringstream packets(input);
  for (std::string packet; std::getline(packets, packet, '\0');) {
    const Command command(packet);
    device.calls.clear();
    device.programs["/bin/sh -c " + command.line].output = output;
    device.programs["/bin/sh -c " + command.args].output = output;
    device.programs[spaced(command.args)].output = output;
    const std::string call = callFor(command);
    slave.handleMessage(packet);
    require(kSockets.received() == model.answerTo(command));
    require(device.calls == (call.empty() ? std::vector<std::string>() : std::vector{call}));
  }
  return 0;
}
