// SPDX-License-Identifier: Apache-2.0
// The settings of the parts come from those of the operator.
#include "gateway/app/part_settings.h"

#include <chrono>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace runelgw {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;

TEST(PartSettingsTest, LinkListensWhereDevicesDial) {
  Settings settings;
  settings.devices.listen = {{"192.0.2.1", 1}, {"192.0.2.2", 2}};
  settings.devices.proxies = {"10.0.0.1"};
  settings.devices.sharedAddresses = {"10.0.0.0/8"};
  settings.devices.sharedSilence = seconds(9);
  settings.devices.identifyPerSecond = 3;
  settings.devices.answerTimeout = seconds(4);
  settings.queue.length = 5;
  const LinkSettings link = linkSettings(settings);
  ASSERT_EQ(link.listen.size(), 2U);
  EXPECT_EQ(link.listen[1].host, "192.0.2.2");
  EXPECT_EQ(link.listen[1].port, 2);
  EXPECT_THAT(link.proxies, ElementsAre("10.0.0.1"));
  EXPECT_THAT(link.sharedAddresses, ElementsAre("10.0.0.0/8"));
  EXPECT_EQ(link.sharedSilence, seconds(9));
  EXPECT_EQ(link.identifyPerSecond, 3U);
  EXPECT_EQ(link.ioTimeout, seconds(4));
  EXPECT_EQ(link.queueLength, 5U);
}

TEST(PartSettingsTest, RegistryAdmitsAndPinsAsChosen) {
  Settings settings;
  settings.devices.caution = milliseconds(7);
  settings.admission.allow = {"gw-1", "10.0.0.0/8"};
  settings.admission.deny = {"10.0.0.9"};
  const auto modes = {
      std::make_pair(AdmissionMode::open, NewDevices::welcome),
      std::make_pair(AdmissionMode::approve, NewDevices::wait),
      std::make_pair(AdmissionMode::list, NewDevices::refused),
  };
  for (const auto& [mode, expected] : modes) {
    settings.admission.mode = mode;
    EXPECT_EQ(registrySettings(settings)->newDevices, expected);
  }
  const auto pins = {std::make_pair(PinMode::best, PinTo::best),
                     std::make_pair(PinMode::certificate, PinTo::certificate),
                     std::make_pair(PinMode::nothing, PinTo::nothing)};
  for (const auto& [mode, expected] : pins) {
    settings.admission.pin = mode;
    EXPECT_EQ(registrySettings(settings)->pinTo, expected);
  }
  const runel::Result<RegistrySettings> registry = registrySettings(settings);
  ASSERT_TRUE(registry);
  EXPECT_EQ(registry->caution, milliseconds(7));
  EXPECT_EQ(registry->access.find({"gw-1", "192.0.2.1", ""}), AccessList::Match::allowed);
  EXPECT_EQ(registry->access.find({"x", "10.0.0.1", ""}), AccessList::Match::allowed);
  EXPECT_EQ(registry->access.find({"gw-1", "10.0.0.9", ""}), AccessList::Match::denied);
  EXPECT_EQ(registry->access.find({"x", "192.0.2.1", ""}), AccessList::Match::none);
}

TEST(PartSettingsTest, HttpUsesTlsWithACertificate) {
  Settings settings;
  HttpSettings http = httpSettings(settings);
  ASSERT_EQ(http.listeners.size(), 1U);
  EXPECT_EQ(http.listeners[0].address, "127.0.0.1");
  EXPECT_EQ(http.listeners[0].port, 5180);
  EXPECT_FALSE(http.listeners[0].tls);
  EXPECT_EQ(http.sessionCookie, sessionCookieName(false));
  EXPECT_EQ(http.clientCertificates, ClientCertificates::none);
  settings.http.certificate = "/c";
  settings.http.key = "/k";
  settings.http.clientCa = "/a";
  settings.http.hostNames = {"fleet.example"};
  http = httpSettings(settings);
  EXPECT_TRUE(http.listeners[0].tls);
  EXPECT_EQ(http.certificateFile, "/c");
  EXPECT_EQ(http.keyFile, "/k");
  EXPECT_EQ(http.clientAuthorityFile, "/a");
  EXPECT_EQ(http.sessionCookie, sessionCookieName(true));
  EXPECT_EQ(http.clientCertificates, ClientCertificates::optional);
  EXPECT_THAT(http.names, ElementsAre("fleet.example"));
}

TEST(PartSettingsTest, RecordsAreRemovedAtTheirAge) {
  Settings settings;
  settings.retention.history = hours(4);
  settings.retention.audit = hours(3);
  settings.retention.clauses = hours(2);
  settings.retention.outputs = hours(1);
  constexpr std::int64_t kNow = 1'000'000'000'000;
  constexpr std::int64_t kHour = 3'600'000;
  const Timeline timeline({[] { return kNow; }, [] { return runel::Clock::time_point(); }});
  const Retention old = retention(settings, timeline);
  EXPECT_EQ(old.historyBefore, kNow - 4 * kHour);
  EXPECT_EQ(old.auditBefore, kNow - 3 * kHour);
  EXPECT_EQ(old.clausesBefore, kNow - 2 * kHour);
  EXPECT_EQ(old.outputsBefore, kNow - kHour);
}

TEST(PartSettingsTest, KnowsWhetherTheDatabaseIsAFile) {
  Settings settings;
  EXPECT_TRUE(usesFile(settings));
  settings.database.url = "postgresql://h/n";
  EXPECT_FALSE(usesFile(settings));
  EXPECT_EQ(storeSettings(settings).database, "postgresql://h/n");
}

}  // namespace
}  // namespace runelgw
