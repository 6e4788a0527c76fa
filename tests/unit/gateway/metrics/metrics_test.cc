// SPDX-License-Identifier: Apache-2.0
#include "gateway/metrics/metrics.h"

#include <chrono>
#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include <gtest/gtest.h>
#include <runel/request.h>
#include <sys/wait.h>

#include "fakes/gateway/fake_router.h"
#include "gateway/metrics/metered_router.h"
#include "protocol/task_table.h"
#include "support/temp_dir.h"

namespace runelgw {
namespace {

bool hasLine(const std::string& text, const std::string& line) {
  return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
}

// A text with each family and each label.
std::string fullText() {
  Metrics metrics;
  for (const zell::TaskTraits& task : zell::kTasks) {
    for (const Outcome outcome : {Outcome::answered, Outcome::notRun, Outcome::unknown}) {
      metrics.requestEnded(task.name, outcome, Reason::lost, 0.001);
    }
  }
  metrics.httpEnded("listDevices", 200, 0.01);
  return metrics.text(Figures());
}

TEST(MetricsTest, CountsRequestsByTaskAndOutcomeWithUnknownApart) {
  Metrics metrics;
  metrics.requestEnded("exec", Outcome::answered, Reason::none, 0.2);
  metrics.requestEnded("exec", Outcome::answered, Reason::none, 0.2);
  metrics.requestEnded("exec", Outcome::unknown, Reason::lost, 3);
  metrics.requestEnded("read", Outcome::notRun, Reason::busy, 0);
  const std::string text = metrics.text(Figures());
  EXPECT_TRUE(hasLine(text, R"(runelgw_requests_total{outcome="answered",task="exec"} 2)"));
  EXPECT_TRUE(hasLine(text, R"(runelgw_requests_total{outcome="unknown",task="exec"} 1)"));
  EXPECT_TRUE(hasLine(text, R"(runelgw_requests_total{outcome="not-run",task="read"} 1)"));
  EXPECT_TRUE(hasLine(text, R"(runelgw_requests_failed_total{outcome="not-run",reason="busy"} 1)"));
  EXPECT_TRUE(hasLine(text, R"(runelgw_request_seconds_count{task="exec"} 2)"));
  EXPECT_TRUE(hasLine(text, R"(runelgw_request_seconds_bucket{task="exec",le="0.1"} 0)"));
  EXPECT_TRUE(hasLine(text, R"(runelgw_request_seconds_bucket{task="exec",le="0.25"} 2)"));
  EXPECT_EQ(text.find(R"(runelgw_request_seconds_count{task="read"})"), std::string::npos);
}

TEST(MetricsTest, ATaskOfAClientIsNoLabel) {
  Metrics metrics;
  for (const char* task : {"", "x\"} 1\nfake 2", "EXEC", "secret-name"}) {
    metrics.requestEnded(task, Outcome::answered, Reason::none, 0.2);
  }
  const std::string text = metrics.text(Figures());
  EXPECT_TRUE(hasLine(text, R"(runelgw_requests_total{outcome="answered",task="other"} 4)"));
  EXPECT_EQ(text.find("secret-name"), std::string::npos);
  EXPECT_EQ(text.find("fake"), std::string::npos);
}

TEST(MetricsTest, ShowsTheFiguresOfOtherParts) {
  Figures figures;
  figures.online = 3;
  figures.quarantined = 1;
  figures.unidentified = 12;
  figures.bytesToDevices = 123456789012ULL;
  figures.commitSeconds = 1.5;
  figures.databaseConnected = true;
  figures.lastCommit = 1700000000500;
  const std::string text = Metrics().text(figures);
  EXPECT_TRUE(hasLine(text, R"(runelgw_devices{state="online"} 3)"));
  EXPECT_TRUE(hasLine(text, R"(runelgw_devices{state="offline"} 0)"));
  EXPECT_TRUE(hasLine(text, R"(runelgw_devices{state="quarantined"} 1)"));
  EXPECT_TRUE(hasLine(text, "runelgw_identification_queue 12"));
  EXPECT_TRUE(hasLine(text, R"(runelgw_device_bytes_total{direction="sent"} 123456789012)"));
  EXPECT_TRUE(hasLine(text, R"(runelgw_database_seconds_total{work="commit"} 1.5)"));
  EXPECT_TRUE(hasLine(text, "runelgw_database_up 1"));
  EXPECT_TRUE(hasLine(text, "runelgw_database_last_commit_timestamp_seconds 1700000000.5"));
}

TEST(MetricsTest, CountsHttpRequestsByOperation) {
  Metrics metrics;
  metrics.httpEnded("listDevices", 200, 0.001);
  metrics.httpEnded("listDevices", 403, 0.001);
  const std::string text = metrics.text(Figures());
  EXPECT_TRUE(
      hasLine(text, R"(runelgw_http_requests_total{operation="listDevices",status="200"} 1)"));
  EXPECT_TRUE(
      hasLine(text, R"(runelgw_http_requests_total{operation="listDevices",status="403"} 1)"));
  EXPECT_TRUE(hasLine(text, R"(runelgw_http_request_seconds_count{operation="listDevices"} 2)"));
}

TEST(MetricsTest, OnlyKnownLabelsExist) {
  const std::set<std::string> allowed = {"task",      "outcome", "reason",   "state",
                                         "use",       "status",  "work",     "le",
                                         "direction", "version", "operation"};
  std::istringstream lines(fullText());
  std::size_t labels = 0;
  for (std::string line; std::getline(lines, line);) {
    for (std::size_t at = line.find('{'); at != std::string::npos && line[0] != '#';) {
      const std::size_t equals = line.find('=', at);
      if (equals == std::string::npos) {
        break;
      }
      EXPECT_TRUE(allowed.count(line.substr(at + 1, equals - at - 1))) << line;
      ++labels;
      at = line.find("\",", equals);
      at = at == std::string::npos ? at : at + 1;
    }
  }
  EXPECT_GT(labels, 100U);
}

TEST(MetricsTest, ShowsThisProcess) {
  const std::string text = Metrics().text(Figures());
  const auto valueOf = [&](const std::string& name) {
    const std::size_t at = text.find("\n" + name + " ");
    return at == std::string::npos ? -1.0 : std::stod(text.substr(at + name.size() + 2));
  };
  EXPECT_GT(valueOf("process_resident_memory_bytes"), 1e6);
  EXPECT_GE(valueOf("process_open_fds"), 3);
  EXPECT_GE(valueOf("process_max_fds"), valueOf("process_open_fds"));
  EXPECT_GE(valueOf("process_cpu_seconds_total"), 0);
}

// The exit status of promtool for @p text.
int lint(const std::string& text) {
  const zell::test::TempDir directory;
  const std::string file = directory.path() + "/metrics";
  std::ofstream(file) << text;
  const int status =
      std::system((RUNELGW_PROMTOOL " check metrics < " + file + " >&2").c_str());  // NOLINT
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(MetricsTest, PromtoolFindsNothing) {
  EXPECT_EQ(lint(fullText()), 0);
}

TEST(MetricsTest, PromtoolWouldFindSomething) {
  EXPECT_NE(lint(fullText() + "# TYPE wrong_counter counter\nwrong_counter 1\n"), 0);
}

TEST(MeteredRouterTest, CountsWhatAnotherRouterAnswers) {
  FakeRouter inner;
  Metrics metrics;
  runel::Clock::time_point now;
  MeteredRouter router(inner, metrics, [&] { return now; });
  std::string told;
  Call call;
  call.request = Payload(runel::Request({"fileexists", "/etc/hosts"}).encode());
  router.send(call, [&](Answer answer) { told = answer.text; });
  now += std::chrono::milliseconds(30);
  inner.answer({Outcome::answered, Reason::none, "told", {}});
  EXPECT_EQ(told, "told");
  call.request = Payload(std::string("SlaveTask 1 7:private 0 0: 0 0 0 0 0"));
  router.send(call, [&](Answer answer) { told = answer.text; });
  inner.answer({Outcome::notRun, Reason::offline, "away", {}});
  EXPECT_EQ(told, "away");
  const std::string text = metrics.text(Figures());
  EXPECT_TRUE(hasLine(text, R"(runelgw_requests_total{outcome="answered",task="fileexists"} 1)"));
  EXPECT_TRUE(hasLine(text, R"(runelgw_requests_total{outcome="not-run",task="other"} 1)"));
  EXPECT_TRUE(hasLine(text, R"(runelgw_request_seconds_bucket{task="fileexists",le="0.025"} 0)"));
  EXPECT_TRUE(hasLine(text, R"(runelgw_request_seconds_bucket{task="fileexists",le="0.05"} 1)"));
}

}  // namespace
}  // namespace runelgw
