// SPDX-License-Identifier: Apache-2.0
#include "gateway/fleet/start_record.h"

#include <fstream>
#include <sstream>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace {

using runelgw::StartRecord;

class GatewayStartRecord : public testing::Test {
 protected:
  GatewayStartRecord() { put(boot(), "boot-1\n"); }

  static void put(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::trunc) << content;
  }
  [[nodiscard]] std::string path() const { return directory_.path() + "/ended"; }
  [[nodiscard]] std::string boot() const { return directory_.path() + "/boot_id"; }
  [[nodiscard]] StartRecord record() const { return StartRecord(path(), boot()); }

  zell::test::TempDir directory_;
};

TEST_F(GatewayStartRecord, AnOrderlyEndIsTakenOnce) {
  EXPECT_FALSE(record().takeOrderlyEnd());
  ASSERT_TRUE(record().noteOrderlyEnd());
  EXPECT_TRUE(record().takeOrderlyEnd());
  EXPECT_FALSE(record().takeOrderlyEnd());
  EXPECT_NE(0, access(path().c_str(), F_OK));
}

TEST_F(GatewayStartRecord, ItHoldsOnlyInTheSameBoot) {
  ASSERT_TRUE(record().noteOrderlyEnd());
  put(boot(), "boot-2\n");
  EXPECT_FALSE(record().takeOrderlyEnd());
  put(boot(), "boot-1\n");
  EXPECT_FALSE(record().takeOrderlyEnd());  // it was taken
}

TEST_F(GatewayStartRecord, WithoutABootIdNothingIsKnown) {
  ASSERT_TRUE(record().noteOrderlyEnd());
  ASSERT_EQ(0, unlink(boot().c_str()));
  EXPECT_FALSE(record().takeOrderlyEnd());
  EXPECT_FALSE(record().noteOrderlyEnd());
  put(path(), "ended in boot ");
  EXPECT_FALSE(record().takeOrderlyEnd());
}

TEST_F(GatewayStartRecord, OtherContentsAreNoOrderlyEnd) {
  for (const char* content : {"", "boot-1\n", "ended in boot boot-1", "ended in boot boot-1\nx"}) {
    put(path(), content);
    EXPECT_FALSE(record().takeOrderlyEnd()) << content;
  }
}

TEST_F(GatewayStartRecord, ARecordThatCannotBeRemovedDoesNotCount) {
  ASSERT_EQ(0, mkdir(path().c_str(), 0755));  // unlink() fails for a directory
  EXPECT_FALSE(record().takeOrderlyEnd());
  EXPECT_FALSE(record().noteOrderlyEnd());
  EXPECT_NE(0, access((path() + ".new").c_str(), F_OK));
}

TEST_F(GatewayStartRecord, AMissingDirectoryIsAnErrorWithThePath) {
  const StartRecord record(directory_.path() + "/gone/ended", boot());
  const auto noted = record.noteOrderlyEnd();
  ASSERT_FALSE(noted);
  EXPECT_NE(std::string::npos, noted.error().text().find("/gone/ended"));
}

TEST_F(GatewayStartRecord, KnowsTheBootOfTheSystem) {
  const StartRecord record(path());
  ASSERT_TRUE(record.noteOrderlyEnd());
  EXPECT_TRUE(record.takeOrderlyEnd());
}

}  // namespace
