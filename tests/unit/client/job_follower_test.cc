// SPDX-License-Identifier: Apache-2.0
// Starting and following jobs on a device whose connection may be cut anywhere.
#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "client/jobs/job_follower.h"
#include "client/jobs/job_scripts.h"
#include "client/jobs/job_starter.h"
#include "drivers.h"
#include "support/task_wire.h"
#include "unit/client/fake_job_device.h"

namespace runel {
namespace {

using zell::test::replyRecord;

constexpr std::size_t kMostCuts = 60;

class JobTest : public ::testing::Test {
 protected:
  void follow() {
    follower = std::make_unique<JobFollower>(
        device.client(), device.place(), how,
        JobFollower::Handlers{
            [this](std::size_t stream, std::string_view bytes) { came[stream].append(bytes); },
            [this](const JobEnd& end) { ended = end; },
            [this](const Error& error) { failed = error; }, [this](const Error&) { ++losses; }});
    follower->start();
  }
  void start(std::shared_ptr<const std::string> input = nullptr) {
    JobPlan plan;
    plan.words = {"true"};
    starter = std::make_unique<JobStarter>(
        device.client(), device.place(), plan, std::move(input), how.limit,
        JobStarter::Handlers{[this](JobAnswer itsAnswer, const std::optional<Error>& error) {
                               answer = itsAnswer;
                               failed = error;
                             },
                             [this](const Error&) { ++losses; }});
    starter->start();
  }
  void runUntil(const test::Done& done) { ASSERT_TRUE(test::runUntil(loop, done)); }
  void finish() {
    runUntil([this] { return ended || failed; });
  }
  void finishStart() {
    runUntil([this] { return answer.has_value(); });
  }
  [[nodiscard]] std::ptrdiff_t asked(const std::string& request) const {
    return std::count(device.requests.begin(), device.requests.end(), request);
  }

