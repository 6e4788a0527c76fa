// SPDX-License-Identifier: Apache-2.0
// What an operator learns of a file and of options.
#include "gateway/config/settings_loader.h"

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace runelgw {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

std::vector<std::string> problemsOf(const std::string& text) {
  SettingsLoader loader;
  loader.readText(text, "f.toml");
  loader.compare();
  return loader.problems();
}

const SettingRow& rowOf(const std::string& name) {
  const auto& rows = settingRows();
  return *std::find_if(rows.begin(), rows.end(),
                       [&](const SettingRow& row) { return row.name() == name; });
}

std::vector<std::string> problemsOfOption(const std::string& name, const std::string& value) {
  SettingsLoader loader;
  loader.readOption(rowOf(name), value);
  loader.compare();
  return loader.problems();
}

TEST(SettingsLoaderTest, AcceptsAnEmptyFileAndEmptySections) {
  EXPECT_THAT(problemsOf(""), IsEmpty());
  EXPECT_THAT(problemsOf("[queue]\n[http]\n"), IsEmpty());
}

TEST(SettingsLoaderTest, ReadsAFile) {
  SettingsLoader loader;
  loader.readText("[queue]\nlength = 5\n[devices]\ncaution_seconds = 1.5\nproxies = ['10.0.0.1']\n",
                  "f");
  EXPECT_THAT(loader.problems(), IsEmpty());
  EXPECT_EQ(loader.settings().queue.length, 5U);
  EXPECT_EQ(loader.settings().devices.caution, runel::Milliseconds(1500));
  EXPECT_THAT(loader.settings().devices.proxies, ElementsAre("10.0.0.1"));
}

TEST(SettingsLoaderTest, PrefersOptionsToTheFile) {
  SettingsLoader loader;
  loader.readText("[queue]\nlength = 5\nspool_bytes = 7\n", "f");
  loader.readOption(rowOf("queue.length"), "6");
  EXPECT_EQ(loader.settings().queue.length, 6U);
  EXPECT_EQ(loader.settings().queue.spoolBytes, 7U);
}

TEST(SettingsLoaderTest, NamesTheLineAndTheNearestKey) {
  EXPECT_THAT(problemsOf("[queue]\nlenght = 1\n"),
              ElementsAre("f.toml:2: unknown key 'queue.lenght' (did you mean 'length'?)"));
  EXPECT_THAT(problemsOf("\n[http]\nlength = 1\n"),
              ElementsAre("f.toml:3: unknown key 'http.length' (it belongs to [queue])"));
  EXPECT_THAT(problemsOf("length = 1\n"),
              ElementsAre("f.toml:1: unknown key 'length' (it belongs to [queue])"));
  EXPECT_THAT(problemsOf("[http]\nxyzzy = 1\n"), ElementsAre("f.toml:2: unknown key 'http.xyzzy'"));
}

TEST(SettingsLoaderTest, NamesTheNearestSection) {
  EXPECT_THAT(problemsOf("[device]\nlisten = []\n"),
              ElementsAre("f.toml:2: unknown section 'device' (did you mean 'devices'?)"));
  EXPECT_THAT(problemsOf("[device]\n"),
              ElementsAre("f.toml:1: unknown section 'device' (did you mean 'devices'?)"));
  EXPECT_THAT(problemsOf("queue = 1\n"),
              ElementsAre("f.toml:1: 'queue' is a section: write [queue]"));
  EXPECT_THAT(problemsOf("[[queue]]\nlength = 1\n"),
              ElementsAre("f.toml:1: 'queue' is a section: write [queue]"));
}

TEST(SettingsLoaderTest, TellsWhatWasExpectedInTheOrderOfTheLines) {
  EXPECT_THAT(
      problemsOf("[queue]\nlength = 0\nspool_bytes = 1.5\nspool_directory = \"spool\"\n"
                 "[admission]\nmode = \"closed\"\nallow = \"gw\"\ndeny = [\"\"]\n"
                 "[devices]\nlisten = [\"[::1]:1\"]\nproxies = [\"10.0.0.0/33\"]\n"
                 "caution_seconds = -1\nshared_silence_seconds = nan\n"
                 "[http]\nlisten = []\nhost_names = [\"a/b\"]\nrequests_per_second = true\n"
                 "[database]\nurl = \"mysql://h\"\n"),
      ElementsAre(
          "f.toml:2: queue.length: expected a whole number from 1 to 10000",
          "f.toml:3: queue.spool_bytes: expected a whole number from 0 to 1099511627776",
          "f.toml:4: queue.spool_directory: expected an absolute path",
          "f.toml:6: admission.mode: expected \"open\", \"approve\" or \"list\"",
          "f.toml:7: admission.allow: expected a list of host identifiers, addresses and networks",
          "f.toml:8: admission.deny: expected a list of host identifiers, addresses and networks",
          "f.toml:10: devices.listen: expected a list of ADDRESS:PORT with IPv4 addresses",
          "f.toml:11: devices.proxies: expected a list of ADDRESS and ADDRESS/BITS (IPv4)",
          "f.toml:12: devices.caution_seconds: expected a number from 0 to 2592000",
          "f.toml:13: devices.shared_silence_seconds: expected a number from 1 to 2592000",
          "f.toml:15: http.listen: expected a list of ADDRESS:PORT or [IPV6-ADDRESS]:PORT",
          "f.toml:16: http.host_names: expected a list of host names and addresses, without ports",
          "f.toml:17: http.requests_per_second: expected a number from 0.001 to 1000000",
          "f.toml:19: database.url: expected an absolute path, or postgresql://..."));
}

TEST(SettingsLoaderTest, KeepsTheDefaultOfAnInvalidValue) {
  SettingsLoader loader;
  loader.readText("[queue]\nlength = 0\n", "f");
  EXPECT_EQ(loader.settings().queue.length, Settings().queue.length);
}

TEST(SettingsLoaderTest, TellsTheLineOfASyntaxError) {
  EXPECT_THAT(problemsOf("[queue]\nlength = = 1\n"), ElementsAre(StartsWith("f.toml:2: ")));
  EXPECT_THAT(problemsOf("[queue]\nlength\xe2\x80\x83= 1\n"),
              ElementsAre("f.toml:2: expected ASCII characters outside of strings and comments"));
}

TEST(SettingsLoaderTest, LimitsTheNumberOfProblems) {
  std::string text = "[queue]\n";
  for (int i = 0; i < 1000; ++i) {
    text += "k" + std::to_string(i) + " = 1\n";
  }
  EXPECT_EQ(problemsOf(text).size(), 50U);
}

TEST(SettingsLoaderTest, NamesTheOptionOfAnInvalidValue) {
  EXPECT_THAT(problemsOfOption("queue.length", "many"),
              ElementsAre("--queue-length: expected a whole number from 1 to 10000"));
  EXPECT_THAT(problemsOfOption("queue.length", "1.5"),
              ElementsAre("--queue-length: expected a whole number from 1 to 10000"));
  EXPECT_THAT(problemsOfOption("queue.length", "99999999999999999999"),
              ElementsAre("--queue-length: expected a whole number from 1 to 10000"));
  EXPECT_THAT(problemsOfOption("devices.caution_seconds", "1e3"),
              ElementsAre("--devices-caution-seconds: expected a number from 0 to 2592000"));
  EXPECT_THAT(problemsOfOption("devices.listen", ""),
              ElementsAre("--devices-listen: expected a list of ADDRESS:PORT with IPv4 addresses"));
}

TEST(SettingsLoaderTest, WantsTextsThatAFileCanHave) {
  EXPECT_EQ(problemsOfOption("admission.allow", "gr\xc3\xbc\xc3\x9f").size(), 0U);
  EXPECT_EQ(problemsOfOption("admission.allow", "\xc0\xcb").size(), 1U);
  EXPECT_EQ(problemsOfOption("queue.spool_directory", "/\xff").size(), 1U);
  EXPECT_EQ(problemsOfOption("admission.deny", "a\x1b[m").size(), 1U);
}

TEST(SettingsLoaderTest, EmptiesAListByAnOption) {
  SettingsLoader loader;
  loader.readText("[admission]\nallow = [\"gw\"]\n", "f");
  loader.readOption(rowOf("admission.allow"), "");
  EXPECT_THAT(loader.problems(), IsEmpty());
  EXPECT_THAT(loader.settings().admission.allow, IsEmpty());
}

TEST(SettingsLoaderTest, WantsTlsForAnyAddressButTheLoopback) {
  EXPECT_THAT(problemsOf("[http]\nlisten = [\"127.0.0.1:1\", \"[::1]:1\"]\n"), IsEmpty());
  const std::string reason =
      "without TLS only loopback addresses are allowed: set http.certificate and http.key";
  EXPECT_THAT(problemsOf("[http]\nlisten = [\"127.0.0.1:1\", \"0.0.0.0:1\"]\n"),
              ElementsAre("f.toml:2: http.listen: " + reason));
  EXPECT_THAT(problemsOfOption("http.listen", "192.0.2.1:80"),
              ElementsAre("--http-listen: " + reason));
  EXPECT_THAT(problemsOf("[http]\nlisten=[\"[::]:1\"]\ncertificate=\"/c\"\nkey=\"/k\"\n"),
              IsEmpty());
}

TEST(SettingsLoaderTest, WantsACertificateAndItsKey) {
  EXPECT_THAT(
      problemsOf("[http]\ncertificate = \"/c\"\n"),
      ElementsAre("f.toml:2: http.certificate: TLS needs both http.certificate and http.key"));
  EXPECT_THAT(problemsOf("[http]\nkey = \"/k\"\n"),
              ElementsAre("f.toml:2: http.key: TLS needs both http.certificate and http.key"));
  EXPECT_THAT(
      problemsOf("[http]\nclient_ca = \"/a\"\n"),
      ElementsAre(
          "f.toml:2: http.client_ca: certificates of clients need TLS: set http.certificate"));
}

TEST(SettingsLoaderTest, ReadsAFileOfTheFileSystem) {
  const zell::test::TempDir directory;
  const std::string path = directory.path() + "/f.toml";
  std::ofstream(path) << "[queue]\nlength = 3\n";
  SettingsLoader loader;
  loader.readFile(path);
  EXPECT_THAT(loader.problems(), IsEmpty());
  EXPECT_EQ(loader.settings().queue.length, 3U);
}

TEST(SettingsLoaderTest, TellsWhyAFileCannotBeRead) {
  const zell::test::TempDir directory;
  SettingsLoader loader;
  loader.readFile(directory.path() + "/missing");
  loader.readFile(directory.path());
  std::ofstream(directory.path() + "/large") << std::string(1048577, '#');
  loader.readFile(directory.path() + "/large");
  EXPECT_THAT(loader.problems(),
              ElementsAre(directory.path() + "/missing: No such file or directory",
                          directory.path() + ": Is a directory",
                          directory.path() + "/large: the file is larger than 1 MiB"));
}

}  // namespace
}  // namespace runelgw
