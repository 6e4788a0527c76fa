// SPDX-License-Identifier: Apache-2.0
#include "commands/transfer_job.h"

#include <utility>

#include <runel/records.h>

#include "client/core/paths.h"
#include "output/text.h"

namespace runelctl {

std::string programTrouble(const std::string& program, const runel::Reply& reply) {
  const std::string line = reply.output().substr(0, reply.output().find('\n'));
  return reply.answered() && !line.empty() ? line : reply.error(program).text();
}

// The pipeline of the previous stage is the caller: destroy it in the next turn.
void TransferJob::pipe(Pipeline::Source source, std::function<void()> next) {
  auto old = std::make_shared<std::unique_ptr<Pipeline>>(std::move(pipeline_));
  loop().next([old] { old->reset(); });
  pipeline_ = std::make_unique<Pipeline>(device(), std::move(source), settings().memoryShare(),
                                         [this, next = std::move(next)] {
                                           if (outcome_.status != kExitNoConnection) {
                                             next();
                                           }
                                         });
  pipeline_->start();
}

void TransferJob::runPrograms(std::vector<ProgramRuns> runs, const std::string& what,
                              std::function<void()> next) {
  const auto handle = [this, what](const ProgramRun& run) {
    if (!alive(run.reply)) {
      return false;
    }
    if (!run.reply.ok()) {
      programFailed_ = true;
      if (!what.empty()) {
        warnOnce(what + ": " + programTrouble(run.program, run.reply));
      }
    }
    return true;
  };
  pipe(programSource(std::move(runs), handle), std::move(next));
}

bool TransferJob::programFailed() {
  return std::exchange(programFailed_, false);
}

bool TransferJob::alive(const runel::Reply& reply) {
  if (reply.answered()) {
    return true;
  }
  outcome_ = {exitStatusOf(reply), Error(reply.error())};
  finish(outcome_);
  return false;
}

void TransferJob::failed(const Error& error) {
  if (outcome_.error) {
    report().warn(error.what);
  } else {
    outcome_ = {kExitTaskFailed, error};
  }
}

void TransferJob::warnOnce(const std::string& what) {
  if (warned_.insert(what).second) {
    report().warn(what);
  }
}

void TransferJob::count(std::uint64_t bytes, const std::string& name) {
  bytes_ += bytes;
  skip(bytes, name);
}

void TransferJob::skip(std::uint64_t bytes, const std::string& name) {
  progressed_ += bytes;
  report().progress({progressed_, allBytes_, runel::baseName(name)});
}

void TransferJob::endTransfer() {
  report().result()["files"] = files_;
  report().result()["bytes"] = bytes_;
  if (report().style().outTerminal && !report().style().quiet) {
    report().line(countText(files_, "file") + ", " + sizeText(bytes_));
  }
  if (!warned_.empty() && !outcome_.error) {
    outcome_.status = kExitTaskFailed;
  }
  finish(outcome_);
}

}  // namespace runelctl
