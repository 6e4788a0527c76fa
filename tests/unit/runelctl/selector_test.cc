// SPDX-License-Identifier: Apache-2.0
// The devices of a command line.
#include "inventory/selector.h"

#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "inventory/parse_inventory.h"

namespace runelctl {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using Names = std::vector<std::string>;

constexpr char kInventory[] = R"(
[defaults]
jobs = 50
[devices]
hall = { address = "192.0.2.1", tags = { site = "north", floor = 1 } }
roof = { address = "192.0.2.2", tags = { site = "north" }, jobs = 3 }
"gw-[1-3]" = "192.0.2.[11-13]"
[groups]
north = ["hall", "roof"]
gateways = { devices = ["gw-[1-3]"], jobs = 4, max-fail = 2, wave = "1,rest" }
careful = { devices = ["gw-1"], jobs = 2, wave = "1" }
)";

class SelectorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto inventory = std::make_shared<Inventory>();
    ASSERT_THAT(parseInventory(kInventory, *inventory), IsEmpty());
    selector = std::make_unique<Selector>(inventory, [this] { return connected; });
  }

  Names names() const {
    Names all;
    for (const Selected& one : selector->selected()) {
      all.push_back(one.address.name());
    }
    return all;
  }
  static void expectError(const runel::Result<void>& result, const std::string& text) {
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error().kind(), runel::Kind::local);
    EXPECT_THAT(result.error().text(), HasSubstr(text));
  }

  runel::Result<Names> connected = Names{"unit-1", "unit-2"};
  std::unique_ptr<Selector> selector;
};

TEST_F(SelectorTest, NamesOfTheInventoryHaveTheirAddresses) {
  ASSERT_TRUE(selector->addList("hall,gw-[2-3],198.51.100.7:5111").ok());
  EXPECT_THAT(names(), ElementsAre("hall", "gw-2", "gw-3", "198.51.100.7"));
  EXPECT_EQ(selector->selected()[1].address.host(), "192.0.2.12");
  EXPECT_EQ(selector->selected()[0].device->name, "hall");
  EXPECT_EQ(selector->selected()[3].device, nullptr);
}

TEST_F(SelectorTest, ADeviceThatIsNamedTwiceIsSelectedOnce) {
  ASSERT_TRUE(selector->addList("192.0.2.1,hall,192.0.2.1:5111,HOST,host").ok());
  ASSERT_TRUE(selector->addGroup("north").ok());
  EXPECT_THAT(names(), ElementsAre("192.0.2.1", "HOST", "roof"));
  EXPECT_EQ(selector->selected()[0].device->name, "hall") << "known by its address";
}

TEST_F(SelectorTest, GroupsAndAllAddDevicesOfTheInventory) {
  ASSERT_TRUE(selector->addGroup("north").ok());
  EXPECT_THAT(names(), ElementsAre("hall", "roof"));
  ASSERT_TRUE(selector->addAll().ok());
  EXPECT_EQ(names().size(), 5U);
  expectError(selector->addGroup("nroth"), "no group 'nroth' (did you mean 'north'?)");
}

TEST_F(SelectorTest, AllAtTheMasterAreSelectedByTheirNames) {
  ASSERT_TRUE(selector->addList("@unit-2,@all").ok());
  EXPECT_THAT(names(), ElementsAre("@unit-2", "@unit-1"));
  connected = runel::Error(runel::Kind::link, runel::Cause::noMaster, "no master");
  EXPECT_EQ(selector->addList("@all").error().cause(), runel::Cause::noMaster);
}

TEST_F(SelectorTest, AllTagsMustMatch) {
  ASSERT_TRUE(selector->addAll().ok());
  ASSERT_TRUE(selector->addList("198.51.100.7").ok());
  ASSERT_TRUE(selector->keepTagged("site=north").ok());
  EXPECT_THAT(names(), ElementsAre("hall", "roof"));
  ASSERT_TRUE(selector->keepTagged("floor=1").ok());
  EXPECT_THAT(names(), ElementsAre("hall"));
  ASSERT_TRUE(selector->keepTagged("site=").ok());
  EXPECT_THAT(names(), IsEmpty());
  expectError(selector->keepTagged("site"), "expected KEY=VALUE");
  expectError(selector->keepTagged("=x"), "expected KEY=VALUE");
}

TEST_F(SelectorTest, RemovesByNameRangeAndAddress) {
  ASSERT_TRUE(selector->addAll().ok());
  ASSERT_TRUE(selector->addList("198.51.100.7").ok());
  ASSERT_TRUE(selector->removeList("gw-[1-2], 192.0.2.2, 198.51.100.7:5111").ok());
  EXPECT_THAT(names(), ElementsAre("hall", "gw-3"));
}

TEST_F(SelectorTest, AMisspelledNameDoesNotStaySelected) {
  ASSERT_TRUE(selector->addGroup("north").ok());
  EXPECT_TRUE(selector->removeList("gw-1").ok()) << "known, but not selected";
  expectError(selector->removeList("hal"), "no device 'hal' is selected");
  expectError(selector->removeList("gw-[1-9]"), "no device 'gw-4' is selected");
  expectError(selector->removeList(""), "empty device list");
}

TEST_F(SelectorTest, ANamedAddressKeepsItsName) {
  ASSERT_TRUE(selector->addNamed("first", "198.51.100.7").ok());
  expectError(selector->addNamed("x", "a:b"), "invalid port 'b'");
  selector->addAddress(runel::Address("192.0.2.1").named("same"));
  EXPECT_THAT(names(), ElementsAre("first", "same"));
  EXPECT_EQ(selector->selected()[1].device->name, "hall");
}

TEST_F(SelectorTest, AnElementIsOneDeviceOrOneRange) {
  ASSERT_TRUE(selector->addElement("gw-[1,3]").ok());
  EXPECT_THAT(names(), ElementsAre("gw-1", "gw-3"));
  expectError(selector->addElement("a,b"), "expected one device");
}

TEST_F(SelectorTest, ARunHasTheValuesOfTheNamedGroupsAndDevices) {
  ASSERT_TRUE(selector->addAll().ok());
  EXPECT_EQ(selector->runDefaults(false)->jobs, 50) << "nothing was named";
  ASSERT_TRUE(selector->addGroup("gateways").ok());
  EXPECT_EQ(selector->runDefaults(false)->jobs, 4);
  EXPECT_EQ(selector->runDefaults(false)->maxFail, 2);
  EXPECT_EQ(selector->runDefaults(false)->wave, "1,rest");
  ASSERT_TRUE(selector->addList("roof").ok());
  EXPECT_EQ(selector->runDefaults(false)->jobs, 3) << "the smallest";
}

TEST_F(SelectorTest, DifferentWavesNeedAChoice) {
  ASSERT_TRUE(selector->addGroup("gateways").ok());
  ASSERT_TRUE(selector->addGroup("careful").ok());
  const auto run = selector->runDefaults(false);
  ASSERT_FALSE(run.ok());
  EXPECT_EQ(run.error().text(),
            "the waves of gateways (1,rest) and careful (1) differ: choose with --wave");
  EXPECT_TRUE(selector->runDefaults(true).ok());
}

TEST_F(SelectorTest, WithoutAnInventoryGroupsAreErrors) {
  Selector without(nullptr, [this] { return connected; });
  expectError(without.addGroup("north"), "no inventory");
  expectError(without.addAll(), "no inventory");
  EXPECT_TRUE(without.addList("hall,gw-[1-2]").ok());
  EXPECT_EQ(without.selected().size(), 3U);
  EXPECT_FALSE(without.runDefaults(false)->jobs);
}

}  // namespace
}  // namespace runelctl
