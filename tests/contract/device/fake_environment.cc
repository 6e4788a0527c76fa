// SPDX-License-Identifier: Apache-2.0
#include <cerrno>
#include <csignal>

#include "contract/device/environment.h"
#include "fakes/zell/fake_zell.h"

namespace zell::test::environment {
namespace {

FakeDevice& device() {
  return FakeDevice::instance();
}

std::string programWith(const std::string& line, const FakeProgram& program) {
  device().programs["/bin/sh -c " + line] = program;
  return line;
}

}  // namespace

void reset() {
  device().reset();
  device().processes = {"world"};
}

std::string file(const std::string& name) {
  return "/fake/" + name;
}

std::string makeDirectory(const std::string& name, const std::vector<std::string>& names) {
  device().directories[file(name)] = names;
  return file(name);
}

std::string programThatPrints(const std::string& text) {
  return programWith("printf " + text, {text, FakeProgram().end});
}

std::string programThatExitsWith(int status) {
  return programWith("exit " + std::to_string(status),
                     {"", {SlaveStatus::failure, WatchProcessState_t::exited, status, 0, 0}});
}

std::string programThatDiesOfSigusr1() {
  return programWith("kill -USR1 $$",
                     {"", {SlaveStatus::failure, WatchProcessState_t::signalled, -1, 0, SIGUSR1}});
}

std::string programThatSleeps() {
  return "exec sleep 1000";
}

std::string missingProgram() {
  const std::string path = "/no/such/program";
  device().programs[path] = {"", failure(ENOENT)};
  return path;
}

std::string runningProcess() {
  return "world";
}

}  // namespace zell::test::environment
