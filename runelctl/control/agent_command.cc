// SPDX-License-Identifier: Apache-2.0
// The command `agent`.
#include <cmath>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <unistd.h>

#include <CLI/CLI.hpp>

#include <runel/request.h>
#include "cli/command_line.h"

#include "cli/local_command.h"
#include "cli/signals.h"
#include "commands/number_range.h"
#include "control/input_agent.h"
#include "output/report.h"
#include "output/standard_output.h"
#include "output/text.h"

namespace runelctl {
namespace {

constexpr double kMostLinger = 86400;

class AgentCommand : public LocalCommand {
 public:
  AgentCommand()
      : LocalCommand("agent",
                     "act as a local agent: send clauses from standard input to the daemon") {}

  void define(CLI::App& app) override {
    app.add_option(
           "--linger", linger_,
           "after the end of the input, exit when nothing was received for SECONDS (default: 2)")
        ->check(numberRange(0.0, kMostLinger))
        ->type_name("SECONDS");
    app.add_flag("--raw", raw_,
                 "send the input unchecked: this can block the relay or stop the daemon");
  }

  [[nodiscard]] Devices devices() const override { return Devices::usual; }

  std::string check(const Settings& settings) override {
    return settings.dryRun ? "agent: --dry-run is not supported" : "";
  }

  int run(const Settings& settings, const Style& style) override {
    if (settings.targets.size() != 1 || settings.targets[0].isBehindMaster()) {
      complain("agent: expected one device, by address: an agent connects to the daemon directly");
      return kExitUsage;
    }
    runel::Loop loop;
    loop.setResolver(runel::blockingResolver());
    int status = 0;
    const Signals signals(loop, [&](int number) {
      status = kExitSignalBase + number;
      loop.stop();
    });
    const runel::Address& target = settings.targets[0];
    const auto show = [&](const std::string& clause) { print(target, style, clause); };
    const auto ended = [&](const std::optional<Error>& error) {
      if (error) {
        status = exitStatusOf(*error);
        tell(target, style, *error);
      }
      loop.stop();
    };
    const InputAgent agent(
        loop, STDIN_FILENO,
        {target, settings.limits(target).connectTimeout(),
         runel::Milliseconds(static_cast<runel::Milliseconds::rep>(std::lround(linger_ * 1000))),
         raw_},
        {show, ended});
    loop.run();
    return status;
  }

 private:
  // Ends each clause with the line end that the relay uses.
  static void print(const runel::Address& target, const Style& style, const std::string& clause) {
    std::string line = style.name(clause) + (style.outTerminal ? "\n" : "\r\n");
    if (style.json) {
      Json object{{"v", 1}, {"device", target.name()}, {"task", "agent"}, {"entry", "clause"}};
      putBytes(object, "clause", clause);
      line = jsonLine(object, style.outTerminal);
    }
    (void)writeOut(style, line);  // a closed pipe ends the process by SIGPIPE
  }

  static void tell(const runel::Address& target, const Style& style, const Error& error) {
    if (style.json) {
      Json object{{"v", 1},
                  {"device", target.name()},
                  {"task", "agent"},
                  {"ok", false},
                  {"status", exitStatusOf(error)}};
      putError(object, error);
      (void)writeOut(style, jsonLine(object, style.outTerminal));
      return;
    }
    complain(target.name() + ": " + error.what +
             (error.hint.empty() ? "" : " (" + error.hint + ")"));
  }

  double linger_ = 2;
  bool raw_ = false;
};

}  // namespace

void addAgentCommand(LocalCommands& commands) {
  commands.push_back(std::make_unique<AgentCommand>());
}

}  // namespace runelctl
