// SPDX-License-Identifier: Apache-2.0
#include "fakes/zell/fake_program_runner.h"

#include <cerrno>

namespace zell {
namespace {

using test::FakeDevice;
using test::FakeProgram;
using test::FakeProxy;

std::string joined(const std::vector<std::string>& words) {
  std::string line;
  for (const std::string& word : words) {
    line += (line.empty() ? "" : " ") + word;
  }
  return line;
}

FakeProgram programFor(const std::string& line) {
  const auto& programs = FakeDevice::instance().programs;
  const auto found = programs.find(line);
  return found == programs.end() ? FakeProgram() : found->second;
}

}  // namespace

ProgramRunner::ProgramRunner() : state_(std::make_unique<State>()) {}

ProgramRunner::~ProgramRunner() = default;

ResultStatus ProgramRunner::run(const std::vector<std::string>& argv, int limit) {
  const std::string line = joined(argv);
  FakeProxy& fake = state_->fake;
  fake.record("exec " + line + " | " + std::to_string(limit));
  fake.background = false;
  fake.output.clear();
  if (const int error = FakeDevice::errorOf("exec", argv.empty() ? EINVAL : 0)) {
    return test::failure(error);
  }
  const FakeProgram program = programFor(line);
  if (limit < 0 && program.end.state != WatchProcessState_t::none) {
    fake.background = true;
    return {SlaveStatus::running, WatchProcessState_t::running, 0, 0, 0};
  }
  fake.output = program.output;
  return program.end;
}

ResultStatus ProgramRunner::kill() {
  FakeProxy& fake = state_->fake;
  fake.record("kill");
  const int error = FakeDevice::errorOf("kill", fake.background ? 0 : ESRCH);
  fake.background = fake.background && error != 0;
  return error != 0 ? test::failure(error)
                    : ResultStatus{SlaveStatus::success, WatchProcessState_t::signalled, -1, 0, 15};
}

ResultStatus ProgramRunner::wait() {
  FakeProxy& fake = state_->fake;
  fake.record("wait");
  const int error = FakeDevice::errorOf("wait", fake.background ? 0 : ECHILD);
  fake.background = fake.background && error != 0;
  return error != 0 ? test::failure(error) : FakeProgram().end;
}

const std::string& ProgramRunner::output() const {
  return state_->fake.output;
}

void reapForgottenPrograms() noexcept {
  FakeDevice& device = FakeDevice::instance();
  ++device.polls;
  if (device.onCall) {
    device.onCall("poll");
  }
}

}  // namespace zell
