// SPDX-License-Identifier: Apache-2.0
// Where the inventory is read from.
#include "inventory/inventory_file.h"

#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/temp_dir.h"
#include "unit/runelctl/variable.h"

namespace runelctl {
namespace {

using test::Variable;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::StartsWith;
using zell::test::TempDir;

class InventoryFileTest : public ::testing::Test {
 protected:
  std::string write(const std::string& name, const std::string& text) {
    const std::string path = dir_.file(name);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    return dir_.write(name, text);
  }

  TempDir dir_;
  Variable config_{"XDG_CONFIG_HOME", dir_.file("config")};
  Variable home_{"HOME", dir_.file("home")};
};

TEST_F(InventoryFileTest, TheUsersFileIsBeforeTheOneOfTheSystem) {
  EXPECT_THAT(inventoryPlaces(),
              ElementsAre(dir_.file("config/runelctl/devices.toml"), "/etc/runelctl/devices.toml"));
  const Variable none("XDG_CONFIG_HOME", "");
  EXPECT_EQ(inventoryPlaces()[0], dir_.file("home/.config/runelctl/devices.toml"));
  const Variable relative("XDG_CONFIG_HOME", "relative");
  EXPECT_EQ(inventoryPlaces()[0], dir_.file("home/.config/runelctl/devices.toml"));
}

TEST_F(InventoryFileTest, TheFirstExistingFileIsRead) {
  const std::string path = write("config/runelctl/devices.toml", "[devices]\nhall = \"h\"\n");
  InventoryFile file("");
  ASSERT_TRUE(file.load().ok());
  EXPECT_EQ(file.path(), path);
  EXPECT_NE(file.inventory()->device("hall"), nullptr);
}

TEST_F(InventoryFileTest, WithoutAFileThereIsNoInventory) {
  InventoryFile file("");
  ASSERT_TRUE(file.load().ok());
  EXPECT_EQ(file.inventory(), nullptr);
  EXPECT_EQ(file.path(), "");
  EXPECT_THAT(noInventoryText(), EndsWith("devices.toml or /etc/runelctl/devices.toml"));
}

TEST_F(InventoryFileTest, AGivenFileMustBeReadable) {
  EXPECT_EQ(loadInventory(dir_.file("none")).error().number(), ENOENT);
  EXPECT_EQ(loadInventory(dir_.file("")).error().number(), EISDIR);
  write("config/runelctl/devices.toml/x", "");
  EXPECT_EQ(loadInventory("").error().number(), EISDIR)
      << "the user's own file must be readable too";
}

TEST_F(InventoryFileTest, AProblemNamesFileAndLine) {
  const std::string path = write("list", "[devices]\na = 1\nb = 2\n");
  const auto loaded = loadInventory(path);
  ASSERT_FALSE(loaded.ok());
  EXPECT_THAT(loaded.error().text(), StartsWith(path + ":2: device a: "));
  EXPECT_THAT(loaded.error().text(), EndsWith("(1 more: runelctl inventory check)"));
}

TEST_F(InventoryFileTest, LimitsItsSize) {
  const std::string path = write("list", std::string(kLongestInventory + 1, '#'));
  EXPECT_EQ(loadInventory(path).error().number(), EFBIG);
}

}  // namespace
}  // namespace runelctl
