// SPDX-License-Identifier: Apache-2.0
#include "client/transfer/checksums.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "client/core/sha256.h"
#include "client/transfer/local_file.h"
#include "client/transfer/programs.h"

namespace runel {
namespace {

// Files whose checksums arrive in their order, a few at a time.
class Comparison {
 public:
  Comparison(std::vector<Twin> files, Verdicts verdicts)
      : files_(std::move(files)), verdicts_(std::move(verdicts)) {}

  [[nodiscard]] std::vector<std::string> names() const {
    std::vector<std::string> names;
    for (const Twin& file : files_) {
      names.push_back(file.remote);
    }
    return names;
  }

  void take(const ProgramRun& run) {
    const auto sums = parseChecksums(run.reply.output(), run.names.size());
    if (!run.reply.ok() || !sums) {
      next_ += run.names.size();
      verdicts_.unknown(programTrouble(run.program, run.reply));
      return;
    }
    for (const std::string& sum : *sums) {
      const Twin& file = files_[next_];
      verdicts_.compared(next_++, localSha256(file.local, file.size) == sum);
    }
  }

 private:
  const std::vector<Twin> files_;
  const Verdicts verdicts_;
  std::size_t next_ = 0;
};

}  // namespace

void compareChecksums(TransferWork& work, std::vector<Twin> files, Verdicts verdicts,
                      std::function<void()> next) {
  const auto comparison = std::make_shared<Comparison>(std::move(files), std::move(verdicts));
  ProgramRuns run{{"sha256sum", "--"}, comparison->names()};
  const auto handle = [comparison](const ProgramRun& done) {
    comparison->take(done);
    return true;
  };
  work.pipe(programSource({std::move(run)}, handle), std::move(next));
}

void verifyChecksums(TransferWork& work, std::vector<Twin> files,
                     std::function<void(std::size_t index)> mismatch, std::function<void()> next) {
  Verdicts verdicts;
  verdicts.compared = [mismatch = std::move(mismatch)](std::size_t index, bool same) {
    if (!same) {
      mismatch(index);
    }
  };
  verdicts.unknown = [&work](const std::string& why) {
    work.warnOnce("checksums not verified: " + why);
  };
  compareChecksums(work, std::move(files), std::move(verdicts), std::move(next));
}

std::optional<std::vector<std::string>> parseChecksums(std::string_view text, std::size_t count) {
  constexpr std::size_t kDigits = 64;
  std::vector<std::string> sums;
  while (!text.empty()) {
    // sha256sum starts the line with a backslash if the name contains a newline or backslash.
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

std::optional<std::string> localSha256(const LocalPath& path, std::uint64_t count) {
  constexpr std::size_t kPart = 1048576;
  LocalReader reader;
  if (reader.open(path) || reader.size() < count) {
    return std::nullopt;
  }
  Sha256 hash;
  std::string bytes;
  for (std::uint64_t offset = 0; offset < count; offset += bytes.size()) {
    const auto part = static_cast<std::size_t>(std::min<std::uint64_t>(kPart, count - offset));
    if (reader.read(offset, part, bytes)) {
      return std::nullopt;
    }
    hash.add(bytes);
  }
  return hash.finish();
}

Error checksumMismatch(Kind kind, const std::string& path) {
  return Error(kind, Cause::checksum, path + ": checksum mismatch");
}

}  // namespace runel
