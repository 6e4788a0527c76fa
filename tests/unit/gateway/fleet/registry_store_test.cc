// SPDX-License-Identifier: Apache-2.0
// The registry with a real database.
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "gateway/fleet/registry.h"
#include "gateway/store/sql_store.h"
#include "support/temp_dir.h"

namespace runelgw::test {
namespace {

// Runs the completions of the store on the test's thread.
class PostedCalls {
 public:
  void post(std::function<void()> call) {
    const std::lock_guard<std::mutex> guard(mutex_);
    calls_.push_back(std::move(call));
    changed_.notify_all();
  }
  // Runs one; false after a long time without any.
  bool runOne() {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, std::chrono::seconds(60), [this] { return !calls_.empty(); })) {
      return false;
    }
    const std::function<void()> call = std::move(calls_.front());
    calls_.pop_front();
    lock.unlock();
    call();
    return true;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::function<void()>> calls_;
};

class GatewayRegistryStore : public testing::Test {
 protected:
  GatewayRegistryStore() { open(); }

  void open() {
    registry.reset();
    store.reset();
    StoreSettings settings;
    settings.database = directory.file("fleet.db");
    store = std::make_unique<SqlStore>(
        settings, [this](std::function<void()> call) { calls.post(std::move(call)); });
    runel::Result<Snapshot> opened = store->open();
    ASSERT_TRUE(opened) << opened.error().text();
    snapshot = *std::move(opened);
    registry =
        std::make_unique<Registry>(RegistrySettings(), *store, Clocks::system(), snapshot, true);
  }
  // The error of the store, empty for none.
  std::string flush() {
    std::optional<std::string> result;
    registry->flush([&](const std::optional<std::string>& error) { result = error.value_or(""); });
    while (!result) {
      if (!calls.runOne()) {
        return "no answer of the store";
      }
    }
    return *result;
  }

  zell::test::TempDir directory;
  PostedCalls calls;
  std::unique_ptr<SqlStore> store;
  Snapshot snapshot;
  std::unique_ptr<Registry> registry;
};

TEST_F(GatewayRegistryStore, TheDatabaseReturnsWhatTheRegistryWrites) {
  for (int byte = 0; byte < 256; ++byte) {
    registry->connected({"10.0.0." + std::to_string(byte), 1000, ""},
                        std::string("x") + static_cast<char>(byte), "controller");
  }
  ASSERT_TRUE(registry->setTag(1, "site", "K\xc3\xb6ln"));
  ASSERT_TRUE(registry->setRule({"r", "site=K*", "country", "de"}));
  ASSERT_TRUE(registry->setGroup("b", "country=de"));
  ASSERT_TRUE(registry->setGroup("a", "@b"));
  ASSERT_TRUE(registry->setAccess({"hostid", std::string("b\0d", 3), false, 0, ""}));
  ASSERT_TRUE(registry->deny(7));
  registry->learn(1, {std::nullopt, "5.10.0\xff", ~std::uint64_t{0} >> 1});
  registry->lost({"10.0.0.1", 1000, ""}, "closed");
  ASSERT_TRUE(registry->forget(2));
  ASSERT_EQ("", flush());
  std::vector<Device> before;
  for (const Device* const device : registry->select(*Query::parse("@all"))) {
    before.push_back(*device);
  }

  open();
  ASSERT_EQ(255u, registry->size());
  for (const Device& device : before) {
    const Device* const after = registry->find(device.id);
    ASSERT_NE(nullptr, after) << device.name;
    EXPECT_EQ(device.hostid, after->hostid);
    EXPECT_EQ(device.name, after->name);
    EXPECT_EQ(device.pinAddress, after->pinAddress);
    EXPECT_EQ(device.firstSeen, after->firstSeen);
    EXPECT_EQ(device.kernel, after->kernel);
    EXPECT_EQ(device.freeBytes, after->freeBytes);
    EXPECT_EQ(device.tags, after->tags);
    EXPECT_EQ(device.ruleTags, after->ruleTags);
  }
  EXPECT_EQ(1u, registry->select(*Query::parse("@a")).size());
  EXPECT_EQ(1u, registry->select(*Query::parse("state:denied")).size());
  EXPECT_EQ(std::string("b\0d", 3), registry->accessEntries().at(0).value);
  registry->connected({"10.0.0.1", 1000, ""}, std::string("x\x01"), "controller");
  EXPECT_EQ(257u, registry->select(*Query::parse("address:10.0.0.1")).at(0)->id);  // a new number
}

TEST_F(GatewayRegistryStore, AForgottenDeviceLeavesNothing) {
  registry->connected({"10.0.0.1", 1000, ""}, "gw-1", "controller");
  ASSERT_TRUE(registry->setTag(1, "a", "b"));
  registry->lost({"10.0.0.1", 1000, ""}, "closed");
  ASSERT_TRUE(registry->forget(1));
  ASSERT_EQ("", flush());
  registry->connected({"10.0.0.1", 1000, ""}, "gw-1", "controller");
  ASSERT_TRUE(registry->setTag(2, "a", "b"));
  ASSERT_EQ("", flush());
  registry->lost({"10.0.0.1", 1000, ""}, "closed");
  ASSERT_TRUE(registry->forget(2));
  EXPECT_FALSE(registry->removeTag(2, "a"));
  ASSERT_EQ("", flush());
  open();
  EXPECT_EQ(0u, registry->size());
  EXPECT_TRUE(snapshot.tags.empty());
  EXPECT_EQ(3u, snapshot.nextDevice);
}

}  // namespace
}  // namespace runelgw::test
