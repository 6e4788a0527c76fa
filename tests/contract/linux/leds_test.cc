// SPDX-License-Identifier: Apache-2.0
// The LEDs, and the controller that blinks them, with simulated time.
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include <zell/led_control.h>

#include "contract/linux/led_directories.h"
#include "contract/linux/proxy_test.h"
#include "fakes/system/fake_system.h"

namespace zell::test {
namespace {

using std::chrono::milliseconds;

const char* const kDark = "0 0";
const char* const kLit = "255 255";

class LedsTest : public ProxyTest {
 protected:
  LedsTest() {
    FakeSystem::instance().reset();
    leds().initialize(&proxy_);
    (void)proxy_.changeLeds(false, false);  // stops a blink of the previous test
  }

  static LedControl& leds() { return LedControl::instance(); }

  /// The brightness of the LEDs after one loop pass @p time later.
  static std::string after(milliseconds time) {
    FakeSystem::instance().now += time;
    leds().poll();
    return LedDirectories::shown();
  }

  std::string change(bool first, bool second) {
    (void)proxy_.changeLeds(first, second);
    return fields(proxy_);
  }

  LedDirectories directories_;
};

TEST_F(LedsTest, AreSwitchedOneByOne) {
  EXPECT_EQ(change(true, false), kSuccess);
  EXPECT_EQ(LedDirectories::shown(), "255 0");
  EXPECT_EQ(change(false, true), kSuccess);
  EXPECT_EQ(LedDirectories::shown(), "0 255");
  EXPECT_EQ(change(true, true), kSuccess);
  EXPECT_EQ(LedDirectories::shown(), kLit);
}

TEST_F(LedsTest, ShineWithTheirMaximumBrightness) {
  std::ofstream(LedDirectories::first("max_brightness")) << "7\n";
  std::filesystem::remove(LedDirectories::second("max_brightness"));
  EXPECT_EQ(change(true, true), kSuccess);
  EXPECT_EQ(LedDirectories::shown(), "7 1");
}

TEST_F(LedsTest, ShineWithBrightnessOneWhenTheMaximumIsMalformed) {
  std::ofstream(LedDirectories::first("max_brightness")) << "";
  std::ofstream(LedDirectories::second("max_brightness")) << "much";
  EXPECT_EQ(change(true, true), kSuccess);
  EXPECT_EQ(LedDirectories::shown(), "1 1");
}

TEST_F(LedsTest, AreDetachedFromTheirTrigger) {
  std::ofstream(LedDirectories::first("trigger")) << "[heartbeat] none";
  EXPECT_EQ(change(true, true), kSuccess);
  EXPECT_EQ(contentOf(LedDirectories::first("trigger")), "none");
  EXPECT_FALSE(std::filesystem::exists(LedDirectories::second("trigger")));
}

TEST_F(LedsTest, AreBothTriedAndTheFirstErrorIsReported) {
  std::filesystem::remove_all(LedDirectories::first(""));
  EXPECT_EQ(change(true, true), failureWith(ENOENT));
  EXPECT_EQ(contentOf(LedDirectories::second("brightness")), "255");
  std::filesystem::remove(LedDirectories::second("brightness"));
  std::filesystem::create_directory(LedDirectories::second("brightness"));
  EXPECT_EQ(change(true, true), failureWith(ENOENT));
}

TEST_F(LedsTest, ReportTheErrorOfTheSecond) {
  std::filesystem::remove(LedDirectories::second("brightness"));
  std::filesystem::create_directory(LedDirectories::second("brightness"));
  EXPECT_EQ(change(true, true), failureWith(EISDIR));
  EXPECT_EQ(contentOf(LedDirectories::first("brightness")), "255");
}

TEST_F(LedsTest, ReportTheErrorOfATrigger) {
  std::filesystem::create_directory(LedDirectories::first("trigger"));
  EXPECT_EQ(change(true, true), failureWith(EISDIR));
}

TEST_F(LedsTest, BlinkSlowly) {
  EXPECT_TRUE(leds().blinkLeds(LedStyle::slow));
  EXPECT_EQ(LedDirectories::shown(), kLit);
  EXPECT_EQ(after(milliseconds(499)), kLit);
  EXPECT_EQ(after(milliseconds(1)), kDark);
  EXPECT_EQ(after(milliseconds(499)), kDark);
  EXPECT_EQ(after(milliseconds(1)), kLit);
}

TEST_F(LedsTest, BlinkFast) {
  EXPECT_TRUE(leds().blinkLeds(LedStyle::fast));
  EXPECT_EQ(LedDirectories::shown(), kLit);
  EXPECT_EQ(after(milliseconds(124)), kLit);
  EXPECT_EQ(after(milliseconds(1)), kDark);
  EXPECT_EQ(after(milliseconds(124)), kDark);
  EXPECT_EQ(after(milliseconds(1)), kLit);
}

TEST_F(LedsTest, BlinkInTurn) {
  EXPECT_TRUE(leds().blinkLeds(LedStyle::alternate));
  EXPECT_EQ(LedDirectories::shown(), "255 0");
  EXPECT_EQ(after(milliseconds(499)), "255 0");
  EXPECT_EQ(after(milliseconds(1)), "0 255");
  EXPECT_EQ(after(milliseconds(500)), "255 0");
}

TEST_F(LedsTest, StayOnOrOffWithASteadyStyle) {
  EXPECT_TRUE(leds().blinkLeds(LedStyle::on));
  EXPECT_EQ(LedDirectories::shown(), kLit);
  EXPECT_EQ(after(std::chrono::hours(1)), kLit);
  EXPECT_TRUE(leds().blinkLeds(LedStyle::off));
  EXPECT_EQ(LedDirectories::shown(), kDark);
  EXPECT_EQ(after(std::chrono::hours(1)), kDark);
}

TEST_F(LedsTest, KeepTheirRhythmWhenTheLoopIsALittleLate) {
  EXPECT_TRUE(leds().blinkLeds(LedStyle::slow));
  EXPECT_EQ(after(milliseconds(590)), kDark);
  EXPECT_EQ(after(milliseconds(410)), kLit);
}

TEST_F(LedsTest, SkipThePhasesDuringALongTask) {
  EXPECT_TRUE(leds().blinkLeds(LedStyle::slow));
  EXPECT_EQ(after(milliseconds(10200)), kDark);
  EXPECT_EQ(after(milliseconds(0)), kDark);
  EXPECT_EQ(after(milliseconds(299)), kDark);
  EXPECT_EQ(after(milliseconds(1)), kLit);
  EXPECT_EQ(after(milliseconds(0)), kLit);
}

TEST_F(LedsTest, AreNotWrittenBetweenTwoPhases) {
  EXPECT_TRUE(leds().blinkLeds(LedStyle::slow));
  std::ofstream(LedDirectories::first("brightness")) << "as it was";
  EXPECT_EQ(after(milliseconds(499)), "as it was 255");
}

TEST_F(LedsTest, ContinueAfterAnUnknownStyle) {
  EXPECT_TRUE(leds().blinkLeds(LedStyle::slow));
  EXPECT_FALSE(leds().blinkLeds(LedStyle::unknown));
  EXPECT_EQ(fields(proxy_), failureWith(EINVAL));
  EXPECT_EQ(after(milliseconds(500)), kDark);
}

TEST_F(LedsTest, RestartWithANewStyle) {
  EXPECT_TRUE(leds().blinkLeds(LedStyle::slow));
  EXPECT_EQ(after(milliseconds(500)), kDark);
  EXPECT_TRUE(leds().blinkLeds(LedStyle::fast));
  EXPECT_EQ(LedDirectories::shown(), kLit);
  EXPECT_EQ(after(milliseconds(125)), kDark);
}

TEST_F(LedsTest, StopBlinkingWhenTheyAreSwitched) {
  EXPECT_TRUE(leds().blinkLeds(LedStyle::fast));
  EXPECT_EQ(change(true, false), kSuccess);
  EXPECT_EQ(after(milliseconds(125)), "255 0");
  EXPECT_EQ(after(std::chrono::seconds(5)), "255 0");
}

TEST_F(LedsTest, StopBlinkingWhenTheyAreSwitchedThroughAnotherProxy) {
  SlaveProxyLocal other;
  EXPECT_TRUE(leds().blinkLeds(LedStyle::fast));
  EXPECT_TRUE(other.changeLeds(false, true));
  EXPECT_EQ(after(milliseconds(125)), "0 255");
}

TEST_F(LedsTest, ReportAFailureToEveryProxy) {
  SlaveProxyLocal newer;
  leds().initialize(&newer);
  std::filesystem::remove_all(LedDirectories::first(""));
  EXPECT_FALSE(leds().blinkLeds(LedStyle::slow));
  EXPECT_EQ(fields(proxy_), failureWith(ENOENT));
  EXPECT_EQ(fields(newer), failureWith(ENOENT));
}

TEST_F(LedsTest, BlinkOneWhenTheOtherIsMissing) {
  std::filesystem::remove_all(LedDirectories::first(""));
  EXPECT_FALSE(leds().blinkLeds(LedStyle::slow));
  EXPECT_EQ(contentOf(LedDirectories::second("brightness")), "255");
  FakeSystem::instance().now += milliseconds(500);
  leds().poll();
  EXPECT_EQ(contentOf(LedDirectories::second("brightness")), "0");
}

TEST_F(LedsTest, DoNotChangeTheStatusWhileTheyBlink) {
  EXPECT_TRUE(leds().blinkLeds(LedStyle::fast));
  (void)proxy_.fileExists("/no/such/file");
  std::filesystem::remove_all(LedDirectories::first(""));
  FakeSystem::instance().now += milliseconds(125);
  leds().poll();
  EXPECT_EQ(fields(proxy_), failureWith(ENOENT));
  (void)proxy_.fileExists("/");
  FakeSystem::instance().now += milliseconds(125);
  leds().poll();
  EXPECT_EQ(fields(proxy_), kSuccess);
}

TEST_F(LedsTest, ContinueThroughTheNextProxyWhenTheirsIsDestroyed) {
  auto newer = std::make_unique<SlaveProxyLocal>();
  leds().initialize(newer.get());
  EXPECT_TRUE(leds().blinkLeds(LedStyle::slow));
  newer.reset();
  EXPECT_EQ(after(milliseconds(500)), kDark);
  EXPECT_EQ(after(milliseconds(500)), kLit);
}

TEST_F(LedsTest, IgnoreANullProxy) {
  leds().initialize(nullptr);
  EXPECT_TRUE(leds().blinkLeds(LedStyle::on));
  EXPECT_EQ(fields(proxy_), kSuccess);
}

TEST(LedsWithoutProxyTest, StayAsTheyAre) {
  const LedDirectories directories;
  LedControl& leds = LedControl::instance();
  FakeSystem::instance().reset();
  {
    const SlaveProxyLocal proxy;
    leds.initialize(&proxy);
    EXPECT_TRUE(leds.blinkLeds(LedStyle::slow));
  }
  FakeSystem::instance().now += milliseconds(500);
  leds.poll();
  EXPECT_EQ(LedDirectories::shown(), kLit);
  EXPECT_FALSE(leds.blinkLeds(LedStyle::off));
  EXPECT_EQ(LedDirectories::shown(), kLit);
}

}  // namespace
}  // namespace zell::test
