// SPDX-License-Identifier: Apache-2.0
// Checks the examples and tables of docs/protocol.md against the daemon.
#include <algorithm>
#include <cstddef>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <zell/byte_count_protocol.h>
#include <zell/slave_task.h>

#include "connections/byte_count_slave.h"
#include "fakes/zell/fake_zell.h"
#include "protocol/clause_buffer.h"
#include "protocol/task_table.h"
#include "protocol_document.h"
#include "support/log_capture.h"
#include "support/socket_pair.h"

namespace zell {
namespace {

using test::Block;
using test::blocksOf;
using test::LogCapture;
using test::SocketPair;

std::string textOf(const SlaveTask& task) {
  std::ostringstream out;
  task.serialize(out);
  return out.str();
}

std::string bytesOf(const Block& block) {
  std::string bytes;
  for (const std::string& line : block) {
    bytes += test::hexLine(line).first;
  }
  return bytes;
}

// Parses the record @p text and serializes it again.
std::string readAndWritten(const std::string& text) {
  SlaveTask task;
  task.parse(text);
  return textOf(task);
}

TEST(ProtocolDocumentTest, EveryFrameIsOneMessage) {
  const std::vector<Block> frames = blocksOf("frame");
  EXPECT_GE(frames.size(), 9u);
  for (const Block& block : frames) {
    const SocketPair sockets = SocketPair::local();
    ByteCountProtocol codec(sockets.near());
    codec.acceptBytes(bytesOf(block));
    std::string message;
    ASSERT_TRUE(codec.recvMessage(message)) << block.front();
    EXPECT_FALSE(codec.dataAvailable()) << block.front();
    EXPECT_TRUE(codec.sendMessage(message));
    EXPECT_EQ(sockets.received(), bytesOf(block)) << block.front();
  }
}

TEST(ProtocolDocumentTest, EveryRecordInAFrameIsValid) {
  int records = 0;
  for (const Block& block : blocksOf("frame")) {
    const std::string bytes = bytesOf(block);
    const std::string payload = bytes.substr(bytes.find('\x02') + 1);
    if (SlaveTask::isA(payload)) {
      EXPECT_EQ(readAndWritten(payload), payload) << block.front();
      ++records;
    }
  }
  EXPECT_GE(records, 6);
}

TEST(ProtocolDocumentTest, EveryBadFrameIsRefusedAtItsLastByteForTheStatedReason) {
  const std::vector<Block> blocks = blocksOf("not-a-frame");
  ASSERT_EQ(blocks.size(), 1u);
  for (const std::string& line : blocks.front()) {
    const auto& [bytes, reason] = test::hexLine(line);
    LogCapture log;
    const SocketPair sockets = SocketPair::local();
    ByteCountProtocol codec(sockets.near());
    codec.acceptBytes(bytes.substr(0, bytes.size() - 1));
    EXPECT_TRUE(log.entries().empty()) << line;
    codec.acceptBytes(bytes.substr(bytes.size() - 1));
    EXPECT_EQ(log.count("(PID) acceptBytes: bad frame on socket " + std::to_string(sockets.near()) +
                        ", " + reason),
              1)
        << line;
  }
}

TEST(ProtocolDocumentTest, EveryRecordIsValid) {
  const std::vector<Block> blocks = blocksOf("record");
  ASSERT_EQ(blocks.size(), 1u);
  for (const std::string& line : blocks.front()) {
    EXPECT_EQ(readAndWritten(test::quoted(line)), test::quoted(line)) << line;
  }
}

TEST(ProtocolDocumentTest, EveryBadRecordIsRefused) {
  const std::vector<Block> blocks = blocksOf("not-a-record");
  ASSERT_EQ(blocks.size(), 1u);
  for (const std::string& line : blocks.front()) {
    const std::string text = test::quoted(line);
    EXPECT_TRUE(SlaveTask::isA(text)) << line;
    EXPECT_EQ(readAndWritten(text), textOf(SlaveTask())) << line;
  }
}

// The clauses in @p buffer, in the form in which they are relayed.
std::string relayed(ClauseBuffer& buffer) {
  std::string out;
  std::string clause;
  while (buffer.next(clause) == ClauseBuffer::Next::cut) {
    out += clause + "\r\n";
  }
  return out;
}

TEST(ProtocolDocumentTest, EveryRelayExampleIsRelayedAsShown) {
  const std::vector<Block> blocks = blocksOf("relay");
  EXPECT_GE(blocks.size(), 7u);
  for (const Block& block : blocks) {
    ClauseBuffer buffer;
    std::string kept;
    for (const std::string& line : block) {
      const std::string bytes = test::quoted(line);
      if (line.compare(0, 2, "in") == 0) {
        buffer.append(bytes);
      } else if (line.compare(0, 3, "out") == 0) {
        EXPECT_EQ(relayed(buffer), bytes) << block.front();
      } else {
        kept = bytes;
      }
    }
    EXPECT_EQ(buffer.first(buffer.size()), kept) << block.front();
  }
}

// The minimum number of arguments by the row of a task: those in code marks, except those in
// brackets.
int argumentsOf(const std::string& cell) {
  const std::string needed = cell.substr(0, cell.find('['));
  return static_cast<int>(std::count(needed.begin(), needed.end(), '`') / 2);
}

// The text of the reply to @p name with that number of @p arguments; empty without a reply.
std::string replyTo(ByteCountSlave& handler, const std::string& name, int arguments) {
  std::vector<std::string> args{name};
  args.insert(args.end(), static_cast<std::size_t>(arguments), "1");
  const std::unique_ptr<SlaveTask> reply(handler.dispatchTask(
      SlaveTask(args, 0, "", SlaveStatus::success, WatchProcessState_t::none, 0, 0, 0)));
  return reply == nullptr ? std::string() : reply->output();
}

TEST(ProtocolDocumentTest, TheTableHasAllTasksInOrder) {
  std::vector<std::string> names;
  for (const auto& row : test::taskRows()) {
    names.push_back(row.front());
  }
  EXPECT_EQ(names.size(), std::size(kTasks));
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
  EXPECT_EQ(std::adjacent_find(names.begin(), names.end()), names.end());
}

TEST(ProtocolDocumentTest, EveryTaskOfTheTableNeedsTheArgumentsShown) {
  test::FakeDevice::instance().reset();
  const LogCapture log;
  const SocketPair sockets = SocketPair::local();
  ByteCountSlave handler(sockets.near());
  for (const auto& row : test::taskRows()) {
    const int needed = argumentsOf(row[1]);
    const std::string enough = replyTo(handler, row[0], needed);
    EXPECT_EQ(enough.find("unknown cmd"), std::string::npos) << row[0];
    EXPECT_EQ(enough.find("too few arguments"), std::string::npos) << row[0];
    if (needed > 0) {
      const std::string tooFew = replyTo(handler, row[0], needed - 1);
      EXPECT_NE(tooFew.find(") too few arguments: " + row[0]), std::string::npos) << row[0];
    }
  }
}

// The cells of the rows of the task table.
std::vector<std::vector<std::string>> taskRows() {
  std::vector<std::vector<std::string>> rows;
  std::ifstream document(RUNELD_DOCS "/protocol.md");
  std::string line;
  while (std::getline(document, line) && line.rfind("| task |", 0) != 0) {
  }
  std::getline(document, line);  // the rule below the heading
  while (std::getline(document, line) && line.rfind("| ", 0) == 0) {
    std::vector<std::string> cells;
    std::istringstream row(line.substr(2));
    for (std::string cell; std::getline(row, cell, '|');) {
      cells.push_back(cell.substr(0, cell.find_last_not_of(' ') + 1));
    }
    rows.push_back(cells);
  }
  return rows;
}

// What is in backticks outside of square brackets.
std::size_t requiredArguments(const std::string& cell) {
  const std::string required = cell.substr(0, cell.find('['));
  return static_cast<std::size_t>(std::count(required.begin(), required.end(), '`')) / 2;
}

bool saysEmpty(const std::string& text) {
  return text.find("empty") != std::string::npos;
}

TEST(ProtocolDocumentTest, TheTaskTableIsThatOfTheCode) {
  const auto rows = taskRows();
  ASSERT_EQ(rows.size(), std::size(kTasks));
  for (std::size_t i = 0; i < rows.size(); ++i) {
    ASSERT_EQ(rows[i].size(), 5u) << i;
    EXPECT_EQ(rows[i][0], kTasks[i].name);
    EXPECT_EQ(requiredArguments(rows[i][1]), kTasks[i].arguments) << kTasks[i].name;
    EXPECT_EQ(saysEmpty(rows[i][3]), kTasks[i].text == TaskText::empty) << kTasks[i].name;
    EXPECT_EQ(rows[i][3].find("no reply") != std::string::npos, kTasks[i].text == TaskText::noReply)
        << kTasks[i].name;
  }
}

TEST(ProtocolDocumentTest, TheTasksThatAreSafeToRepeatAreThoseOfTheCode) {
  std::ifstream document(RUNELD_DOCS "/protocol.md");
  const std::string text(std::istreambuf_iterator<char>(document), {});
  const std::size_t begin = text.find("wrote in between:");
  ASSERT_NE(begin, std::string::npos);
  std::string list = text.substr(begin, text.find('.', begin) - begin);
  std::replace(list.begin(), list.end(), '\n', ' ');
  std::string expected = "wrote in between:";
  for (const TaskTraits& task : kTasks) {
    if (task.repeatable) {
      expected += (expected.back() == ':' ? " " : ", ") + std::string(task.name);
    }
  }
  EXPECT_EQ(list, expected);
}

TEST(ProtocolDocumentTest, EveryTaskIsFoundByItsNameOnly) {
  for (const TaskTraits& task : kTasks) {
    EXPECT_EQ(findTask(task.name), &task);
    EXPECT_EQ(findTask(std::string(task.name) + "x"), nullptr);
    EXPECT_EQ(findTask(task.name.substr(0, task.name.size() - 1)), nullptr);
  }
  EXPECT_EQ(findTask(""), nullptr);
}

TEST(ProtocolDocumentTest, ATaskThatChangesNothingIsSafeToRepeatUnlessItWaits) {
  for (const TaskTraits& task : kTasks) {
    EXPECT_TRUE(task.changes || task.repeatable || task.unbounded) << task.name;
  }
}

}  // namespace
}  // namespace zell
