// SPDX-License-Identifier: Apache-2.0
// Which connection is which device, as the registry tells the link.
#include <string>
#include <vector>

#include "unit/gateway/fleet/fleet_case.h"

namespace runelgw::test {
namespace {

using Lines = std::vector<std::string>;

class GatewayRegistryIdentity : public FleetCase {};

TEST_F(GatewayRegistryIdentity, ANewDeviceWorksAndIsPinnedToItsAddress) {
  start();
  connect("10.0.0.1", "gw-1");
  EXPECT_EQ((Lines{"bind 10.0.0.1:1000 1"}), link.take());
  EXPECT_EQ((Lines{"added gw-1 10.0.0.1:1000", "connected gw-1 10.0.0.1:1000"}), takeEvents());
  const Device& one = device("gw-1");
  EXPECT_EQ(DeviceState::online, one.state);
  EXPECT_EQ("10.0.0.1", one.pinAddress);
  EXPECT_EQ("", one.pinCertificate);
  EXPECT_EQ("controller", one.deviceType);
  EXPECT_EQ(kStart, one.connectedSince);
  EXPECT_EQ(kStart, one.firstSeen);
  EXPECT_EQ(1u, one.connects);
  EXPECT_EQ(1u, registry->counts()[0]);
}

TEST_F(GatewayRegistryIdentity, ALossIsNotedWithItsReason) {
  start();
  connect("10.0.0.1", "gw-1");
  clock.pass(kHour);
  lose("10.0.0.1", 1000, "no answer\x01");
  const Device& one = device("gw-1");
  EXPECT_EQ(DeviceState::offline, one.state);
  EXPECT_EQ(1u, one.losses);
  EXPECT_EQ(kStart + kHour, one.lastLoss);
  EXPECT_EQ("no answer?", one.lastLossReason);
  EXPECT_EQ(0, one.connectedSince);
  EXPECT_EQ(kStart + kHour, one.lastSeen);
  EXPECT_EQ("lost gw-1 no answer?", takeEvents().back());
  connect("10.0.0.1", "gw-1", 1001);
  EXPECT_EQ(2u, one.connects);
  EXPECT_EQ(1u, registry->size());
}

TEST_F(GatewayRegistryIdentity, AConnectionFromElsewhereIsQuarantined) {
  start();
  connect("10.0.0.1", "gw-1");
  connect("10.0.0.2", "gw-1");
  EXPECT_EQ((Lines{"bind 10.0.0.1:1000 1", "silence 10.0.0.2:1000 quarantined"}), link.take());
  EXPECT_EQ("online", stateOf("gw-1"));
  EXPECT_EQ("quarantined gw-1 10.0.0.2:1000 does not match its pin", takeEvents().back());
  lose("10.0.0.1");  // the other one still does not match the pin
  EXPECT_EQ("quarantined", stateOf("gw-1"));
  EXPECT_TRUE(link.take().empty());
  connect("10.0.0.1", "gw-1", 1001);
  EXPECT_EQ((Lines{"bind 10.0.0.1:1001 1"}), link.take());
  ASSERT_EQ(2u, registry->connections(1).size());
  EXPECT_EQ(Verdict::quarantined, registry->connections(1)[0].verdict);
  EXPECT_EQ(Verdict::work, registry->connections(1)[1].verdict);
}

TEST_F(GatewayRegistryIdentity, WhenTheOlderAtThePinEndsTheNewerIsUsed) {
  start();
  connect("10.0.0.1", "gw-1", 1000);
  connect("10.0.0.1", "gw-1", 1001);
  connect("10.0.0.1", "gw-1", 1002);
  EXPECT_EQ((Lines{"bind 10.0.0.1:1000 1", "silence 10.0.0.1:1001 quarantined",
                   "silence 10.0.0.1:1002 quarantined"}),
            link.take());
  lose("10.0.0.1", 1000);
  EXPECT_EQ((Lines{"bind 10.0.0.1:1001 1"}), link.take());
  EXPECT_EQ(1001, device("gw-1").port);
  lose("10.0.0.1", 1002);  // a quarantined one is no loss of the device
  EXPECT_EQ(1u, device("gw-1").losses);
  EXPECT_EQ("online", stateOf("gw-1"));
}

TEST_F(GatewayRegistryIdentity, WithoutAPinNoneOfTwoIsUsed) {
  RegistrySettings settings;
  settings.pinTo = PinTo::nothing;
  start(settings);
  connect("10.0.0.1", "gw-1");
  connect("10.0.0.2", "gw-1");
  EXPECT_EQ((Lines{"bind 10.0.0.1:1000 1", "silence 10.0.0.1:1000 quarantined",
                   "silence 10.0.0.2:1000 quarantined"}),
            link.take());
  EXPECT_EQ("quarantined", stateOf("gw-1"));
  EXPECT_EQ(0, device("gw-1").connectedSince);
  lose("10.0.0.1");
  EXPECT_EQ((Lines{"bind 10.0.0.2:1000 1"}), link.take());
  EXPECT_EQ("online", stateOf("gw-1"));
  EXPECT_EQ("10.0.0.2", device("gw-1").address);
}

TEST_F(GatewayRegistryIdentity, ACertificateAllowsANewAddress) {
  start();
  connect("10.0.0.1", "gw-1", 1000, "gw-1.example");
  EXPECT_EQ("", device("gw-1").pinAddress);
  EXPECT_EQ("gw-1.example", device("gw-1").pinCertificate);
  lose("10.0.0.1");
  connect("10.9.9.9", "gw-1", 1000, "gw-1.example");
  EXPECT_EQ("online", stateOf("gw-1"));
  EXPECT_EQ("10.9.9.9", device("gw-1").address);
  connect("10.0.0.3", "gw-1", 1000);
  connect("10.0.0.4", "gw-1", 1000, "other.example");
  EXPECT_EQ(Reason::quarantined, link.silent.at(place("10.0.0.3")));
  EXPECT_EQ(Reason::quarantined, link.silent.at(place("10.0.0.4")));
}

TEST_F(GatewayRegistryIdentity, AnAddressPinMustBeChangedByAPerson) {
  start();
  connect("10.0.0.1", "gw-1");
  lose("10.0.0.1");
  connect("10.0.0.2", "gw-1");
  EXPECT_EQ("quarantined", stateOf("gw-1"));
  (void)link.take();
  ASSERT_TRUE(registry->pinToConnection(1));
  EXPECT_EQ("10.0.0.2", device("gw-1").pinAddress);
  EXPECT_EQ((Lines{"bind 10.0.0.2:1000 1"}), link.take());
  EXPECT_EQ("online", stateOf("gw-1"));
}

TEST_F(GatewayRegistryIdentity, UnpinAndPinAgain) {
  start();
  connect("10.0.0.1", "gw-1");
  connect("10.0.0.2", "gw-1");
  (void)link.take();
  ASSERT_TRUE(registry->unpin(1));
  EXPECT_EQ((Lines{"silence 10.0.0.1:1000 quarantined"}), link.take());
  EXPECT_EQ("quarantined", stateOf("gw-1"));
  EXPECT_FALSE(registry->pinToConnection(1));  // which of the two
  ASSERT_TRUE(registry->pin(1, "10.0.0.2", ""));
  EXPECT_EQ((Lines{"bind 10.0.0.2:1000 1"}), link.take());
  ASSERT_TRUE(registry->pin(1, "10.0.0.1", ""));  // silence comes before the other one works
  EXPECT_EQ((Lines{"silence 10.0.0.2:1000 quarantined", "bind 10.0.0.1:1000 1"}), link.take());
  EXPECT_EQ(3u, device("gw-1").connects);
  EXPECT_EQ(0u, device("gw-1").losses);
  EXPECT_FALSE(registry->pin(1, "10.0.0", ""));
  EXPECT_FALSE(registry->pin(1, "", "a\nb"));
  EXPECT_FALSE(registry->pin(9, "10.0.0.1", ""));
}

TEST_F(GatewayRegistryIdentity, NewDevicesWaitForApproval) {
  RegistrySettings settings;
  settings.newDevices = NewDevices::wait;
  ASSERT_TRUE(settings.access.set({"address", "10.7.0.0/16", true, 0, ""}));
  start(settings);
  connect("10.0.0.1", "gw-1");
  EXPECT_EQ((Lines{"silence 10.0.0.1:1000 waiting"}), link.take());
  EXPECT_EQ("waiting", stateOf("gw-1"));
  EXPECT_EQ("waiting gw-1 10.0.0.1:1000 waits for approval", takeEvents()[1]);
  lose("10.0.0.1");
  EXPECT_EQ("waiting", stateOf("gw-1"));
  connect("10.0.0.2", "gw-1");  // only what was seen first can be approved
  EXPECT_EQ((Lines{"silence 10.0.0.2:1000 quarantined"}), link.take());
  connect("10.0.0.1", "gw-1", 1001);
  ASSERT_TRUE(registry->approve(1));
  EXPECT_EQ("online", stateOf("gw-1"));
  EXPECT_EQ(1u, link.working.count(place("10.0.0.1", 1001)));
  connect("10.7.0.1", "gw-7");  // allowed by the list
  EXPECT_EQ("online", stateOf("gw-7"));
}

TEST_F(GatewayRegistryIdentity, APersonDeniesAndApproves) {
  start();
  connect("10.0.0.1", "gw-1");
  (void)link.take();
  ASSERT_TRUE(registry->deny(1));
  EXPECT_EQ((Lines{"silence 10.0.0.1:1000 denied"}), link.take());
  EXPECT_EQ("denied", stateOf("gw-1"));
  lose("10.0.0.1");
  EXPECT_EQ("denied", stateOf("gw-1"));
  EXPECT_EQ(0u, device("gw-1").losses);
  connect("10.0.0.1", "gw-1", 1001);
  EXPECT_EQ((Lines{"silence 10.0.0.1:1001 denied"}), link.take());
  ASSERT_TRUE(registry->approve(1));
  EXPECT_EQ((Lines{"bind 10.0.0.1:1001 1"}), link.take());
  EXPECT_FALSE(registry->approve(2));
  EXPECT_FALSE(registry->deny(2));
}

TEST_F(GatewayRegistryIdentity, TheDenyListActsAtOnce) {
  start();
  connect("10.0.0.1", "gw-1");
  connect("10.1.0.1", "gw-2");
  (void)link.take();
  ASSERT_TRUE(registry->setAccess({"address", "10.1.2.3/16", false, 0, ""}));
  EXPECT_EQ((Lines{"silence 10.1.0.1:1000 denied"}), link.take());
  EXPECT_EQ("denied", stateOf("gw-2"));
  EXPECT_EQ("online", stateOf("gw-1"));
  EXPECT_FALSE(registry->silenceFor(place("10.1.9.9")));  // is not even asked who it is
  EXPECT_TRUE(registry->silenceFor(place("10.2.9.9")));
  connect("10.1.0.5", "gw-5");
  EXPECT_EQ(nullptr, registry->find("gw-5"));
  EXPECT_EQ("refused 10.1.0.5:1000: it is on the deny list", takeEvents().back());
  ASSERT_TRUE(registry->removeAccess("address", "10.1.0.0/16"));
  EXPECT_EQ("online", stateOf("gw-2"));
  EXPECT_EQ("online", stateOf("gw-5"));
  EXPECT_FALSE(registry->removeAccess("address", "10.1.0.0/16"));
  EXPECT_FALSE(registry->setAccess({"address", "x", false, 0, ""}));
  EXPECT_TRUE(saved().access.empty());
}

TEST_F(GatewayRegistryIdentity, OnlyTheAllowListWhereItIsAskedFor) {
  RegistrySettings settings;
  settings.newDevices = NewDevices::refused;
  ASSERT_TRUE(settings.access.set({"hostid", "gw-1", true, 0, ""}));
  start(settings);
  connect("10.0.0.1", "gw-1");
  connect("10.0.0.2", "gw-2");
  EXPECT_EQ("online", stateOf("gw-1"));
  EXPECT_EQ(nullptr, registry->find("gw-2"));
  EXPECT_EQ(Reason::denied, link.silent.at(place("10.0.0.2")));
  ASSERT_TRUE(registry->setAccess({"hostid", "gw-2", true, 0, ""}));
  EXPECT_EQ("online", stateOf("gw-2"));
  lose("10.0.0.2");
  ASSERT_TRUE(registry->removeAccess("hostid", "gw-2"));
  EXPECT_EQ("denied", stateOf("gw-2"));
  lose("10.0.0.9");  // never connected
}

TEST_F(GatewayRegistryIdentity, DevicesWithoutAHostidAreTheirPlaces) {
  start();
  connect("10.0.0.1", "");
  connect("10.0.0.2", "");
  EXPECT_EQ("online", stateOf("10.0.0.1"));
  EXPECT_EQ("online", stateOf("10.0.0.2"));
  connect("10.0.0.1", "", 1001);  // the same device, as far as anybody can tell
  EXPECT_EQ(Reason::quarantined, link.silent.at(place("10.0.0.1", 1001)));
  connect("10.0.0.3", "", 1000, "gw.example");
  EXPECT_EQ(3u, registry->size());
  lose("10.0.0.3");
  connect("10.0.0.4", "", 1000, "gw.example");
  EXPECT_EQ(3u, registry->size());
  EXPECT_EQ("online", stateOf("10.0.0.4"));  // it has no other name
}

TEST_F(GatewayRegistryIdentity, HostidsMayHaveEveryByte) {
  start();
  for (int byte = 0; byte < 256; ++byte) {
    connect("10.0.0." + std::to_string(byte), std::string("x") + static_cast<char>(byte));
  }
  EXPECT_EQ(256u, registry->size());
  EXPECT_EQ(256u, registry->counts()[0]);
  const Snapshot snapshot = saved();
  ASSERT_EQ(256u, snapshot.devices.size());
  start({}, snapshot);
  for (int byte = 0; byte < 256; ++byte) {
    connect("10.0.0." + std::to_string(byte), std::string("x") + static_cast<char>(byte));
  }
  EXPECT_EQ(256u, registry->size());
  EXPECT_EQ("online", stateOf("xa"));
  EXPECT_EQ("online", stateOf("10.0.0.10"));  // "x\n" is no name
  EXPECT_EQ(std::string("x\n"), device("10.0.0.10").hostid);
}

TEST_F(GatewayRegistryIdentity, NamesAreUniqueAlsoForHostileHostids) {
  start();
  connect("10.0.0.1", "\xff");      // named by its address
  connect("10.0.0.2", "10.0.0.1");  // a valid name, but taken
  connect("10.0.0.2", "\xfe", 77);  // the address is taken too
  EXPECT_EQ("\xff", device("10.0.0.1").hostid);
  EXPECT_EQ("10.0.0.1", device("10.0.0.2").hostid);
  EXPECT_EQ("\xfe", device("10.0.0.2:77").hostid);
  lose("10.0.0.2", 77);
  connect("10.0.0.3", "\xfd");
  EXPECT_EQ("\xfd", device("10.0.0.3").hostid);
  EXPECT_EQ(4u, registry->select(*Query::parse("*")).size());
}

TEST_F(GatewayRegistryIdentity, ANameFollowsTheAddressOnlyWithoutAHostid) {
  RegistrySettings settings;
  settings.pinTo = PinTo::nothing;
  start(settings);
  connect("10.0.0.1", "\xff");
  lose("10.0.0.1");
  (void)takeEvents();
  connect("10.0.0.2", "\xff");
  EXPECT_EQ(nullptr, registry->find("10.0.0.1"));
  EXPECT_EQ("online", stateOf("10.0.0.2"));
  EXPECT_EQ("changed 10.0.0.2 name", takeEvents().front());
}

TEST_F(GatewayRegistryIdentity, TheNumberOfDevicesIsLimited) {
  RegistrySettings settings;
  settings.mostDevices = 2;
  start(settings);
  connect("10.0.0.1", "a");
  connect("10.0.0.2", "b");
  connect("10.0.0.3", "c");
  EXPECT_EQ(2u, registry->size());
  EXPECT_EQ(Reason::denied, link.silent.at(place("10.0.0.3")));
  EXPECT_EQ("refused 10.0.0.3:1000: there are 2 devices already", takeEvents().back());
  settings.newDevices = NewDevices::wait;
  settings.mostDevices = 100;
  settings.mostWaiting = 1;
  start(settings);
  connect("10.0.0.1", "a");
  connect("10.0.0.2", "b");
  EXPECT_EQ(1u, registry->size());
  EXPECT_EQ("refused 10.0.0.2:1000: 1 devices wait for approval already", takeEvents().back());
}

TEST_F(GatewayRegistryIdentity, ManyImpostorsDoNotKeepADeviceOut) {
  start();
  connect("10.0.0.1", "gw-1");
  lose("10.0.0.1");
  for (int number = 0; number < 200; ++number) {
    connect("10.66.0." + std::to_string(number), "gw-1");
  }
  EXPECT_EQ(16u, registry->connections(1).size());
  EXPECT_EQ(200u, link.silent.size());
  EXPECT_EQ("refused 10.66.0.199:1000: too many connections claim to be gw-1", takeEvents().back());
  connect("10.0.0.1", "gw-1", 1001);
  EXPECT_EQ("online", stateOf("gw-1"));
  for (std::uint16_t port = 2000; port < 2200; ++port) {
    connect("10.0.0.1", "gw-1", port);
  }
  EXPECT_EQ(64u, registry->connections(1).size());
  EXPECT_EQ("online", stateOf("gw-1"));
  for (int number = 0; number < 200; ++number) {
    lose("10.66.0." + std::to_string(number));
  }
  EXPECT_EQ(48u, registry->connections(1).size());
  ASSERT_TRUE(registry->unpin(1));  // what was refused may be the device
  EXPECT_EQ(64u, registry->connections(1).size());
}

TEST_F(GatewayRegistryIdentity, ADeviceIsForgottenOnlyWhileItIsAway) {
  start();
  connect("10.0.0.1", "gw-1");
  ASSERT_TRUE(registry->setTag(1, "a", "b"));
  EXPECT_FALSE(registry->forget(1));
  lose("10.0.0.1");
  ASSERT_TRUE(registry->forget(1));
  EXPECT_EQ("forgotten gw-1", takeEvents().back());
  EXPECT_EQ(nullptr, registry->find("gw-1"));
  EXPECT_EQ(nullptr, registry->find(DeviceId{1}));
  EXPECT_FALSE(registry->forget(1));
  EXPECT_TRUE(saved().devices.empty());
  EXPECT_TRUE(saved().tags.empty());
  for (const std::size_t count : registry->counts()) {
    EXPECT_EQ(0u, count);
  }
  connect("10.0.0.5", "gw-1");  // a new device: with a new number and a new pin
  EXPECT_EQ(2u, device("gw-1").id);
  EXPECT_EQ("10.0.0.5", device("gw-1").pinAddress);
}

TEST_F(GatewayRegistryIdentity, APlaceThatConnectsTwiceReplacesItself) {
  start();
  connect("10.0.0.1", "gw-1");
  connect("10.0.0.1", "gw-2");
  EXPECT_EQ("offline", stateOf("gw-1"));
  EXPECT_EQ("online", stateOf("gw-2"));
}

}  // namespace
}  // namespace runelgw::test
