// SPDX-License-Identifier: Apache-2.0
// The lines of the master's output and of the file of clauses.
#include "control/journal.h"

#include <cerrno>
#include <functional>
#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <runel/loop.h>

#include "support/spied_calls.h"
#include "support/temp_dir.h"
#include "unit/control/streams.h"

namespace runelctl {
namespace {

using test::ReplacedStream;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using zell::test::contentOf;
using zell::test::SpiedCalls;
using zell::test::TempDir;

const Label kDevice{"gw-3", "192.0.2.7", 4711};
const Label kUnknown{"", "192.0.2.7", 4711};

class JournalTest : public ::testing::Test {
 protected:
  Journal& open(bool xml = false) {
    journal_ = std::make_unique<Journal>(loop_, style, xml);
    return *journal_;
  }
  /// What was written to standard output since the last call, without the local time of a line.
  std::string shown() {
    const std::string text = out_.read();
    return style.json || text.empty() ? text
                                      : text.substr(std::string("2026-03-01 12:00:00 ").size());
  }
  std::string errors() { return err_.read(); }

  Style style;
  TempDir dir;

 private:
  // Every line is written at once: the pipes have room.
  ReplacedStream out_{STDOUT_FILENO};
  ReplacedStream err_{STDERR_FILENO};
  runel::Loop loop_;
  std::unique_ptr<Journal> journal_;
};

TEST_F(JournalTest, EachEventIsALine) {
  Journal& journal = open();
  journal.listening("127.0.0.1:5112", "/run/x");
  EXPECT_EQ(shown(), "listening for devices on 127.0.0.1:5112, for runelctl on /run/x\n");
  journal.connected(kDevice, "server");
  EXPECT_EQ(shown(), "gw-3 (192.0.2.7:4711): connected, type server\n");
  journal.connected(kUnknown, "");
  EXPECT_EQ(shown(), "192.0.2.7:4711: connected\n");
  journal.further(kDevice);
  EXPECT_EQ(shown(), "gw-3 (192.0.2.7:4711): additional connection\n");
  journal.agent(kDevice);
  EXPECT_EQ(shown(), "gw-3 (192.0.2.7:4711): additional connection carries an agent's data\n");
  journal.refused(kUnknown, "by --allow");
  EXPECT_EQ(shown(), "192.0.2.7:4711: refused: by --allow\n");
  journal.problem("no \x1b[2J");
  EXPECT_EQ(shown(), "");
  EXPECT_EQ(errors(), "runelctl: no \\x1b[2J\n");
}

TEST_F(JournalTest, ALossNamesTheRoleOfTheConnection) {
  Journal& journal = open();
  journal.lost(kDevice, "slave", "closed");
  EXPECT_EQ(shown(), "gw-3 (192.0.2.7:4711): lost: closed\n");
  journal.lost(kDevice, "agent", "closed");
  EXPECT_EQ(shown(), "gw-3 (192.0.2.7:4711): agent disconnected: closed\n");
  journal.lost(kDevice, "further", "closed");
  EXPECT_EQ(shown(), "gw-3 (192.0.2.7:4711): additional connection closed: closed\n");
}

TEST_F(JournalTest, BeginsALineWithTheLocalTime) {
  open().further(kUnknown);
  EXPECT_EQ(shown().size(), std::string("192.0.2.7:4711: additional connection\n").size());
}

TEST_F(JournalTest, AnEventIsAJsonObject) {
  style.json = true;
  Journal& journal = open();
  journal.connected(kDevice, "server");
  Json object = Json::parse(shown());
  EXPECT_THAT(object["time"].get<std::string>(),
              MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z"));
  object.erase("time");
  EXPECT_EQ(object.dump(), R"({"v":1,"event":"connected","device":"gw-3","hostid":"gw-3",)"
                           R"("address":"192.0.2.7","port":4711,"devicetype":"server"})");
  journal.lost(kUnknown, "agent", "closed");
  object = Json::parse(shown());
  EXPECT_EQ(object["device"], "192.0.2.7") << "without a host identifier";
  EXPECT_EQ(object["role"], "agent");
  EXPECT_EQ(object["why"], "closed");
}

TEST_F(JournalTest, ShowsClausesOnlyWhenAsked) {
  open(false).clause(kDevice, "<a/>");
  EXPECT_EQ(shown(), "");
  open(true).clause(kDevice, "<a/>");
  EXPECT_EQ(shown(), "gw-3 (192.0.2.7:4711): <a/>\n");
  style.quiet = true;
  open(true).clause(kDevice, "<a/>");
  EXPECT_EQ(shown(), "");
}

TEST_F(JournalTest, QuietOmitsEventsButNotProblems) {
  style.quiet = true;
  Journal& journal = open();
  journal.further(kDevice);
  journal.problem("no memory");
  EXPECT_EQ(shown(), "");
  EXPECT_EQ(errors(), "runelctl: no memory\n");
}

TEST_F(JournalTest, EscapesWhatADeviceSentOnATerminal) {
  style.outTerminal = true;
  open(true).clause(kDevice, "<a>\x1b[2J\r</a>");
  const std::string line = shown();
  EXPECT_EQ(line.find('\x1b'), std::string::npos);
  EXPECT_THAT(line, HasSubstr("\\x1b[2J"));
}

TEST_F(JournalTest, AppendsClausesToAFile) {
  const std::string path = dir.write("kept", "earlier\n");
  Journal& journal = open();
  EXPECT_EQ(journal.keepClauses(path), "");
  journal.clause(kDevice, "<a>1</a>");
  journal.clause(kUnknown, "<b>\xff</b>");
  const std::string kept = contentOf(path);
  const std::size_t second = kept.find('\n', 8);
  EXPECT_EQ(kept.substr(0, 8), "earlier\n");
  const Json one = Json::parse(kept.substr(8, second - 8));
  EXPECT_EQ(one["event"], "clause");
  EXPECT_EQ(one["clause"], "<a>1</a>");
  const Json two = Json::parse(kept.substr(second + 1));
  EXPECT_EQ(two["clause_base64"], "PGI+/zwvYj4=");
  EXPECT_EQ(shown(), "") << "printed with --xml only";
}

TEST_F(JournalTest, TheFileAndTheOutputHaveTheSameTime) {
  style.json = true;
  Journal& journal = open(true);
  EXPECT_EQ(journal.keepClauses(dir.file("kept")), "");
  journal.clause(kDevice, "<a/>");
  EXPECT_EQ(shown(), contentOf(dir.file("kept")));
}

TEST_F(JournalTest, ReportsAFileThatCannotBeOpened) {
  EXPECT_EQ(open().keepClauses(dir.file("no/such")),
            dir.file("no/such") + ": No such file or directory");
}

TEST_F(JournalTest, ReportsAFailedWriteOnceAndBeginsTheNextClauseOnALine) {
  Journal& journal = open();
  EXPECT_EQ(journal.keepClauses(dir.file("kept")), "");
  {
    SpiedCalls calls;
    calls.fail("write", ENOSPC);
    journal.clause(kDevice, "<a/>");
    EXPECT_EQ(errors(), "runelctl: " + dir.file("kept") + ": No space left on device\n");
    calls.fail("write", ENOSPC);
    journal.clause(kDevice, "<b/>");
    EXPECT_EQ(errors(), "");
  }
  journal.clause(kDevice, "<c/>");
  journal.clause(kDevice, "<d/>");
  const std::string kept = contentOf(dir.file("kept"));
  EXPECT_EQ(kept[0], '\n') << "the failed write may have left a part of a line";
  EXPECT_THAT(kept, HasSubstr("<c/>\"}\n{"));
  EXPECT_THAT(kept, EndsWith("<d/>\"}\n"));
}

TEST(UtcTextTest, HasMilliseconds) {
  EXPECT_EQ(utcText(0), "1970-01-01T00:00:00.000Z");
  EXPECT_EQ(utcText(1772366400123), "2026-03-01T12:00:00.123Z");
  EXPECT_EQ(utcText(1772366400007), "2026-03-01T12:00:00.007Z");
}

}  // namespace
}  // namespace runelctl
