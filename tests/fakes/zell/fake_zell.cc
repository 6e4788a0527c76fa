// SPDX-License-Identifier: Apache-2.0
#include "fakes/zell/fake_zell.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include <zell/slave_proxy.h>

#include "device/common/leds.h"
#include "device/common/um_state.h"

namespace zell {
namespace test {
namespace {

std::vector<FakeProxy*>& registry() {
  static std::vector<FakeProxy*> proxies;
  return proxies;
}

// Access to the LED controller, which outlives the devices of all tests.
struct Leds : SlaveProxy {
  using SlaveProxy::endBlink;
};

}  // namespace

ResultStatus failure(int error) {
  return {SlaveStatus::failure, WatchProcessState_t::none, 1, error, 0};
}

FakeDevice& FakeDevice::instance() {
  static FakeDevice device;
  return device;
}

void FakeDevice::reset() {
  *this = FakeDevice();
  Leds::endBlink();
}

void FakeDevice::record(const std::string& call) {
  calls.push_back(call);
  if (onCall) {
    onCall(call);
  }
}

int FakeDevice::errorOf(const std::string& name, int otherwise) {
  const auto& failures = instance().failures;
  const auto found = failures.find(name);
  return found == failures.end() ? otherwise : found->second;
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

void FakeProxy::record(const std::string& call) {
  calls.push_back(call);
  FakeDevice::instance().record(call);
}

}  // namespace test

int setLeds(bool first, bool second) noexcept {
  test::FakeDevice& device = test::FakeDevice::instance();
  device.record(std::string("setLeds ") + (first ? "1 " : "0 ") + (second ? "1" : "0"));
  const int error = test::FakeDevice::errorOf("setLeds");
  if (error == 0) {
    device.firstLed = first;
    device.secondLed = second;
  }
  return error;
}

int storeUmState(const std::string& key, std::string_view state) {
  test::FakeDevice& device = test::FakeDevice::instance();
  device.record("storeUmState " + key + " " + std::string(state));
  const int error = test::FakeDevice::errorOf("storeUmState");
  if (error == 0) {
    device.files["/var/lib/runeld/umstate/" + key] = state;
  }
  return error;
}

}  // namespace zell