  Loop loop;
  FakeJobDevice device{loop};
  JobFollow how;
  std::unique_ptr<JobFollower> follower;
  std::unique_ptr<JobStarter> starter;
  std::string came[2];
  std::optional<JobEnd> ended;
  std::optional<Error> failed;
  std::optional<JobAnswer> answer;
  int losses = 0;
};

class JobFollowerTest : public JobTest {};
class JobStarterTest : public JobTest {};

TEST_F(JobFollowerTest, PassesOnBothStreamsAndTheStatus) {
  device.run();
  device.write("out", "hello, world of segments");
  device.write("err", "oh");
  device.end("3 0 7 8 5");
  follow();
  finish();
  ASSERT_TRUE(ended);
  EXPECT_EQ(came[0], "hello, world of segments");
  EXPECT_EQ(came[1], "oh");
  EXPECT_EQ(ended->phase, JobPhase::ended);
  EXPECT_EQ(ended->status.code, 3);
  EXPECT_EQ(ended->status.lost[0], 7U);
  EXPECT_EQ(ended->status.lost[1], 8U);
  EXPECT_EQ(ended->gone[0], 0U);
}

// The program writes between the requests, in every possible place.
TEST_F(JobFollowerTest, PassesOnOutputAsItIsWritten) {
  std::string expected;
  device.run();
  device.before = [&](const std::string& request) {
    const bool near = request == "stat out.0" || request == "exec out.0" || request == "stat err.0";
    if (near && device.alive) {
      const std::string piece = std::to_string(expected.size()) + ";";
      device.write("out", piece);
      expected += piece;
    }
    if (expected.size() > 40 && device.alive) {
      device.end();
    }
  };
  follow();
  finish();
  ASSERT_TRUE(ended);
  EXPECT_EQ(came[0], expected);
}

TEST_F(JobFollowerTest, LooksMoreOftenAfterNewOutputThatFillsASegment) {
  device.run(8);
  follow();
  runUntil([this] { return follower->pause() > Milliseconds(200); });
  device.write("out", "12345678");
  runUntil([this] { return came[0].size() == 8 && asked("stat out.1") == 2; });
  EXPECT_LT(follower->pause(), Milliseconds(200));
}

TEST_F(JobFollowerTest, FetchesOnlyWhatIsNew) {
  device.run(1000);
  device.write("out", "first");
  follow();
  runUntil([this] { return came[0] == "first"; });
  device.write("out", "second");
  runUntil([this] { return came[0] == "firstsecond"; });
  device.end();
  finish();
  EXPECT_EQ(asked("read out.0"), 1);
  EXPECT_EQ(asked("exec out.0"), 1);
}

// For each request in turn: the connection is cut instead of the answer.
TEST_F(JobFollowerTest, LosesAndDoublesNothingWhereverTheConnectionIsCut) {
  const std::string expected = "a text of several segments, all of it";
  for (std::size_t cut = 0; cut < kMostCuts; ++cut) {
    FakeJobDevice other(loop);
    other.run();
    other.write("out", expected.substr(0, 20));
    other.cutAt = cut;
    other.executeCut = cut % 2 == 0;
    other.before = [&](const std::string& request) {
      if (request == "read status" && other.files["out.0"].size() == 8 && other.alive &&
          other.files.count("out.2") != 0 && other.files["out.2"].size() == 4) {
        other.write("out", expected.substr(20));
        other.end();
      }
    };
    std::string whole;
    bool done = false;
    how.started = true;
    JobFollower cutOff(other.client(), other.place(), how,
                       {[&](std::size_t, std::string_view bytes) { whole.append(bytes); },
                        [&](const JobEnd&) { done = true; },
                        [&](const Error& error) {
                          ADD_FAILURE() << cut << ": " << error.text();
                          done = true;
                        },
                        {}});
    cutOff.start();
    ASSERT_TRUE(test::runUntil(loop, [&] { return done; })) << cut;
    EXPECT_EQ(whole, expected) << cut;
    if (other.requests.size() <= cut) {
      EXPECT_GT(cut, 10U);
      return;
    }
  }
  FAIL() << "more requests than cuts";
}

TEST_F(JobFollowerTest, EndsWhenTheWrapperIsGoneWithoutAStatus) {
  device.run();
  device.write("out", "rest");
  follow();
  runUntil([this] { return came[0] == "rest"; });
  device.alive = false;
  finish();
  ASSERT_TRUE(ended);
  EXPECT_EQ(ended->phase, JobPhase::interrupted);
}

TEST_F(JobFollowerTest, PrintsTheOutputOfAJobThatWasInterruptedByAReboot) {
  device.run();
  device.write("out", "before");
  device.alive = false;
  follow();
  finish();
  ASSERT_TRUE(ended);
  EXPECT_EQ(ended->phase, JobPhase::interrupted);
  EXPECT_EQ(came[0], "before");
}

TEST_F(JobFollowerTest, FailsForAJobThatIsMissingOrWasNeverStarted) {
  follow();
  finish();
  ASSERT_TRUE(failed);
  EXPECT_EQ(failed->number(), ENOENT);
  failed.reset();
  device.exists = true;
  follow();
  finish();
  ASSERT_TRUE(failed);
  EXPECT_NE(failed->text().find("never started"), std::string::npos);
}

TEST_F(JobFollowerTest, AwaitsAJobThatWasJustStarted) {
  how.started = true;
  device.exists = true;
  follow();
  runUntil([this] { return asked("show") == 2; });
  device.run();
  device.write("out", "late");
  device.end();
  finish();
  ASSERT_TRUE(ended);
  EXPECT_EQ(came[0], "late");
}

TEST_F(JobFollowerTest, FailsWhenAnotherJobHasTheSameId) {
  device.run();
  follow();
  runUntil([this] { return asked("read status") == 1; });
  device.files["started"] = "b 12 10 5001 13 14 0 64 8 5";
  device.cutAt = device.requests.size();
  finish();
  ASSERT_TRUE(failed);
  EXPECT_EQ(failed->cause(), Cause::changed);
  EXPECT_EQ(failed->text(),
            "job j was removed, and its ID was used for another job: the end of its "
            "output and its exit status are lost");
}

TEST_F(JobFollowerTest, OnlyWaitsWithoutOutput) {
  how.output = false;
  device.run();
  device.write("out", "unseen");
  follow();
  runUntil([this] { return asked("read status") == 2; });
  device.end("9 0 0 0 5");
  finish();
  EXPECT_EQ(ended->status.code, 9);
  EXPECT_EQ(asked("read out.0") + asked("stat out.0"), 0);
}

TEST_F(JobFollowerTest, StopsAtTheEndOfTheOutputSoFar) {
  how.wait = false;
  device.run();
  device.write("out", "more than one segment");
  follow();
  finish();
  ASSERT_TRUE(ended);
  EXPECT_EQ(ended->phase, JobPhase::running);
  EXPECT_EQ(came[0], "more than one segment");
}

// The limit is 64 bytes, so there is room to make from 32 on.
TEST_F(JobFollowerTest, RemovesFetchedSegmentsWhenHalfOfTheLimitIsUsed) {
  device.run();
  device.write("out", std::string(24, 'x'));
  follow();
  runUntil([this] { return came[0].size() == 24; });
  EXPECT_EQ(device.files.count("out.0"), 1U);
  device.write("out", std::string(30, 'y'));
  device.end();
  finish();
  EXPECT_EQ(came[0], std::string(24, 'x') + std::string(30, 'y'));
  EXPECT_EQ(device.files.count("out.0"), 0U);
  EXPECT_EQ(device.files.count("out.6"), 1U);
}

TEST_F(JobFollowerTest, RemovesNothingWithoutBeingTold) {
  how.makeRoom = false;
  device.run();
  device.write("out", std::string(60, 'x'));
  device.end();
  follow();
  finish();
  EXPECT_EQ(device.files.count("out.0"), 1U);
}

TEST_F(JobFollowerTest, TellsWhatAnotherReaderHasRemoved) {
  device.run();
  device.write("out", "0123456789abcdef0123456789");
  device.files.erase("out.0");
  follow();
  runUntil([this] { return came[0] == "89abcdef0123456789"; });
  device.write("out", std::string(30, 'z'));
  device.files.erase("out.3");
  device.files.erase("out.4");
  device.end();
  finish();
  ASSERT_TRUE(ended);
  EXPECT_EQ(ended->gone[0], 8U + 14U);
  EXPECT_EQ(came[0].size(), 18U + 16U);
}

TEST_F(JobFollowerTest, SendsSignals) {
  device.run();
  follow();
  std::optional<JobAnswer> told;
  runUntil([this] { return asked("read status") > 0; });
  follower->signal("INT", [&](JobAnswer itsAnswer) { told = itsAnswer; });
  runUntil([&] { return told.has_value(); });
  EXPECT_EQ(told, JobAnswer::done);
  EXPECT_EQ(device.signals, std::vector<std::string>{"INT"});
  device.end();
  finish();
}

TEST_F(JobFollowerTest, GivesUpWhenNoAnswerComesForTheLimit) {
  how.limit = Milliseconds(0);
  device.run();
  device.cutAt = 3;
  follow();
  finish();
  ASSERT_TRUE(failed);
  EXPECT_EQ(failed->kind(), Kind::link);
  EXPECT_EQ(losses, 0);
}

TEST_F(JobFollowerTest, FailsOnGarbage) {
  const std::string text(100, 'x');
  for (const char* request : {"show", "read status", "read out.0", "exec out.0"}) {
    FakeJobDevice other(loop);
    other.run();
    other.write("out", "data");
    other.garbage[request] = replyRecord(text);
    bool over = false;
    std::optional<Error> error;
    JobFollower misled(other.client(), other.place(), how,
                       {[&](std::size_t, std::string_view) { other.write("out", "x"); },
                        [&](const JobEnd&) { over = true; },
                        [&](const Error& itsError) { error = itsError; },
                        {}});
    misled.start();
    ASSERT_TRUE(test::runUntil(loop, [&] { return over || error; })) << request;
    ASSERT_TRUE(error) << request;
    EXPECT_EQ(error->cause(), Cause::protocol) << request;
  }
}

TEST_F(JobFollowerTest, FetchesAgainWhenTailFails) {
  device.run(1000);
  device.write("out", "first");
  device.garbage["exec out"] = replyRecord("", "1 2 1 0 0");
  device.before = [this](const std::string& request) {
    if (request == "exec out.0" && asked(request) == 2) {
      device.garbage.clear();
    }
  };
  follow();
  runUntil([this] { return came[0] == "first"; });
  device.write("out", "second");
  device.end();
  finish();
  ASSERT_TRUE(ended);
  EXPECT_EQ(came[0], "firstsecond");
  EXPECT_EQ(asked("exec out.0"), 2);
}

TEST_F(JobFollowerTest, FailsWhenTailFailsAgainAndAgain) {
  device.run(1000);
  device.write("out", "first");
  device.garbage["exec out"] = replyRecord("", "1 2 1 0 0");
  follow();
  runUntil([this] { return came[0] == "first"; });
  device.write("out", "second");
  finish();
  ASSERT_TRUE(failed);
  EXPECT_EQ(failed->text().compare(0, 5, "tail:"), 0) << failed->text();
  EXPECT_EQ(asked("exec out.0"), 3);
}

TEST_F(JobFollowerTest, FailsAtOnceWithoutTail) {
  device.run(1000);
  device.write("out", "first");
  device.garbage["exec out"] = replyRecord("", "1 0 1 2 0");
  follow();
  runUntil([this] { return came[0] == "first"; });
  device.write("out", "second");
  finish();
  ASSERT_TRUE(failed);
  EXPECT_EQ(failed->number(), ENOENT);
  EXPECT_EQ(asked("exec out.0"), 1);
}

TEST_F(JobFollowerTest, FailsWhenASegmentCannotBeRead) {
  device.run();
  device.write("out", "data");
  device.garbage["read out.0"] = replyRecord("", "1 0 1 5 0");
  follow();
  finish();
  ASSERT_TRUE(failed);
  EXPECT_EQ(failed->number(), EIO);
  EXPECT_NE(failed->text().find("/jobs/j/out.0"), std::string::npos) << failed->text();
  EXPECT_EQ(asked("read out.0"), 3);
}

TEST_F(JobStarterTest, StartsAJobOnce) {
  start();
  finishStart();
  EXPECT_EQ(answer, JobAnswer::done);
  EXPECT_EQ(device.starts, 1);
  answer.reset();
  start();
  finishStart();
  EXPECT_EQ(answer, JobAnswer::exists);
  EXPECT_EQ(failed->number(), EEXIST);
  EXPECT_EQ(device.starts, 1);
}

TEST_F(JobStarterTest, SendsTheInputBeforeTheProgramStarts) {
  const auto input = std::make_shared<const std::string>(3000000, 'i');
  start(input);
  finishStart();
  EXPECT_EQ(answer, JobAnswer::done);
  EXPECT_EQ(device.files["in"], *input);
  EXPECT_EQ(asked("append in"), 3);
  EXPECT_EQ(device.requests.back(), "start run");
}

TEST_F(JobStarterTest, StartsOnceWhereverTheConnectionIsCut) {
  const auto input = std::make_shared<const std::string>(2500000, 'i');
  for (const bool execute : {true, false}) {
    for (std::size_t cut = 0; cut < 5; ++cut) {
      FakeJobDevice other(loop);
      other.cutAt = cut;
      other.executeCut = execute;
      std::optional<JobAnswer> told;
      JobPlan plan;
      plan.words = {"true"};
      JobStarter cutOff(
          other.client(), other.place(), plan, input, how.limit,
          {[&](JobAnswer itsAnswer, const std::optional<Error>&) { told = itsAnswer; }, {}});
      cutOff.start();
      ASSERT_TRUE(test::runUntil(loop, [&] { return told.has_value(); })) << cut;
      EXPECT_EQ(told, JobAnswer::done) << cut;
      EXPECT_EQ(other.starts, 1) << cut;
      EXPECT_EQ(other.files["in"], *input) << cut;
    }
  }
}

TEST_F(JobStarterTest, DoesNotTakeAnExistingJobForItsOwn) {
  device.exists = true;
  device.cutAt = 0;
  device.executeCut = false;
  start();
  finishStart();
  EXPECT_EQ(answer, JobAnswer::exists);
  EXPECT_EQ(losses, 1);
}

TEST_F(JobStarterTest, RemovesTheClaimedJobWhenItsInputCannotBeStored) {
  device.garbage["append"] = replyRecord("", "1 0 1 28 0");
  start(std::make_shared<const std::string>("input"));
  finishStart();
  EXPECT_EQ(answer, JobAnswer::failed);
  EXPECT_EQ(failed->number(), ENOSPC);
  EXPECT_FALSE(device.exists);
  EXPECT_EQ(device.starts, 0);
}

// After a loss the starter asks how much of the input has arrived.
TEST_F(JobStarterTest, RemovesTheClaimedJobWhenTheSizeOfItsInputIsUnknown) {
  const std::string size =
      "dev=1 ino=1 mode=0100600 nlink=1 uid=0 gid=0 rdev=0 size=6 blksize=4096 "
      "blocks=0 atime=0.0 mtime=5.0 ctime=0.0\n";
  for (const std::string& reply : {replyRecord("text"), replyRecord(size)}) {
    FakeJobDevice other(loop);
    other.cutAt = 1;
    other.garbage["stat in"] = reply;
    std::optional<Error> error;
    JobPlan plan;
    plan.words = {"true"};
    JobStarter misled(
        other.client(), other.place(), plan, std::make_shared<const std::string>("input"),
        how.limit,
        {[&](JobAnswer, const std::optional<Error>& itsError) { error = itsError; }, {}});
    misled.start();
    ASSERT_TRUE(test::runUntil(loop, [&] { return error.has_value(); })) << reply;
    EXPECT_EQ(error->cause(), Cause::protocol) << reply;
    EXPECT_FALSE(other.exists) << reply;
    EXPECT_EQ(other.starts, 0) << reply;
  }
}

TEST_F(JobStarterTest, RemovesTheClaimedJobWhenItsInputIsGoneAfterALoss) {
  device.cutAt = 1;
  device.garbage["stat in"] = replyRecord("", "1 0 1 2 0");
  start(std::make_shared<const std::string>("input"));
  finishStart();
  EXPECT_EQ(answer, JobAnswer::failed);
  EXPECT_EQ(failed->number(), ENOENT);
  EXPECT_FALSE(device.exists);
  EXPECT_EQ(losses, 1);
}

TEST_F(JobStarterTest, TellsWhyADeviceCannotHaveJobs) {
  const auto exit = [](JobExit status) {
    return replyRecord("/x: y\n", "1 2 " + std::to_string(static_cast<int>(status)) + " 0 0");
  };
  for (const JobExit status : {JobExit::unsafePath, JobExit::noDirectory}) {
    device.garbage["start"] = exit(status);
    answer.reset();
    start();
    finishStart();
    EXPECT_EQ(answer, JobAnswer::noDirectory);
    EXPECT_EQ(failed->text(), "the device has no safe directory for jobs: /x: y");
  }
  device.garbage["start"] = exit(JobExit::noSpace);
  answer.reset();
  start();
  finishStart();
  EXPECT_EQ(answer, JobAnswer::notWritten);
}

TEST_F(JobStarterTest, FailsAtOnceWithoutAConnection) {
  FakeJobDevice gone(loop);
  const Address nowhere("127.0.0.1", 9);
  AsyncDevice client(loop, nowhere);
  JobPlan plan;
  plan.words = {"true"};
  JobStarter unreachable(client, gone.place(), plan, nullptr, how.limit,
                         {[&](JobAnswer itsAnswer, const std::optional<Error>& error) {
                            answer = itsAnswer;
                            failed = error;
                          },
                          {}});
  unreachable.start();
  finishStart();
  EXPECT_EQ(failed->cause(), Cause::connect);
  EXPECT_EQ(failed->outcome(), Outcome::notSent);
}

}  // namespace
}  // namespace runel
