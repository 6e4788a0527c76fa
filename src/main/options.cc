// SPDX-License-Identifier: Apache-2.0
#include "main/options.h"

#include <algorithm>
#include <initializer_list>

#include <syslog.h>

namespace zell {
namespace {

// Integrators' scripts compare this text, so it stays as it is, spelling errors included.
constexpr const char* kUsage[] = {
    "Usage: runeld [OPTION]",
    "Execute commands from the update manager daemon",
    "",
    " -i, --ip-address addr   IP address of the master",
    " -v, --verbose           Additional -v generates more output",
    " -l, --log-to-stdout     Send logging to stdout",
    " -n, --nodaemon,         Run the the foreground",
    " --no-daemon             Run the the foreground",
};

void printUsage(std::ostream& out) {
  for (const char* line : kUsage) {
    out << line << std::endl;
  }
}

bool isOneOf(const std::string& arg, std::initializer_list<const char*> names) {
  return std::any_of(names.begin(), names.end(), [&](const char* name) { return arg == name; });
}

}  // namespace

Options scanOptions(const std::vector<std::string>& args, std::ostream& out) {
  Options options;
  options.address = RUNELD_MASTER;  // a build option
  for (auto arg = args.begin(); arg != args.end(); ++arg) {
    if (isOneOf(*arg, {"-h", "--help"})) {
      printUsage(out);
      options.exitStatus = 0;
      return options;
    }
    if (isOneOf(*arg, {"-l", "--log-to-stdout"})) {
      options.logOptions = LOG_PERROR;
    } else if (isOneOf(*arg, {"-v", "--verbose"})) {
      ++options.verbose;
    } else if (isOneOf(*arg, {"-n", "--nodaemon", "--no-daemon"})) {
      options.daemon = false;
    } else if (isOneOf(*arg, {"-i", "--ip-address"})) {
      if (++arg == args.end()) {
        printUsage(out);
        options.exitStatus = 1;
        return options;
      }
      options.address = *arg;
    }
  }
  return options;
}

}  // namespace zell
