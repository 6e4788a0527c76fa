// SPDX-License-Identifier: Apache-2.0
// Ten thousand devices.
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "fakes/gateway/fake_router.h"
#include "gateway/fleet/inventory.h"
#include "support/allocation_count.h"
#include "unit/gateway/fleet/fleet_case.h"

namespace runelgw::test {
namespace {

constexpr int kDevices = 10000;

class GatewayRegistrySize : public FleetCase {
 protected:
  static std::string hostOf(int number) {
    return "10.1." + std::to_string(number / 250) + "." + std::to_string(number % 250);
  }
  static std::string nameOfNumber(int number) {
    return "controller-" + std::to_string(100000 + number) + ".plant-7.example";
  }
  void connectAll() {
    for (int number = 0; number < kDevices; ++number) {
      connect(hostOf(number), nameOfNumber(number));
    }
  }
  // Writes nothing down, so that only the registry's memory counts.
  class Sink : public FakeStore {
   public:
    void write(std::vector<Change> changes, Done done) override {
      (void)changes;
      if (done) {
        done(std::nullopt);
      }
    }
  };
};

TEST_F(GatewayRegistrySize, ADeviceNeedsLessThanTwoKilobytes) {
  Sink sink;
  registry = std::make_unique<Registry>(RegistrySettings(), sink, clock.clocks(), Snapshot(), true);
  // The number of kept events does not depend on the number of devices.
  for (int count = 0; count < 20000; ++count) {
    registry->problem(nameOfNumber(count) + " 10.100.100.100:65535");
  }
  FakeRouter router;
  InventoryRules rules;
  rules.atOnce = 0;
  const zell::test::AllocationCount heap;
  const Inventory inventory(*registry, router, rules, clock.clocks());
  connectAll();
  registry->tick();
  const auto bytes = static_cast<double>(heap.live()) / kDevices;
  std::printf("%.0f bytes of heap for each device, with its schedule\n", bytes);
  EXPECT_LT(bytes, 2048);
  EXPECT_GT(bytes, sizeof(Device));
}

TEST_F(GatewayRegistrySize, EventsOfOneDeviceDoNotDependOnTheNumberOfDevices) {
  Sink sink;
  registry = std::make_unique<Registry>(RegistrySettings(), sink, clock.clocks(), Snapshot(), true);
  ASSERT_TRUE(registry->setRule({"r", "kernel:5.*", "old", "yes"}));
  connectAll();
  registry->tick();
  // Allocations stand for work: they do not depend on the machine.
  const zell::test::AllocationCount work;
  const auto begin = std::chrono::steady_clock::now();
  for (int number = 0; number < 1000; ++number) {
    lose(hostOf(number));
    connect(hostOf(number), nameOfNumber(number), 1001);
    registry->learn(static_cast<DeviceId>(number + 1), {std::nullopt, "5.10", 1000});
    registry->heard(static_cast<DeviceId>(number + 1));
  }
  const std::chrono::duration<double, std::micro> time = std::chrono::steady_clock::now() - begin;
  std::printf("%.1f us and %zu allocations for a loss, a connect and facts\n", time.count() / 1000,
              work.calls() / 1000);
  EXPECT_LT(work.calls() / 1000, 200u);
  EXPECT_LT(time.count() / 1000, 2000);  // a search through all devices takes more
}

TEST_F(GatewayRegistrySize, AllDevicesAreSelectedAndCountedFast) {
  Sink sink;
  registry = std::make_unique<Registry>(RegistrySettings(), sink, clock.clocks(), Snapshot(), true);
  connectAll();
  const auto query = Query::parse("state:online type:controller !(controller-1000[01-09].*)");
  ASSERT_TRUE(query);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(static_cast<std::size_t>(kDevices - 9), registry->select(*query).size());
  const std::chrono::duration<double, std::milli> time = std::chrono::steady_clock::now() - begin;
  std::printf("%.1f ms to select of 10,000 devices\n", time.count());
  EXPECT_LT(time.count(), 5000);
  EXPECT_EQ(static_cast<std::size_t>(kDevices), registry->counts()[0]);
  for (int number = 0; number < kDevices; number += 37) {
    ASSERT_EQ(hostOf(number), device(nameOfNumber(number)).address);
  }
}

}  // namespace
}  // namespace runelgw::test
