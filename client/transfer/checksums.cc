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
  Comparison(TransferWork& work, std::vector<Twin> files) : work_(work), files_(std::move(files)) {}

  [[nodiscard]] std::vector<std::string> names() const {
    std::vector<std::string> names;
    for (const Twin& file : files_) {
      names.push_back(file.remote);
    }
    return names;
  }

  // Returns false to stop.
  bool take(const ProgramRun& run) {
    const auto sums = parseChecksums(run.reply.output(), run.names.size());
    if (!run.reply.ok() || !sums) {
      work_.warnOnce("checksums not verified: " + programTrouble(run.program, run.reply));
      return false;
    }
    for (const std::string& sum : *sums) {
      const Twin& file = files_[next_++];
      if (localSha256(file.local, file.size) != sum) {
        work_.fail(file.mismatch);
      }
    }
    return true;
  }

 private:
  TransferWork& work_;
  const std::vector<Twin> files_;
  std::size_t next_ = 0;
};

}  // namespace

void compareChecksums(TransferWork& work, std::vector<Twin> files, std::function<void()> next) {
  const auto comparison = std::make_shared<Comparison>(work, std::move(files));
  ProgramRuns run{{"sha256sum", "--"}, comparison->names()};
  work.pipe(programSource({std::move(run)},
                          [comparison](const ProgramRun& done) { return comparison->take(done); }),
            std::move(next));
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

std::optional<std::string> localSha256(const std::string& path, std::uint64_t count) {
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
