// SPDX-License-Identifier: Apache-2.0
#include "fakes/zell/fake_zell.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "fakes/zell/fake_program_runner.h"

namespace zell::test {
namespace {

std::vector<FakeProxy*>& registry() {
  static std::vector<FakeProxy*> proxies;
  return proxies;
}

}  // namespace

ResultStatus failure(int error) {
  return {SlaveStatus::failure, WatchProcessState_t::none, 1, error, 0};
}

FakeDevice& FakeDevice::instance() {
  static FakeDevice device;
  return device;
}

FakeProxy::FakeProxy() {
  registry().push_back(this);
}

FakeProxy::~FakeProxy() {
  auto& all = registry();
  all.erase(std::remove(all.begin(), all.end(), this), all.end());
}

const std::vector<FakeProxy*>& FakeProxy::living() {
  return registry();
}

FakeProxy& FakeProxy::newest() {
  if (registry().empty()) {
    std::fputs("FakeProxy::newest: no proxy lives\n", stderr);
    std::abort();
  }
  return *registry().back();
}

}  // namespace zell::test

namespace zell {

void ProgramRunner::record(const std::string& call) {
  test::FakeDevice& device = test::FakeDevice::instance();
  device.calls.push_back(call);
  fake.calls.push_back(call);
  if (device.onCall) {
    device.onCall(call);
  }
}

int ProgramRunner::errorOf(const std::string& name, int otherwise) {
  const auto& failures = test::FakeDevice::instance().failures;
  const auto found = failures.find(name);
  return found == failures.end() ? otherwise : found->second;
}

}  // namespace zell
