// SPDX-License-Identifier: Apache-2.0
#include "client/transfer/programs.h"

#include <cstdio>
#include <memory>
#include <utility>

#include "base/file_mode.h"

namespace runel {
namespace {

// Well below the argument list limit of small systems.
constexpr std::size_t kMostNames = 1000;
constexpr std::size_t kMostNameBytes = 98304;

struct RunList {
  std::vector<ProgramRuns> runs;
  std::function<bool(const ProgramRun&)> handle;
  std::size_t run = 0;
  std::size_t name = 0;

  // Returns nullptr at the end.
  const ProgramRuns* current() {
    while (run < runs.size() && name == runs[run].names.size()) {
      ++run;
      name = 0;
    }
    return run == runs.size() ? nullptr : &runs[run];
  }
  std::vector<std::string> takeNames() {
    std::vector<std::string> taken;
    const std::vector<std::string>& all = runs[run].names;
    for (std::size_t bytes = 0;
         name < all.size() && taken.size() < kMostNames && bytes < kMostNameBytes; ++name) {
      taken.push_back(all[name]);
      bytes += taken.back().size() + 1;
    }
    return taken;
  }
};

}  // namespace

Pipeline::Source programSource(std::vector<ProgramRuns> runs,
                               std::function<bool(const ProgramRun& run)> handle) {
  auto list = std::make_shared<RunList>(RunList{std::move(runs), std::move(handle)});
  return [list]() -> std::optional<Pipeline::Item> {
    const ProgramRuns* const run = list->current();
    if (run == nullptr) {
      return std::nullopt;
    }
    std::vector<std::string> names = list->takeNames();
    std::vector<std::string> words = run->words;
    words.insert(words.end(), names.begin(), names.end());
    return Pipeline::Item{Request::exec(words, 0), kMostNameBytes,
                          [list, names = std::move(names), program = words[0]](const Reply& reply) {
                            return list->handle({program, names, reply});
                          }};
  };
}

void runPrograms(TransferWork& work, std::vector<ProgramRuns> runs, const std::string& what,
                 std::function<void()> next) {
  const auto handle = [&work, what](const ProgramRun& run) {
    if (!run.reply.ok()) {
      work.warnOnce(what + ": " + programTrouble(run.program, run.reply));
    }
    return true;
  };
  work.pipe(programSource(std::move(runs), handle), std::move(next));
}

std::vector<ProgramRuns> runsOf(const NamesByArgument& groups,
                                const std::vector<std::string>& words) {
  std::vector<ProgramRuns> runs;
  for (const auto& [argument, names] : groups) {
    ProgramRuns run{words, names};
    run.words.push_back(argument);
    run.words.emplace_back("--");
    runs.push_back(std::move(run));
  }
  return runs;
}

std::string programTrouble(const std::string& program, const Reply& reply) {
  const std::string line = reply.output().substr(0, reply.output().find('\n'));
  return line.empty() ? reply.error(program).text() : line;
}

std::string octalMode(std::uint32_t mode) {
  char text[16];
  std::snprintf(text, sizeof text, "%04o", mode & zell::kPermissionBits);
  return text;
}

std::string touchTime(const Timestamp& time, bool fractions) {
  char text[64];
  if (fractions) {
    std::snprintf(text, sizeof text, "@%lld.%09lld", static_cast<long long>(time.seconds),
                  static_cast<long long>(time.nanoseconds));
  } else {
    std::snprintf(text, sizeof text, "@%lld", static_cast<long long>(time.seconds));
  }
  return text;
}

}  // namespace runel
