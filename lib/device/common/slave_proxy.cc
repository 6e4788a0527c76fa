// SPDX-License-Identifier: Apache-2.0
#include <zell/slave_proxy.h>

#include <zell/led_control.h>

#include "base/stream_view.h"
#include "device/common/leds.h"
#include "device/common/program_runner.h"
#include "device/common/um_state.h"

namespace zell {
namespace {

std::vector<std::string> splitAtBlanks(const std::string& line) {
  constexpr char kBlanks[] = " \t";
  std::vector<std::string> words;
  std::size_t begin = line.find_first_not_of(kBlanks);
  while (begin != std::string::npos) {
    const std::size_t end = line.find_first_of(kBlanks, begin);
    words.push_back(line.substr(begin, end - begin));
    begin = line.find_first_not_of(kBlanks, end);
  }
  return words;
}

}  // namespace

SlaveProxy::SlaveProxy() : programs_(std::make_unique<ProgramRunner>()) {}

SlaveProxy::~SlaveProxy() {
  LedControl::instance().withdraw(this);
}

int SlaveProxy::exec(const std::vector<std::string>& argv, int execParam) {
  setResultStatus(programs_->run(argv, execParam));
  return status_.error;
}

int SlaveProxy::exec(const std::string& line, int execParam) {
  return exec(splitAtBlanks(line), execParam);
}

int SlaveProxy::system(const std::string& line, int limit) {
  return exec({"/bin/sh", "-c", line}, limit);
}

const std::string& SlaveProxy::output() const {
  return programs_->output();
}

bool SlaveProxy::updateUmState(const std::string& key, const std::ostringstream& state) {
  return finish(storeUmState(key, viewOf(state)));
}

bool SlaveProxy::finish(int error) const {
  ResultStatus status;
  if (error != 0) {
    status = {SlaveStatus::failure, WatchProcessState_t::none, 1, error, 0};
  }
  setResultStatus(status);
  return error == 0;
}

int SlaveProxy::driveLeds(bool first, bool second) const {
  return setLeds(first, second);
}

void SlaveProxy::endBlink() {
  LedControl::instance().endBlink();
}

}  // namespace zell
