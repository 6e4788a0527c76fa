// SPDX-License-Identifier: Apache-2.0
// What a device tells about its jobs: no text makes the parsers fail otherwise than by their
// result, and a result that is printed again is parsed as the same.
#include <algorithm>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "client/jobs/job_files.h"
#include "fuzz.h"

namespace {

using runel::JobRecord;
using runel::JobStarted;
using runel::JobStatus;
using zell::fuzz::require;

std::string lineOf(const JobStarted& started) {
  std::ostringstream line;
  line << started.boot << ' ' << started.pid << ' ' << started.group << ' ' << started.begin
       << " 0 0 0 " << started.limit << ' ' << started.segment << ' ' << started.time;
  return line.str();
}

std::string lineOf(const JobStatus& status) {
  std::ostringstream line;
  line << status.code << ' ' << (status.late ? 1 : 0) << ' ' << status.lost[0] << ' '
       << status.lost[1] << ' ' << status.time;
  return line.str();
}

std::string textOf(const std::vector<JobRecord>& jobs) {
  std::string text = "boot x\n";
  for (const JobRecord& job : jobs) {
    text += "job " + job.id + "\n";
    text += job.started ? "started " + lineOf(*job.started) + "\n" : "";
    text += job.alive ? "alive\n" : "";
    text += job.status ? "status " + lineOf(*job.status) + "\n" : "";
    text += "command " + job.command + "\n";
  }
  return text;
}

void checkJobs(const std::string& text) {
  const auto jobs = runel::parseJobs(text);
  if (!jobs) {
    return;
  }
  for (const JobRecord& job : *jobs) {
    require(runel::isJobId(job.id) && job.command.find('\n') == std::string::npos);
    require(!job.started || (job.started->segment > 0 && !job.started->boot.empty()));
  }
  const std::string printed = textOf(*jobs);
  const auto again = runel::parseJobs(printed);
  require(again && textOf(*again) == printed);
}

void checkStatus(const std::string& text) {
  const auto status = runel::parseJobStatus(text);
  if (status) {
    const auto again = runel::parseJobStatus(lineOf(*status) + "   \n");
    require(again && lineOf(*again) == lineOf(*status));
  }
}

// By streams: the words after the last ") ", of which the first is the state and the twentieth the
// start time.
void checkProcess(const std::string& text) {
  const auto start = runel::parseProcessStart(text);
  if (!start) {
    return;
  }
  std::istringstream words(text.substr(text.rfind(") ") + 2));
  std::string word;
  std::string state;
  std::getline(words, state, ' ');
  for (int field = 4; field <= 22; ++field) {
    std::getline(words, word, ' ');
  }
  while (!word.empty() && (word.back() == '\n' || word.back() == ' ')) {
    word.pop_back();
  }
  word.erase(0, std::min(word.find_first_not_of('0'), word.size() - 1));
  require(state != "Z" && std::to_string(*start) == word);
}

void checkNames(const std::string& text) {
  const auto number = runel::parseSegmentName(text, "out");
  require(!number || runel::parseSegmentName("out." + std::to_string(*number), "out") == number);
  if (runel::isJobId(text)) {
    require(text.find('/') == std::string::npos && text != "." && text != "..");
  }
  if (runel::isJobDirectory(text)) {
    const std::string closed = text + "/";
    require(text.front() == '/' && closed.find("//") == std::string::npos &&
            closed.find("/./") == std::string::npos && closed.find("/../") == std::string::npos);
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto [choice, text] = zell::fuzz::firstByteChooses(data, size);
  switch (choice % 4) {
    case 0:
      checkJobs(text);
      break;
    case 1:
      checkStatus(text);
      break;
    case 2:
      checkProcess(text);
      break;
    default:
      checkNames(text);
  }
  return 0;
}
