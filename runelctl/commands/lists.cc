// SPDX-License-Identifier: Apache-2.0
#include "commands/lists.h"

#include <algorithm>

#include <CLI/CLI.hpp>

namespace runelctl {

EachPathJob::EachPathJob(JobContext context, std::vector<std::string> paths)
    : Job(std::move(context)), paths_(std::move(paths)) {}

void EachPathJob::start() {
  if (paths_.empty()) {
    finish(outcome_);
    return;
  }
  if (!settings().dryRun) {
    visit(paths_[next_]);
    return;
  }
  for (const std::string& path : paths_) {
    visit(path);
  }
}

void EachPathJob::failPath(const Error& error) {
  if (outcome_.error) {
    report().warn(error.what);
  } else {
    outcome_ = {kExitTaskFailed, error};
  }
}

void EachPathJob::visited(const runel::Reply& reply, const std::string& path) {
  if (!reply.answered()) {
    fail(reply.error());
    return;
  }
  if (!reply.ok()) {
    failPath(reply.error(path));
  }
  if (++next_ == paths_.size()) {
    finish(outcome_);
  } else {
    visit(paths_[next_]);
  }
}

EachMatchJob::EachMatchJob(JobContext context, const std::vector<std::string>& words)
    : EachPathJob(std::move(context), {}),
      words_(words),
      expander_([this](const runel::Request& request,
                       runel::ReplyHandler handler) { ask(request, std::move(handler)); },
                settings().directory) {}

bool EachMatchJob::hasPatterns() const {
  return std::any_of(words_.begin(), words_.end(), isPattern);
}

void EachMatchJob::start() {
  if (settings().dryRun) {
    startDry();
    return;
  }
  expander_.expand(words_, [this](PathExpander::Expanded expanded) {
    if (expanded.lost) {
      fail(expanded.lost->error());
      return;
    }
    for (const Error& failure : expanded.failures) {
      failPath(failure);
    }
    setPaths(std::move(expanded.paths));
    EachPathJob::start();
  });
}

// The paths that a pattern matches are unknown.
void EachMatchJob::startDry() {
  expander_.askFirst(words_);
  for (const std::string& word : words_) {
    if (!isPattern(word)) {
      visit(remote(word));
    }
  }
}

std::string EachMatchJob::sentLater() const {
  const std::string visits = laterOfVisits();
  return hasPatterns()
             ? PathExpander::laterText() + taskText() + (visits.empty() ? "" : "; " + visits)
             : visits;
}

void PathsCommand::define(CLI::App& app) {
  auto* option = app.add_option("PATH", paths_);
  if (fallback_.empty()) {
    option->required();
  }
}

std::vector<std::string> PathsCommand::words(const Settings& settings) const {
  std::vector<std::string> all = paths_;
  if (all.empty()) {
    all.push_back(fallback_ == "." && settings.directory.empty() ? "/" : fallback_);
  }
  return all;
}

std::vector<std::string> PathsCommand::paths(const Settings& settings) const {
  std::vector<std::string> all = words(settings);
  for (std::string& path : all) {
    path = settings.remote(path);
  }
  return all;
}

}  // namespace runelctl
