// SPDX-License-Identifier: Apache-2.0
// The states, texts and performance data of a probe.
#include "probe/assessment.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace runelctl {
namespace {

Facts upDevice(const std::string& name = "gw-3") {
  Facts facts;
  facts.device = name;
  facts.roundTrip = 0.00123;
  facts.uptime = 350735.47;
  facts.restartAge = 7300;
  facts.free = {{"/", 1048576}};
  facts.version = "1.0.0";
  return facts;
}

Facts downDevice(const std::string& name = "gw-4") {
  Facts facts;
  facts.device = name;
  facts.failure = Error(Fault::unreachable, "Connection refused", "check it");
  return facts;
}

std::string lineOf(const Facts& facts, const Thresholds& thresholds = Thresholds()) {
  return headlineOf({facts}, {assess(facts, thresholds)}).line();
}

ProbeState stateOf(const Facts& facts, const Thresholds& thresholds) {
  return assess(facts, thresholds).state;
}

TEST(ProbeAssessmentTest, ADeviceWithAllFacts) {
  EXPECT_EQ(
      lineOf(upDevice()),
      "RUNEL OK - gw-3 up, round trip 1.2 ms, uptime 4 days, free on / 1.0 MiB, version 1.0.0, "
      "daemon started 2 h ago | 'up'=1;;;0;1 'rtt'=0.001230s;1;5;0; 'uptime'=350735.47s;;;0; "
      "'free_/'=1048576B;;;0; 'restart_age'=7300.00s;;;0;");
}

TEST(ProbeAssessmentTest, MissingFactsAreLeftOut) {
  Facts facts;
  facts.device = "gw-3";
  facts.free = {{"/data", std::nullopt, "No such file or directory"}};
  EXPECT_EQ(lineOf(facts), "RUNEL OK - gw-3 up | 'up'=1;;;0;1");
}

TEST(ProbeAssessmentTest, ADeviceThatIsDown) {
  EXPECT_EQ(lineOf(downDevice()),
            "RUNEL CRITICAL - gw-4 down: Connection refused (check it) | 'up'=0;;;0;1");
}

TEST(ProbeAssessmentTest, AFailureOfThisHostIsUnknown) {
  Facts facts = downDevice();
  facts.failure = Error(Fault::local, "no master");
  facts.undecided = true;
  EXPECT_EQ(lineOf(facts), "RUNEL UNKNOWN - gw-4 not reached: no master | 'up'=0;;;0;1");
}

TEST(ProbeAssessmentTest, ALongRoundTripIsReported) {
  Thresholds thresholds;
  Facts facts = upDevice();
  facts.roundTrip = 1;
  EXPECT_EQ(stateOf(facts, thresholds), ProbeState::ok);
  facts.roundTrip = 1.5;
  EXPECT_EQ(stateOf(facts, thresholds), ProbeState::warning);
  EXPECT_NE(lineOf(facts).find("gw-3 up, round trip 1.50 s (WARNING: above 1 s), uptime"),
            std::string::npos);
  facts.roundTrip = 5.01;
  EXPECT_EQ(stateOf(facts, thresholds), ProbeState::critical);
  EXPECT_NE(lineOf(facts).find("round trip 5.01 s (CRITICAL: above 5 s)"), std::string::npos);
  thresholds.roundTrip = {0.25, std::nullopt};
  EXPECT_EQ(stateOf(facts, thresholds), ProbeState::warning);
  EXPECT_NE(lineOf(facts, thresholds).find("'rtt'=5.010000s;0.25;;0; "), std::string::npos);
}

TEST(ProbeAssessmentTest, LittleFreeSpaceIsReported) {
  Thresholds thresholds;
  thresholds.free = {2097152, 1048576};
  EXPECT_EQ(stateOf(upDevice(), thresholds), ProbeState::warning);
  EXPECT_NE(lineOf(upDevice(), thresholds).find("free on / 1.0 MiB (WARNING: below 2.0 MiB)"),
            std::string::npos);
  EXPECT_NE(lineOf(upDevice(), thresholds).find("'free_/'=1048576B;2097152:;1048576:;0; "),
            std::string::npos);
  Facts facts = upDevice();
  facts.free = {{"/", 2097152}, {"/data", 1048575}};
  EXPECT_EQ(stateOf(facts, thresholds), ProbeState::critical);
  EXPECT_NE(lineOf(facts, thresholds)
                .find("free on / 2.0 MiB, free on /data 1024 KiB (CRITICAL: below 1.0 MiB)"),
            std::string::npos)
      << lineOf(facts, thresholds);
  facts.free = {{"/", 2097152}};
  EXPECT_EQ(stateOf(facts, thresholds), ProbeState::ok);
}

TEST(ProbeAssessmentTest, ARecentRestartIsReported) {
  Thresholds thresholds;
  thresholds.restart = {7301, 300};
  EXPECT_NE(lineOf(upDevice(), thresholds).find("daemon started 2 h ago (WARNING: below 7301 s) |"),
            std::string::npos);
  EXPECT_NE(lineOf(upDevice(), thresholds).find("'restart_age'=7300.00s;7301:;300:;0;"),
            std::string::npos);
  thresholds.restart = {7300, 300};
  EXPECT_EQ(stateOf(upDevice(), thresholds), ProbeState::ok);
  Facts facts = upDevice();
  facts.restartAge = 299;
  EXPECT_EQ(stateOf(facts, thresholds), ProbeState::critical);
}

TEST(ProbeAssessmentTest, AMissingFactWithAThresholdIsUnknown) {
  Facts facts = upDevice();
  facts.free = {{"/data", std::nullopt, "No such file or directory"}};
  facts.restartAge.reset();
  Thresholds thresholds;
  thresholds.free.warning = 1;
  EXPECT_EQ(stateOf(facts, thresholds), ProbeState::unknown);
  EXPECT_NE(lineOf(facts, thresholds).find("free on /data unknown: No such file or directory"),
            std::string::npos);
  thresholds = Thresholds();
  thresholds.restart.critical = 1;
  EXPECT_EQ(stateOf(facts, thresholds), ProbeState::unknown);
  EXPECT_NE(lineOf(facts, thresholds).find("last restart unknown"), std::string::npos);
}

TEST(ProbeAssessmentTest, CriticalIsWorseThanUnknownAndThatWorseThanAWarning) {
  const std::vector<ProbeState> order = {ProbeState::ok, ProbeState::warning, ProbeState::unknown,
                                         ProbeState::critical};
  for (std::size_t one = 0; one < order.size(); ++one) {
    for (std::size_t other = 0; other < order.size(); ++other) {
      EXPECT_EQ(worse(order[one], order[other]), order[std::max(one, other)]);
    }
  }
}

TEST(ProbeAssessmentTest, TheTextsOfTimesHaveAFittingUnit) {
  Facts facts = upDevice();
  const auto shown = [&](double seconds, const std::string& text) {
    facts.restartAge = seconds;
    return lineOf(facts).find("daemon started " + text + " ago") != std::string::npos;
  };
  EXPECT_TRUE(shown(0.99, "0 s"));
  EXPECT_TRUE(shown(119.9, "119 s"));
  EXPECT_TRUE(shown(120, "2 min"));
  EXPECT_TRUE(shown(7199, "119 min"));
  EXPECT_TRUE(shown(7200, "2 h"));
  EXPECT_TRUE(shown(172799, "47 h"));
  EXPECT_TRUE(shown(172800, "2 days"));
  facts.roundTrip = 0.0000412;
  EXPECT_NE(lineOf(facts).find("round trip 0.04 ms,"), std::string::npos);
}

// A vertical bar would begin the performance data, a line end would end the output.
TEST(ProbeAssessmentTest, NamesCannotEndTheText) {
  Facts facts = upDevice("a|b\nc");
  facts.free = {{"/it's a=b|c\n", 1}};
  const std::string line = lineOf(facts);
  EXPECT_EQ(line.find("RUNEL OK - a\\x7cb\\nc up"), 0U) << line;
  EXPECT_EQ(line.find('|'), line.rfind('|'));
  EXPECT_EQ(line.find('\n'), std::string::npos);
  EXPECT_NE(line.find("'free_/it''s a_b\\x7cc\\n'=1B;;;0;"), std::string::npos) << line;
  Facts down = downDevice();
  down.failure = Error(Fault::unreachable, "x|\ny", "z|");
  EXPECT_EQ(lineOf(down), "RUNEL CRITICAL - gw-4 down: x\\x7c\\ny (z\\x7c) | 'up'=0;;;0;1");
}

TEST(ProbeAssessmentTest, SeveralDevicesHaveASummary) {
  Thresholds thresholds;
  thresholds.restart.warning = 7300.5;
  Facts old = upDevice("gw-9");
  old.restartAge = 9000;
  const std::vector<Facts> facts = {upDevice("gw-1"), upDevice("gw-2"), upDevice("gw-3"), old,
                                    downDevice("gw-4")};
  std::vector<Assessment> assessments;
  for (const Facts& one : facts) {
    assessments.push_back(assess(one, thresholds));
  }
  EXPECT_EQ(headlineOf(facts, assessments).line(),
            "RUNEL CRITICAL - 5 devices: 1 CRITICAL (gw-4), 3 WARNING (gw-[1-3]), 1 OK | "
            "'up'=4;;;0;5");
  EXPECT_EQ(detailLine(facts[4], assessments[4]),
            "gw-4: CRITICAL - down: Connection refused (check it)");
}

TEST(ProbeAssessmentTest, TheSummaryOfDevicesThatAreFineIsOk) {
  const std::vector<Facts> facts = {upDevice("gw-1"), upDevice("gw-2")};
  EXPECT_EQ(headlineOf(facts, {assess(facts[0], {}), assess(facts[1], {})}).line(),
            "RUNEL OK - 2 devices: 2 OK | 'up'=2;;;0;2");
}

TEST(ProbeAssessmentTest, ALineWithoutPerformanceDataHasNoBar) {
  EXPECT_EQ((Headline{ProbeState::unknown, "no", ""}.line()), "RUNEL UNKNOWN - no");
}

}  // namespace
}  // namespace runelctl
