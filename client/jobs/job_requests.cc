// SPDX-License-Identifier: Apache-2.0
#include "client/jobs/job_requests.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <utility>

#include <sys/random.h>

#include "client/jobs/job_scripts.h"

namespace runel {
namespace {

// For the texts, not for the program. They wait for the disk, and for nothing else.
constexpr int kScriptSeconds = 60;
constexpr std::uint64_t kJobSegment = 1048576;
constexpr std::uint64_t kLeastSegment = 4096;
constexpr std::size_t kLongestCommand = 1000;
constexpr std::size_t kShortAnswer = 65536;
constexpr std::size_t kLongAnswer = std::size_t{16} * 1024 * 1024 + 65536;

const char* const kStartModes[] = {"start", "claim", "run"};

Request scriptRequest(const std::string& script, std::vector<std::string> arguments,
                      std::size_t mostBytes) {
  std::vector<std::string> words{"/bin/sh", "-c", script, "sh"};
  words.insert(words.end(), std::make_move_iterator(arguments.begin()),
               std::make_move_iterator(arguments.end()));
  Request request = Request::exec(std::move(words), kScriptSeconds);
  request.setReplyLimit(mostBytes);
  return request;
}

// Sixteen segments, so that readers can make room in small steps.
std::uint64_t segmentFor(std::uint64_t limit) {
  const std::uint64_t share = limit / 16 / kLeastSegment * kLeastSegment;
  return std::clamp(share, kLeastSegment, kJobSegment);
}

std::string firstLineOf(const std::string& text) {
  return text.substr(0, text.find('\n'));
}

bool needsQuotes(const std::string& word) {
  constexpr char kPlain[] =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789%+,-./:=@_";
  return word.empty() || word.find_first_not_of(kPlain) != std::string::npos;
}

void appendQuoted(std::string& text, const std::string& word) {
  text += '\'';
  for (const char byte : word) {
    text += byte == '\'' ? std::string("'\\''") : std::string(1, byte == '\n' ? ' ' : byte);
  }
  text += '\'';
}

}  // namespace

Request startJob(const JobPlace& place, const JobPlan& plan, JobStart part) {
  std::vector<std::string> arguments{kStartModes[static_cast<std::size_t>(part)],
                                     place.directory,
                                     place.id,
                                     std::to_string(plan.limit),
                                     std::to_string(segmentFor(plan.limit)),
                                     std::to_string(plan.seconds),
                                     plan.sweepPrefix,
                                     std::to_string(plan.sweepDays),
                                     plan.workingDirectory,
                                     commandText(plan.words),
                                     plan.token};
  arguments.insert(arguments.end(), plan.words.begin(), plan.words.end());
  return scriptRequest(startScript(), std::move(arguments), kShortAnswer);
}

Request showJob(const JobPlace& place) {
  return scriptRequest(showScript(), {place.directory, place.id}, kShortAnswer);
}

Request listJobs(const std::string& directory) {
  return scriptRequest(showScript(), {directory}, kLongAnswer);
}

Request signalJob(const JobPlace& place, const std::string& name) {
  return scriptRequest(signalScript(), {place.directory, place.id, name}, kShortAnswer);
}

Request removeJob(const JobPlace& place) {
  return scriptRequest(removeScript(), {place.directory, place.id}, kShortAnswer);
}

JobAnswer jobAnswerOf(const Reply& reply) {
  if (reply.ok()) {
    return JobAnswer::done;
  }
  if (!reply.answered() || reply.state() != ProgramState::exited) {
    return JobAnswer::failed;
  }
  switch (static_cast<JobExit>(reply.result())) {
    case JobExit::same:
      return JobAnswer::done;
    case JobExit::exists:
      return JobAnswer::exists;
    case JobExit::unsafePath:
    case JobExit::noDirectory:
      return JobAnswer::noDirectory;
    case JobExit::noSpace:
      return JobAnswer::notWritten;
    case JobExit::notStarted:
    case JobExit::notRunning:
      return JobAnswer::notRunning;
    case JobExit::missing:
      return JobAnswer::noJob;
    case JobExit::running:
      return JobAnswer::running;
    default:
      return JobAnswer::failed;
  }
}

Error jobErrorOf(const Reply& reply, const JobPlace& place) {
  const std::string job = "job " + place.id;
  const std::string said = firstLineOf(reply.output());
  switch (jobAnswerOf(reply)) {
    case JobAnswer::exists:
      return {Kind::device, Cause::other, job + " exists already", EEXIST};
    case JobAnswer::noDirectory:
      return {Kind::device, Cause::other, "the device has no safe directory for jobs: " + said,
              EPERM};
    case JobAnswer::notWritten:
      return {Kind::device, Cause::other, said, ENOSPC};
    case JobAnswer::notRunning:
      return {Kind::device, Cause::other, job + " does not run", ESRCH};
    case JobAnswer::noJob:
      return {Kind::device, Cause::other, "no such job: " + place.id, ENOENT};
    case JobAnswer::running:
      return {Kind::device, Cause::other, job + " is running", EBUSY};
    default:
      break;
  }
  const bool told = reply.answered() && reply.state() == ProgramState::exited && !said.empty();
  return told ? Error(Kind::device, Cause::other, job + ": " + said) : reply.error(job);
}

Result<std::vector<JobRecord>> jobsIn(const Reply& reply, const JobPlace& place) {
  const JobAnswer answer = jobAnswerOf(reply);
  if (answer == JobAnswer::noJob) {
    return std::vector<JobRecord>();
  }
  if (answer != JobAnswer::done) {
    return jobErrorOf(reply, place);
  }
  std::optional<std::vector<JobRecord>> jobs = parseJobs(reply.output());
  if (!jobs) {
    return Error(Kind::link, Cause::protocol, "malformed list of jobs");
  }
  return *std::move(jobs);
}

std::string newJobToken() {
  constexpr char kHexDigits[] = "0123456789abcdef";
  unsigned char bytes[8] = {};
  (void)getrandom(bytes, sizeof bytes, 0);  // cannot fail: the kernel has this call since 3.17
  std::string token;
  for (const unsigned char byte : bytes) {
    token += kHexDigits[byte >> 4U];
    token += kHexDigits[byte & 15U];
  }
  return token;
}

std::string commandText(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) {
    text += text.empty() ? "" : " ";
    if (needsQuotes(word)) {
      appendQuoted(text, word);
    } else {
      text += word;
    }
  }
  return text.substr(0, kLongestCommand);
}

}  // namespace runel
