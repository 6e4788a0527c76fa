// SPDX-License-Identifier: Apache-2.0
// The output of a run: JSON objects, text and the progress bar.
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "fleet/line_stream.h"
#include "fleet/printer.h"
#include "output/error.h"
#include "output/report.h"
#include "output/status_line.h"
#include "support/allocation_count.h"
#include "support/spied_calls.h"

namespace runelctl {
namespace {

Style jsonStyle() {
  Style style;
  style.json = true;
  return style;
}

std::string lastLine(Report& report, const Outcome& outcome) {
  return report.lastObject(endingFields(outcome)).value().dump();
}

TEST(LastObjectTest, OfASuccessHasTheFieldsOfTheCommand) {
  const Style style = jsonStyle();
  Report report(style, openingObject("a", "push"));
  report.result()["files"] = 3;
  EXPECT_EQ(lastLine(report, {}),
            R"({"v":1,"device":"a","task":"push","ok":true,"status":0,"files":3})");
}

TEST(LastObjectTest, OfAFailureHasPlaceRetryErrorAndHint) {
  const Style style = jsonStyle();
  Report report(style, openingObject("a", "read"));
  const Error error{Fault::lost, "gone", "look", ECONNRESET};
  EXPECT_EQ(lastLine(report, {255, error}),
            R"({"v":1,"device":"a","task":"read","ok":false,"status":255,"where":"link",)"
            R"("retry":true,"error":"gone","errno":104,"hint":"look"})");
}

TEST(LastObjectTest, CarriesAnyBytes) {
  const Style style = jsonStyle();
  Report report(style, openingObject("\xfd", "rm"));
  report.warn("\xff");
  report.output("\xfc");
  const Error error{Fault::task, "\xfe", "", 0};
  EXPECT_EQ(lastLine(report, {1, error}),
            R"({"v":1,"device_base64":"/Q==","task":"rm","ok":false,"status":1,"where":"device",)"
            R"("retry":false,"error_base64":"/g==","warnings":[{"text_base64":"/w=="}],)"
            R"("output_base64":"/A=="})");
}

TEST(LastObjectTest, AnEmptyOutputIsAField) {
  const Style style = jsonStyle();
  Report report(style, openingObject("a", "exec"));
  report.output("");
  EXPECT_EQ(lastLine(report, {}),
            R"({"v":1,"device":"a","task":"exec","ok":true,"status":0,"output":""})");
}

TEST(OutcomeTest, HasAReason) {
  EXPECT_EQ(reasonOf({3}), "exit status 3");
  EXPECT_EQ(reasonOf({1, std::nullopt, "incomplete"}), "incomplete");
  EXPECT_EQ(reasonOf({255, Error(Fault::lost, "gone")}), "gone");
}

TEST(ReportTest, AddsStandardErrorToTheOutputUnlessItHasItsOwnReceiver) {
  const Style style;
  Report report(style);
  report.bytes("out ");
  report.errorBytes("err");
  EXPECT_EQ(report.collected().release(), "out err");
  std::string taken;
  report.errorStream = [&](std::string_view bytes) { taken.append(bytes); };
  report.errorBytes("apart");
  EXPECT_TRUE(report.collected().empty());
  EXPECT_EQ(taken, "apart");
}

TEST(ReportTest, HandsOnObjectsAtOnceOrKeepsThem) {
  const Style style = jsonStyle();
  Report report(style);
  report.entry([] { return Json{{"entry", "a"}}; });
  std::string taken;
  report.entryStream = [&](const std::string& line) { taken += line; };
  report.entry([] { return Json{{"entry", "b"}}; });
  EXPECT_EQ(report.collected().release(), "{\"entry\":\"a\"}\n");
  EXPECT_EQ(taken, "{\"entry\":\"b\"}\n");
}

TEST(ReportTest, TellsOfWhichOutputAPieceIs) {
  const Style style;
  Report report(style);
  std::string told;
  report.onText = [&](bool error, std::string_view bytes) {
    told.append(error ? "2:" : "1:").append(bytes).append(";");
  };
  report.bytes("a");
  report.errorBytes("b");
  EXPECT_EQ(told, "1:a;2:b;");
  EXPECT_EQ(report.collected().release(), "ab");
}

TEST(LineStreamTest, PassesOnCompleteLinesAndTheRestAtTheEnd) {
  std::vector<std::string> passed;
  LineStream lines([&](const std::string& text) { passed.push_back(text); });
  lines.add("a");
  lines.add("b\nc\nd");
  lines.add("e");
  EXPECT_EQ(passed, (std::vector<std::string>{"ab\nc\n"}));
  lines.end();
  lines.end();
  EXPECT_EQ(passed, (std::vector<std::string>{"ab\nc\n", "de"}));
}

TEST(LineStreamTest, DoesNotHoldBackALineWithoutEnd) {
  std::size_t passed = 0;
  LineStream lines([&](const std::string& text) { passed += text.size(); });
  for (int i = 0; i < 100; ++i) {
    lines.add(std::string(10000, 'x'));
  }
  EXPECT_GT(passed, 900000U);
  lines.end();
  EXPECT_EQ(passed, 1000000U);
}

TEST(ErrorTest, EachFaultHasAPlaceAndIsTransientOrNot) {
  const struct {
    Fault fault;
    const char* where;
    bool retry;
  } kAll[] = {{Fault::unreachable, "link", true},  {Fault::lost, "link", true},
              {Fault::protocol, "link", false},    {Fault::timedOut, "link", true},
              {Fault::task, "device", false},      {Fault::program, "program", false},
              {Fault::local, "local", false},      {Fault::cancelled, "local", true},
              {Fault::timeLimit, "program", false}};
  for (const auto& each : kAll) {
    const Error error{each.fault, "", "", 0};
    EXPECT_STREQ(error.where(), each.where);
    EXPECT_EQ(error.transient, each.retry) << each.where;
  }
  const auto device = [](int number) {
    return Error(runel::Error(runel::Kind::device, runel::Cause::other, "", number));
  };
  EXPECT_TRUE(device(EBUSY).transient);
  EXPECT_FALSE(device(ENOENT).transient);
}

TEST(ErrorTest, AFailedTaskMayHaveAHint) {
  const auto hint = [](int number) {
    return Error(runel::Error(runel::Kind::device, runel::Cause::other, "", number)).hint;
  };
  EXPECT_EQ(hint(ENOSPC), "the device's file system is full: check with runelctl df");
  EXPECT_EQ(hint(EROFS), "the device's file system is mounted read-only");
  EXPECT_EQ(hint(EFBIG), "too large for one answer: use runelctl pull");
  EXPECT_EQ(hint(ENOENT), "");
}

TEST(ErrorTest, AnUnknownOutcomeIsAField) {
  const Style style = jsonStyle();
  Report report(style, openingObject("a", "reboot"));
  Error error{Fault::lost, "gone", "", 0};
  error.unknown = true;
  error.advise("one");
  error.advise("two");
  EXPECT_EQ(lastLine(report, {255, error}),
            R"({"v":1,"device":"a","task":"reboot","ok":false,"status":255,"where":"link",)"
            R"("retry":true,"outcome":"unknown","error":"gone","hint":"one; two"})");
}

TEST(ErrorTest, TellsWhatContinuesAndUntilWhen) {
  using std::chrono::seconds;
  EXPECT_EQ(continuesText({"exec", "sleep", seconds(60), seconds(20)}),
            "sleep continues on the device for up to 40 s (its limit is 60 s); "
            "the device serves no other request meanwhile");
  EXPECT_EQ(continuesText({"wait", "", seconds(0), seconds(20)}),
            "the background program continues on the device until it ends, without a limit; "
            "the device serves no other request meanwhile");
  EXPECT_EQ(secondsLeft({"exec", "sleep", seconds(60), runel::Milliseconds(59001)}), 1);
  EXPECT_EQ(secondsLeft({"exec", "sleep", seconds(60), seconds(70)}), 0);
}

TEST(ReplyTest, HasTheExitStatusOfAShell) {
  const auto status = [](runel::Status type, runel::ProgramState state, int result, int error,
                         int signal) {
    std::string record = "SlaveTask 0 0 0:";
    for (const int field :
         {static_cast<int>(type), static_cast<int>(state), result, error, signal}) {
      record += " " + std::to_string(field);
    }
    return exitStatusOf(runel::Reply::decode(record).value());
  };
  using State = runel::ProgramState;
  EXPECT_EQ(status(runel::Status::success, State::none, 0, 0, 0), 0);
  EXPECT_EQ(status(runel::Status::failure, State::exited, 42, 0, 0), 42);
  EXPECT_EQ(status(runel::Status::failure, State::signalled, -1, 0, 9), 137);
  EXPECT_EQ(status(runel::Status::timeout, State::timedOut, -1, 110, 15), 124);
  EXPECT_EQ(status(runel::Status::failure, State::none, 1, 2, 0), 1);
}

TEST(ErrorTest, AProgramsTimeLimitIsItsOwnFault) {
  const auto fault = [](runel::Cause cause) {
    return Error(runel::Error(runel::Kind::program, cause, "")).fault;
  };
  EXPECT_EQ(fault(runel::Cause::programTimeout), Fault::timeLimit);
  EXPECT_EQ(fault(runel::Cause::programFailed), Fault::program);
}

TEST(ReportTest, CollectsTextOrJsonObjects) {
  const Style text;
  const Style json = jsonStyle();
  for (const Style* style : {&text, &json}) {
    Report report(*style, openingObject("a", "ls"));
    report.line("text");
    report.entry([] { return Json{{"entry", "name"}}; });
    report.output("answer", "!");
    EXPECT_EQ(report.collected().release(),
              style->json ? "{\"v\":1,\"device\":\"a\",\"task\":\"ls\",\"entry\":\"name\"}\n"
                          : "text\nanswer!");
  }
}

TEST(ReportTest, StreamsOutputToTheHandler) {
  const Style style;
  Report report(style);
  std::string got;
  report.stream = [&](std::string_view bytes) { got += bytes; };
  report.bytes("a");
  report.output("b", "c");
  EXPECT_EQ(got, "abc");
  EXPECT_TRUE(report.collected().empty());
}

std::string barFor(const Progress& progress, std::size_t columns) {
  ProgressBar bar;
  return bar.text(progress, columns);
}

TEST(ProgressBarTest, ShowsNameBarAndPercent) {
  EXPECT_EQ(barFor({50, 100, "file"}, 80), "file [##########..........] 50%");
  EXPECT_EQ(barFor({0, 100, "file"}, 80), "file [....................] 0%");
  EXPECT_EQ(barFor({100, 100, "file"}, 80), "file [####################] 100%");
}

TEST(ProgressBarTest, OmitsPartsThatDoNotFit) {
  EXPECT_EQ(barFor({50, 100, "file"}, 30), "[##########..........] 50%");
  EXPECT_EQ(barFor({50, 100, "file"}, 20), "file 50%");
  EXPECT_EQ(barFor({50, 100, "a-rather-long-name"}, 20), "50%");
  for (std::size_t columns = 5; columns < 100; ++columns) {
    EXPECT_LT(barFor({7, 9, "some name or other"}, columns).size(), columns);
  }
}

TEST(ProgressBarTest, AcceptsInconsistentNumbers) {
  EXPECT_EQ(barFor({0, 0, "empty"}, 80), "empty [####################] 100%");
  EXPECT_EQ(barFor({300, 100, "grown"}, 80), "grown [####################] 100%");
}

TEST(ProgressBarTest, EscapesTheName) {
  EXPECT_EQ(barFor({1, 1, "\x1b[2J\n"}, 80), "\\x1b[2J\\n [####################] 100%");
}

TEST(ProgressBarTest, ShowsRateAndRemainingTime) {
  ProgressBar bar;
  (void)bar.text({0, 1ULL << 40U, "f"}, 80);
  std::string line;
  // The clock may not advance between two calls.
  for (int i = 0; i < 1000000 && line.find("/s ") == std::string::npos; ++i) {
    line = bar.text({1ULL << 39U, 1ULL << 40U, "f"}, 80);
  }
  EXPECT_NE(line.find("50% "), std::string::npos) << line;
  EXPECT_NE(line.find("iB/s "), std::string::npos) << line;
  EXPECT_NE(line.find(':'), std::string::npos) << line;
}

TEST(StatusLineTest, IsEnabledOnlyOnATerminalWithoutQuietAndJson) {
  Style style;
  EXPECT_FALSE(StatusLine(style).enabled());
  style.errTerminal = true;
  EXPECT_TRUE(StatusLine(style).enabled());
  style.quiet = true;
  EXPECT_FALSE(StatusLine(style).enabled());
  style = jsonStyle();
  style.errTerminal = true;
  EXPECT_FALSE(StatusLine(style).enabled());
}

TEST(StyleTest, EscapesNamesOnlyForATerminal) {
  Style style;
  EXPECT_EQ(style.name("a\x1b"), "a\x1b");
  style.outTerminal = true;
  EXPECT_EQ(style.name("a\x1b"), "a\\x1b");
}

TEST(StyleTest, ATerminalWithoutASizeHas80Columns) {
  const zell::UniqueFd before(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3));
  const zell::UniqueFd terminal(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
  ASSERT_EQ(dup2(terminal.get(), STDERR_FILENO), STDERR_FILENO);
  const std::size_t usual = terminalColumns();
  winsize size{};
  size.ws_col = 33;
  EXPECT_EQ(ioctl(terminal.get(), TIOCSWINSZ, &size), 0);
  const std::size_t chosen = terminalColumns();
  ASSERT_EQ(dup2(before.get(), STDERR_FILENO), STDERR_FILENO);
  EXPECT_EQ(usual, 80U);
  EXPECT_EQ(chosen, 33U);
}

TEST(StyleTest, WritingWaitsForAFullStreamThatDoesNotBlock) {
  int ends[2] = {-1, -1};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
  zell::UniqueFd in(ends[0]);
  const zell::UniqueFd out(ends[1]);
  const std::string part(4096, 'x');
  while (write(in.get(), part.data(), part.size()) > 0) {
  }
  pollfd writable{in.get(), POLLOUT, 0};
  int ready = -1;
  zell::test::SpiedCalls calls;  // does not record recv, which the other thread calls
  calls.before("write", 1, [&] { ready = poll(&writable, 1, 0); });
  std::thread reader([&out] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // the writer waits meanwhile
    char bytes[65536];
    while (recv(out.get(), bytes, sizeof bytes, 0) > 0) {
    }
  });
  EXPECT_TRUE(writeAll(in.get(), "text"));
  reader.join();
  EXPECT_EQ(ready, 1) << "the second attempt came when there was room";
}

// Whether @p work ran without a refused allocation: the one after @p granted ones is refused.
template <typename Work>
bool runsWith(std::size_t granted, Work work) {
  const zell::test::RefusedAllocation refused(granted);
  try {
    work();
  } catch (const std::bad_alloc&) {
    EXPECT_TRUE(refused.met());
  }
  return !refused.met();
}

TEST(MemoryTest, AnObjectThatCannotBeMadeLeavesNothingInvalid) {
  const std::string device(100, 'd');
  const std::string task(100, 't');
  std::size_t granted = 0;
  while (!runsWith(granted, [&] {
    Json object = openingObject(device, task);
    discard(object);
  })) {
    ++granted;
  }
  EXPECT_GT(granted, 4U);  // the texts, their keys' array and the object
}

TEST(MemoryTest, ListsThatCannotBeMadeLeaveNothingInvalid) {
  const Style style = jsonStyle();
  Report report(style, openingObject("a", "push"));
  report.warn(std::string(100, 'w'));
  const Json opening = openingObject("a", "push");
  std::size_t granted = 0;
  // The library's own destructor allocates: a refusal there ends the program. So the object is
  // kept.
  std::optional<Json> object;
  while (!runsWith(granted, [&] { object = report.lastObject(opening); })) {
    ++granted;
  }
  EXPECT_EQ(object->at("warnings").size(), 1U);
}

TEST(MemoryTest, AReportIsDestroyedWithoutMemory) {
  const Style style = jsonStyle();
  std::optional<Report> report;
  report.emplace(style, openingObject("a", "push"));
  report->result()["list"] = Json::array({1, Json::object({{"key", "value"}})});
  EXPECT_TRUE(runsWith(0, [&] { report.reset(); }));
}

}  // namespace
}  // namespace runelctl
