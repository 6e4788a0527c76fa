// SPDX-License-Identifier: Apache-2.0
#include "commands/bzip2.h"

#include <bzlib.h>

namespace runelctl {

std::string bzip2(std::string_view bytes) {
  constexpr int kLargestBlocks = 9;
  constexpr std::size_t kMostOverhead = 600;  // beside a hundredth of the bytes
  std::string packed(bytes.size() + bytes.size() / 100 + kMostOverhead, '\0');
  auto size = static_cast<unsigned>(packed.size());
  // The function has no const parameter and changes nothing.
  const bool complete =
      BZ2_bzBuffToBuffCompress(packed.data(), &size, const_cast<char*>(bytes.data()),
                               static_cast<unsigned>(bytes.size()), kLargestBlocks, 0, 0) == BZ_OK;
  packed.resize(complete ? size : 0);
  return packed;
}

}  // namespace runelctl
