// SPDX-License-Identifier: Apache-2.0
#include "commands/lists.h"

#include <CLI/CLI.hpp>

namespace runelctl {

EachPathJob::EachPathJob(JobContext context, std::vector<std::string> paths)
    : Job(std::move(context)), paths_(std::move(paths)) {}

void EachPathJob::start() {
  if (!settings().dryRun) {
    visit(paths_[next_]);
    return;
  }
  for (const std::string& path : paths_) {
    visit(path);
  }
}

void EachPathJob::visited(const runel::Reply& reply, const std::string& path) {
  if (!reply.answered()) {
    fail(reply.error());
    return;
  }
  if (!reply.ok()) {
    const Error error = reply.error(path);
    if (outcome_.error) {
      report().warn(error.what);
    } else {
      outcome_ = {kExitTaskFailed, error};
    }
  }
  if (++next_ == paths_.size()) {
    finish(outcome_);
  } else {
    visit(paths_[next_]);
  }
}

void PathsCommand::define(CLI::App& app) {
  auto* option = app.add_option("PATH", paths_);
  if (fallback_.empty()) {
    option->required();
  }
}

std::vector<std::string> PathsCommand::paths(const Settings& settings) const {
  std::vector<std::string> all = paths_;
  if (all.empty()) {
    all.push_back(fallback_ == "." && settings.directory.empty() ? "/" : fallback_);
  }
  for (std::string& path : all) {
    path = settings.remote(path);
  }
  return all;
}

}  // namespace runelctl
