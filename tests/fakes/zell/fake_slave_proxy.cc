// SPDX-License-Identifier: Apache-2.0
#include <zell/slave_proxy.h>

#include <cerrno>

#include <zell/led_control.h>

#include "fakes/zell/fake_program_runner.h"

namespace zell {
namespace {

test::FakeDevice& device() {
  return test::FakeDevice::instance();
}

std::string joined(const std::vector<std::string>& words) {
  std::string line;
  for (const std::string& word : words) {
    line += (line.empty() ? "" : " ") + word;
  }
  return line;
}

// The outcome of the program @p line, which does not start if @p error is not 0. Writes its output
// to
// @p fake.
ResultStatus run(const std::string& line, int limit, int error, test::FakeProxy& fake) {
  fake.background = false;
  fake.output.clear();
  if (error != 0) {
    return test::failure(error);
  }
  const auto found = device().programs.find(line);
  const test::FakeProgram program =
      found == device().programs.end() ? test::FakeProgram() : found->second;
  if (limit < 0 && program.end.state != WatchProcessState_t::none) {
    fake.background = true;
    return {SlaveStatus::running, WatchProcessState_t::running, 0, 0, 0};
  }
  fake.output = program.output;
  return program.end;
}

}  // namespace

SlaveProxy::SlaveProxy() : programs_(std::make_unique<ProgramRunner>()) {}

SlaveProxy::~SlaveProxy() {
  LedControl::instance().withdraw(this);
}

int SlaveProxy::exec(const std::vector<std::string>& argv, int execParam) {
  const std::string line = joined(argv);
  programs_->record("exec " + line + " | " + std::to_string(execParam));
  const int error = ProgramRunner::errorOf("exec", argv.empty() ? EINVAL : 0);
  setResultStatus(run(line, execParam, error, programs_->fake));
  return status_.error;
}

int SlaveProxy::exec(const std::string& line, int execParam) {
  programs_->record("execLine " + line + " | " + std::to_string(execParam));
  const int error = ProgramRunner::errorOf("exec", line.empty() ? EINVAL : 0);
  setResultStatus(run(line, execParam, error, programs_->fake));
  return status_.error;
}

int SlaveProxy::system(const std::string& line, int limit) {
  programs_->record("system " + line + " | " + std::to_string(limit));
  const int error = ProgramRunner::errorOf("system");
  setResultStatus(run(line, limit, error, programs_->fake));
  return status_.error;
}

const std::string& SlaveProxy::output() const {
  return programs_->fake.output;
}

bool SlaveProxy::updateUmState(const std::string& key, const std::ostringstream& state) {
  programs_->record("updateUmState " + key + " " + state.str());
  const int error = ProgramRunner::errorOf("updateUmState");
  if (error == 0) {
    device().files["/var/lib/runeld/umstate/" + key] = state.str();
  }
  return finish(error);
}

bool SlaveProxy::finish(int error) const {
  setResultStatus(error == 0 ? ResultStatus() : test::failure(error));
  return error == 0;
}

int SlaveProxy::driveLeds(bool first, bool second) const {
  device().firstLed = first;
  device().secondLed = second;
  return 0;
}

void SlaveProxy::endBlink() {
  LedControl::instance().endBlink();
  device().blinking = LedStyle::unknown;
}

}  // namespace zell
