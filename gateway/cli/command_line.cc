// SPDX-License-Identifier: Apache-2.0
#include "gateway/cli/command_line.h"

#include <sstream>

#include <CLI/CLI.hpp>

#include "text/nearest.h"

namespace runelgw {
namespace {

using Command = CommandLine::Command;

constexpr char kDescription[] =
    "Gateway for devices that run runeld: holds their connections, and serves them by HTTP.\n"
    "The manual page runelgw(8) describes the settings.";

constexpr char kHelpHint[] = "\nTry 'runelgw --help'.\n";

std::string usageError(const CLI::ParseError& error) {
  return "runelgw: " + std::string(error.what()) + kHelpHint;
}

std::string firstSentence(std::string_view text) {
  const std::size_t end = text.find(". ");
  return std::string(text.substr(0, end));
}

void addSettings(CLI::App& app, CommandLine& line) {
  for (const SettingRow& row : settingRows()) {
    app.add_option_function<std::string>(
           row.option(),
           [&line, &row](const std::string& value) { line.settings.emplace_back(&row, value); },
           firstSentence(row.meaning))
        ->type_name(std::string(row.argument))
        ->group("Settings")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  }
}

CLI::App* addCommand(CLI::App& app, CommandLine& line, const char* name, const char* help,
                     Command command) {
  CLI::App* added = app.add_subcommand(name, help);
  added->final_callback([&line, command] { line.command = command; });
  return added;
}

void addTokenCommands(CLI::App& app, CommandLine& line) {
  CLI::App* token = app.add_subcommand("token", "Tokens of people and programs");
  token->require_subcommand(1);
  CLI::App* create =
      addCommand(*token, line, "create", "Make a token and print it once", Command::tokenCreate);
  create->add_option("--name", line.name, "Its name")->required()->type_name("NAME");
  create->add_option("--role", line.role, "viewer, operator or admin")
      ->required()
      ->type_name("ROLE")
      ->check(CLI::IsMember({"viewer", "operator", "admin"}));
  create->add_option("--group", line.groups, "Only devices of this group. Can be repeated")
      ->type_name("GROUP")
      ->allow_extra_args(false);
  create->add_option("--kinds", line.kinds, "Only these kinds of task: look, read, write, run, ...")
      ->type_name("KIND,...")
      ->delimiter(',')
      ->allow_extra_args(false);
  create
      ->add_option("--certificate", line.certificate,
                   "For clients with this name in their certificate; makes no secret")
      ->type_name("NAME");
  create
      ->add_option_function<std::string>(
          "--expires",
          [&line](const std::string& text) {
            line.lifetime = parseLifetime(text);
            if (!line.lifetime) {
              throw CLI::ValidationError("--expires: expected a time such as 90d or 12h");
            }
          },
          "When it ends (default: 90d)")
      ->type_name("TIME");
  CLI::App* list = addCommand(*token, line, "list", "List all tokens", Command::tokenList);
  list->add_flag("--json", line.json, "Print JSON");
  CLI::App* revoke =
      addCommand(*token, line, "revoke", "End a token at once", Command::tokenRevoke);
  revoke->add_option("TOKEN", line.name, "Its name or number")->required();
}

void addCommands(CLI::App& app, CommandLine& line) {
  addCommand(app, line, "run", "Run the gateway in the foreground", Command::run);
  CLI::App* check =
      addCommand(app, line, "check-config", "Check the settings", Command::checkConfig);
  check->add_option("FILE", line.file, "The file (default: that of --config)");
  check->add_flag("--print", line.print, "Print all settings as a file");
  check->add_flag("--example", line.example, "Print the example file");
  addTokenCommands(app, line);
  CLI::App* backup =
      addCommand(app, line, "backup", "Copy the database, also while it is used", Command::backup);
  backup->add_option("FILE", line.file, "The new file; - is standard output")->required();
  CLI::App* restore =
      addCommand(app, line, "restore", "Replace the database by a copy. A running gateway restarts",
                 Command::restore);
  restore->add_option("FILE", line.file, "The copy")->required();
  addCommand(app, line, "orderly-end",
             "For the supervisor, after the end of the gateway: note whether it was orderly",
             Command::orderlyEnd);
}

std::string nearestOption(const CLI::App& app, const std::string& word) {
  std::vector<std::string> known;
  for (const CLI::Option* option : app.get_options()) {
    known.push_back(option->get_name());
  }
  for (const CLI::App* command : app.get_subcommands({})) {
    known.push_back(command->get_name());
  }
  return zell::suggestion(word, known);
}

Parsed wrongUsage(const std::string& text) {
  return {std::nullopt, 2, "", text};
}

}  // namespace

Parsed parseCommandLine(int argc, const char* const* argv) {
  CommandLine line;
  CLI::App app(kDescription, "runelgw");
  app.set_help_flag("-h,--help", "Print this help");
  app.set_version_flag("--version", "runelgw " RUNELGW_VERSION, "Print the version");
  app.require_subcommand(1);
  app.fallthrough();
  app.add_option("-c,--config", line.configFile,
                 "The file with the settings (default: /etc/runelgw/runelgw.toml if it exists)")
      ->type_name("FILE");
  addSettings(app, line);
  addCommands(app, line);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    return {std::nullopt, 0, app.help(), ""};
  } catch (const CLI::CallForVersion&) {
    return {std::nullopt, 0, "runelgw " RUNELGW_VERSION "\n", ""};
  } catch (const CLI::ParseError& error) {
    // An unknown word is the reason of other errors too.
    const std::vector<std::string> remaining = app.remaining(true);
    return wrongUsage(remaining.empty() ? usageError(error)
                                        : "runelgw: unknown argument '" + remaining.front() + "'" +
                                              nearestOption(app, remaining.front()) + kHelpHint);
  }
  return {line, 0, "", ""};
}

std::optional<std::int64_t> parseLifetime(const std::string& text) {
  constexpr std::size_t kMostDigits = 9;
  constexpr std::int64_t kSecond = 1000;
  const std::size_t digits = text.find_first_not_of("0123456789");
  if (digits == 0 || digits == std::string::npos || digits > kMostDigits ||
      digits + 1 != text.size()) {
    return std::nullopt;
  }
  const std::int64_t number = std::stoll(text.substr(0, digits));
  switch (text[digits]) {
    case 's':
      return number * kSecond;
    case 'm':
      return number * 60 * kSecond;
    case 'h':
      return number * 3600 * kSecond;
    case 'd':
      return number * 86400 * kSecond;
    case 'w':
      return number * 7 * 86400 * kSecond;
    default:
      return std::nullopt;
  }
}

}  // namespace runelgw
