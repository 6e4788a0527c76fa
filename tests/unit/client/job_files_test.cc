// SPDX-License-Identifier: Apache-2.0
// What a device tells about its jobs, well formed and malformed.
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "client/jobs/job_files.h"
#include "client/jobs/job_requests.h"
#include "client/jobs/segment_reader.h"

namespace runel {
namespace {

const char kStartedLine[] = "started b-1 12 10 5000 13 14 0 65536 4096 1700000000\n";

TEST(JobFilesTest, ReadsAJobThatRuns) {
  const auto jobs = parseJobs(std::string("boot b-1\njob a.1\n") + kStartedLine +
                              "alive\ncommand sh -c 'x  y'\n");
  ASSERT_TRUE(jobs && jobs->size() == 1);
  const JobRecord& job = jobs->front();
  EXPECT_EQ(job.id, "a.1");
  EXPECT_EQ(job.phase(), JobPhase::running);
  EXPECT_EQ(job.started->boot, "b-1");
  EXPECT_EQ(job.started->pid, 12U);
  EXPECT_EQ(job.started->group, 10U);
  EXPECT_EQ(job.started->begin, 5000U);
  EXPECT_EQ(job.started->limit, 65536U);
  EXPECT_EQ(job.started->segment, 4096U);
  EXPECT_EQ(job.started->time, 1700000000);
  EXPECT_EQ(job.command, "sh -c 'x  y'");
}

TEST(JobFilesTest, TellsThePhases) {
  const std::string started = kStartedLine;
  const auto phase = [](const std::string& lines) {
    return parseJobs("boot b-1\njob j\n" + lines)->front().phase();
  };
  EXPECT_EQ(phase(""), JobPhase::claimed);
  EXPECT_EQ(phase("command true\n"), JobPhase::claimed);
  EXPECT_EQ(phase(started + "alive\n"), JobPhase::running);
  EXPECT_EQ(phase(started), JobPhase::interrupted);
  EXPECT_EQ(phase(started + "status 3 0 0 0 5\n"), JobPhase::ended);
  EXPECT_EQ(phase(started + "alive\nstatus 3 0 0 0 5\n"), JobPhase::ended);
}

TEST(JobFilesTest, ReadsSeveralJobsAndIgnoresUnknownLines) {
  const auto jobs = parseJobs("boot b\nnews 1\njob a\nmore x\njob b\nstatus 0 1 2 3 4\n");
  ASSERT_TRUE(jobs && jobs->size() == 2);
  EXPECT_FALSE(jobs->front().status);
  EXPECT_EQ(jobs->back().id, "b");
  EXPECT_TRUE(parseJobs("")->empty());
  EXPECT_TRUE(parseJobs("boot b\n")->empty());
}

TEST(JobFilesTest, RefusesMalformedJobs) {
  const std::string job = "job j\n";
  for (const char* lines : {
           "job j",
           "job \n",
           "job ../x\n",
           "job a b\n",
           "job -x\n",
           "job .x\n",
           "job a/b\n",
           "job j\nstarted\n",
           "job j\nstarted b 1 2 3 4 5 6 7 0 9\n",
           "job j\nstarted b 1 2 3 4 5 6 7 99999999999 9\n",
           "job j\nstarted b 1 2 x 4 5 6 7 8 9\n",
           "job j\nstarted b 1 2 3 4 5 6 7 8 9 10\n",
           "job j\nstarted b 1 2 3 4 5 6 7\n",
           "job j\nstatus\n",
           "job j\nstatus 1 0 0\n",
           "job j\nstatus 1 0 -1 0 0\n",
           "job j\nstatus 1 0 0 0 0 0\n",
       }) {
    EXPECT_FALSE(parseJobs(lines)) << lines;
  }
}

TEST(JobFilesTest, ReadsAStatusWithPaddingAndWithoutATime) {
  const auto status = parseJobStatus("137 1 20 30 40      \n");
  ASSERT_TRUE(status);
  EXPECT_EQ(status->code, 137);
  EXPECT_TRUE(status->late);
  EXPECT_EQ(status->lost[0], 20U);
  EXPECT_EQ(status->lost[1], 30U);
  EXPECT_EQ(status->time, 40);
  EXPECT_EQ(parseJobStatus("0 0 0 0 \n")->time, 0);
  EXPECT_FALSE(parseJobStatus("-      \n"));
  EXPECT_FALSE(parseJobStatus(""));
}

TEST(JobFilesTest, FindsTheStartOfAProcess) {
  const std::string fields = " 1 10 10 0 -1 4194304 1 0 0 0 0 0 0 0 20 0 1 0 5000 1 2 3\n";
  EXPECT_EQ(parseProcessStart("12 (sh) S" + fields), 5000U);
  EXPECT_EQ(parseProcessStart("12 (a) b) (c) S" + fields), 5000U);
  EXPECT_EQ(parseProcessStart("12 (sh) Z" + fields), std::nullopt);
  EXPECT_EQ(parseProcessStart("12 (sh) X" + fields), std::nullopt);
  EXPECT_EQ(parseProcessStart("12 (sh) S 1 2 3\n"), std::nullopt);
  EXPECT_EQ(parseProcessStart(""), std::nullopt);
}

TEST(JobFilesTest, TheOutputOfAKilledScriptIsNotItsError) {
  const JobPlace place{"/jobs", "j"};
  const auto killed = Reply::decode("SlaveTask 0 0 4:part 1 3 0 0 9");
  const auto failed = Reply::decode("SlaveTask 0 0 4:said 1 2 1 0 0");
  ASSERT_TRUE(killed && failed);
  EXPECT_EQ(jobErrorOf(*killed, place).text(), killed->error("job j").text());
  EXPECT_EQ(jobErrorOf(*failed, place).text(), "job j: said");
}

TEST(JobFilesTest, TheAnswerToAReadHasASegmentAtMost) {
  JobStarted started;
  started.segment = 4096;
  const SegmentReader reader({"/jobs", "j"}, "out", started);
  EXPECT_EQ(reader.nextRequest().replyLimit(), 4096U + 65536U);
}

TEST(JobFilesTest, ReadsNumbersOfSegments) {
  EXPECT_EQ(parseSegmentName("out.12", "out"), 12U);
  for (const char* name : {"out.", "out", "err.1", "out.1x", "out.-1", "out.lost", "xout.1",
                           "out.99999999999999999999", "out.4294967296"}) {
    EXPECT_EQ(parseSegmentName(name, "out"), std::nullopt) << name;
  }
  EXPECT_EQ(parseSegmentName(std::string_view("out.5", 3), "out"), std::nullopt);
}

TEST(JobFilesTest, ChecksNamesAndDirectories) {
  EXPECT_TRUE(isJobId("runelctl-0a1B_c.d"));
  EXPECT_TRUE(isJobId(std::string(100, 'x')));
  for (const std::string& id : {std::string(), std::string(101, 'x'), std::string("."),
                                std::string(".."), std::string("-a"), std::string("a b"),
                                std::string("a/b"), std::string("a\n"), std::string("a*")}) {
    EXPECT_FALSE(isJobId(id)) << id;
  }
  EXPECT_TRUE(isJobDirectory("/var/lib/runel/jobs"));
  EXPECT_TRUE(isJobDirectory("/a b"));
  for (const char* path : {"", "/", "a", "a/b", "/a/", "//a", "/a//b", "/a/./b", "/a/..", "/.."}) {
    EXPECT_FALSE(isJobDirectory(path)) << path;
  }
}

TEST(JobFilesTest, ShowsACommandInOneLine) {
  EXPECT_EQ(commandText({"ls", "-l", "a b", "it's", "", "x\ny"}),
            "ls -l 'a b' 'it'\\''s' '' 'x y'");
  EXPECT_EQ(commandText({std::string(5000, 'x')}).size(), 1000U);
}

}  // namespace
}  // namespace runel
