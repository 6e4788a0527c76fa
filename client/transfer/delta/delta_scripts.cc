// SPDX-License-Identifier: Apache-2.0
#include "client/transfer/delta/delta_scripts.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "client/core/paths.h"

namespace runel {
namespace {

constexpr std::uint64_t kBytesOfSumRequest = 16777216;
constexpr std::uint64_t kBlocksOfSumRequest = 64;
constexpr std::uint64_t kMostUnit = 65536;

// DIRECTORY. Without df, or in a directory that it cannot name, the free space is unknown.
constexpr char kToolsText[] =
    "for p in dd cksum sha256sum\n"
    "do command -v \"$p\" >/dev/null 2>&1 || { echo \"missing $p\"; exit 0; }\n"
    "done\n"
    "echo complete\n"
    "df -P -k \"$1\" 2>/dev/null\n"
    "exit 0\n";

// FILE UNIT COUNT, then FIRST and END of each range, in blocks of COUNT units. The shell starts two
// processes for a block, and that takes longer than their work. So a second shell has half of them,
// whose sums wait in the pipe.
constexpr char kSumsText[] =
    "sums() {\n"
    "  while [ \"$1\" -lt \"$2\" ]\n"
    "  do\n"
    "    dd if=\"$file\" bs=\"$unit\" skip=$(($1 * count)) count=\"$count\" 2>/dev/null | cksum || "
    "exit 1\n"
    "    set -- $(($1 + 1)) \"$2\"\n"
    "  done\n"
    "}\n"
    "file=$1 unit=$2 count=$3\n"
    "shift 3\n"
    "while [ $# -gt 1 ]\n"
    "do\n"
    "  half=$((($1 + $2) / 2))\n"
    "  sums $half \"$2\" | { sums \"$1\" $half; cat; } || exit 1\n"
    "  shift 2\n"
    "done\n";

// FILE BLOCK, then FIRST and COUNT of each part, in blocks. Two parts at the same time. Where there
// is openssl, it uses the processor's own instructions, but it takes longer to start.
constexpr char kDigestsText[] =
    "read_part() {\n"
    "  dd if=\"$file\" bs=\"$block\" skip=\"$1\" count=\"$2\" 2>/dev/null\n"
    "}\n"
    "digest() {\n"
    "  if $openssl && [ $((block * $2)) -ge 2097152 ] &&\n"
    "    read_part \"$1\" \"$2\" | openssl dgst -sha256 -r 2>/dev/null\n"
    "  then :\n"
    "  else read_part \"$1\" \"$2\" | sha256sum || exit 1\n"
    "  fi\n"
    "}\n"
    "file=$1 block=$2 openssl=false\n"
    "! command -v openssl >/dev/null 2>&1 || openssl=true\n"
    "shift 2\n"
    "while [ $# -gt 3 ]\n"
    "do\n"
    "  digest \"$3\" \"$4\" | { digest \"$1\" \"$2\"; cat; } || exit 1\n"
    "  shift 4\n"
    "done\n"
    "[ $# -lt 2 ] || digest \"$1\" \"$2\"\n";

// FILE TO BLOCK FIRST COUNT.
constexpr char kCopyText[] =
    "[ -f \"$2\" ] && [ ! -h \"$2\" ] || exit 1\n"
    "exec dd if=\"$1\" bs=\"$3\" skip=\"$4\" count=\"$5\" 2>/dev/null >>\"$2\"\n";

// The longest unit with which dd can read a part with these borders. A process with a longer buffer
// begins slower.
std::uint64_t unitOf(std::uint64_t begin, std::uint64_t end) {
  std::uint64_t unit = kMostUnit;
  while (unit > kShortBlock && (begin % unit != 0 || end % unit != 0)) {
    unit /= 2;
  }
  return unit;
}

// Cuts the first blocks from @p left, for one request.
BlockList takeBlocks(BlockList& left) {
  std::uint64_t most = std::min(kBytesOfSumRequest / left.length, kBlocksOfSumRequest);
  BlockList taken{left.length, {}};
  while (most != 0 && !left.ranges.empty()) {
    FileRange& range = left.ranges.front();
    const std::uint64_t end = std::min(range.end, range.begin + most * left.length);
    taken.ranges.push_back({range.begin, end});
    most -= (end - range.begin) / left.length;
    range.begin = end;
    if (range.size() == 0) {
      left.ranges.erase(left.ranges.begin());
    }
  }
  return taken;
}

}  // namespace

Request shellRequest(const std::string& text, std::vector<std::string> arguments) {
  std::vector<std::string> words{"sh", "-c", text, "sh"};
  std::move(arguments.begin(), arguments.end(), std::back_inserter(words));
  return Request::exec(words, 0);
}

Request askForTools(const std::string& target) {
  return shellRequest(kToolsText, {directoryOf(target)});
}

std::vector<SumRequest> askForSums(const std::string& file, const BlockList& blocks) {
  std::vector<SumRequest> requests;
  for (BlockList left = blocks; !left.ranges.empty();) {
    BlockList taken = takeBlocks(left);
    const std::uint64_t unit = unitOf(0, taken.length);
    std::vector<std::string> arguments{file, std::to_string(unit),
                                       std::to_string(taken.length / unit)};
    for (const FileRange& range : taken.ranges) {
      arguments.push_back(std::to_string(range.begin / taken.length));
      arguments.push_back(std::to_string(range.end / taken.length));
    }
    requests.push_back({shellRequest(kSumsText, std::move(arguments)), std::move(taken)});
  }
  return requests;
}

Request askForDigests(const std::string& file, const std::vector<FileRange>& parts) {
  std::uint64_t unit = kMostUnit;
  for (const FileRange& part : parts) {
    const bool last = part.end % kShortBlock != 0;
    unit = std::min(unit, unitOf(part.begin, last ? 0 : part.end));
  }
  std::vector<std::string> arguments{file, std::to_string(unit)};
  for (const FileRange& part : parts) {
    arguments.push_back(std::to_string(part.begin / unit));
    arguments.push_back(std::to_string((part.size() + unit - 1) / unit));
  }
  return shellRequest(kDigestsText, std::move(arguments));
}

Request copyPart(const std::string& file, const FileRange& part, const std::string& to) {
  const std::uint64_t block = unitOf(part.begin, part.end);
  return shellRequest(kCopyText,
                      {file, to, std::to_string(block), std::to_string(part.begin / block),
                       std::to_string(part.size() / block)});
}

}  // namespace runel
