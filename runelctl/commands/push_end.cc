// SPDX-License-Identifier: Apache-2.0
// The last stages of a push: modes and times, set by programs on the device, and checksums.
#include <algorithm>
#include <cstdio>
#include <map>
#include <utility>

#include "commands/push_job.h"

namespace runelctl {
namespace {

using Groups = std::map<std::string, std::vector<std::string>>;

std::vector<ProgramRuns> runsOf(const Groups& groups, const std::vector<std::string>& words) {
  std::vector<ProgramRuns> runs;
  for (const auto& [argument, names] : groups) {
    ProgramRuns run{words, names};
    run.words.push_back(argument);
    run.words.emplace_back("--");
    runs.push_back(std::move(run));
  }
  return runs;
}

}  // namespace

std::vector<PushJob::Item*> PushJob::sentItems() {
  std::vector<Item*> items;
  for (Items* list : {&small_, &big_}) {
    for (Item& item : *list) {
      if (!item.failed) {
        items.push_back(&item);
      }
    }
  }
  return items;
}

void PushJob::setModes() {
  Groups groups;
  for (const Item* item : sentItems()) {
    if (!item->complete) {
      groups[octalMode(item->entry->mode)].push_back(item->target);
    }
  }
  for (const Items* list : {&directories_, &modeOnly_}) {
    for (const Item& item : *list) {
      if (!item.complete) {
        groups[octalMode(item.entry->mode)].push_back(item.target);
      }
    }
  }
  runPrograms(runsOf(groups, {"chmod"}), "modes not preserved", [this] { setTimes(true); });
}

// Retries with whole seconds if the device's touch rejects fractions.
void PushJob::setTimes(bool fractions) {
  Groups groups;
  for (const Item* item : sentItems()) {
    if (!item->complete) {
      groups[touchTime(item->entry->mtime, fractions)].push_back(item->target);
    }
  }
  for (const Item& item : directories_) {
    if (!item.complete && directoriesChanged_) {
      groups[touchTime(item.entry->mtime, fractions)].push_back(item.target);
    }
  }
  (void)programFailed();
  runPrograms(runsOf(groups, {"touch", "-c", "-d"}), fractions ? "" : "times not preserved",
              [this, fractions] {
                if (programFailed() && fractions) {
                  setTimes(false);
                } else {
                  compareChecksums();
                }
              });
}

void PushJob::compareChecksums() {
  if (!plan_->checksum) {
    end();
    return;
  }
  ProgramRuns run{{"sha256sum", "--"}, {}};
  auto left = std::make_shared<std::vector<Item*>>(sentItems());
  for (const Item* item : *left) {
    run.names.push_back(item->target);
  }
  std::reverse(left->begin(), left->end());
  pipe(programSource({run},
                     [this, left](const ProgramRun& done) { return compareRun(done, *left); }),
       [this] { end(); });
}

// @p left has the items without a compared checksum; the next one is at its end.
bool PushJob::compareRun(const ProgramRun& done, std::vector<Item*>& left) {
  if (!alive(done.reply)) {
    return false;
  }
  const auto sums = parseChecksums(done.reply.output(), done.names.size());
  if (!done.reply.ok() || !sums) {
    warnOnce("checksums not verified: " + programTrouble(done.program, done.reply));
    return false;
  }
  for (const std::string& sum : *sums) {
    Item& item = *left.back();
    left.pop_back();
    if (localSha256(item.entry->path, item.entry->size) != sum) {
      itemFailed(item, {Fault::task, item.target + ": checksum mismatch", "retry the transfer", 0});
    }
  }
  return true;
}

void PushJob::end() {
  if (plan_->sync) {
    report().result()["removed"] = others_.size();
  }
  endTransfer();
}

std::optional<std::vector<std::string>> parseChecksums(std::string_view text, std::size_t count) {
  constexpr std::size_t kDigits = 64;
  std::vector<std::string> sums;
  while (!text.empty()) {
    // sha256sum starts the line with a backslash if the name zell::contains a newline or backslash.
    text.remove_prefix(text.front() == '\\' ? 1 : 0);
    const std::string_view digits = text.substr(0, kDigits);
    if (digits.size() != kDigits ||
        digits.find_first_not_of("0123456789abcdef") != std::string_view::npos) {
      return std::nullopt;
    }
    sums.emplace_back(digits);
    const std::size_t end = text.find('\n');
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  return sums.size() == count ? std::make_optional(std::move(sums)) : std::nullopt;
}

}  // namespace runelctl
