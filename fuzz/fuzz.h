// SPDX-License-Identifier: Apache-2.0
// Helpers for the fuzz targets.
#ifndef ZELL_FUZZ_FUZZ_H_
#define ZELL_FUZZ_FUZZ_H_

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace zell::fuzz {

inline std::string toString(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/// An input whose first byte selects a variant. An empty input selects 0.
struct Choice {
  unsigned choice;
  std::string rest;
};

inline Choice firstByteChooses(const std::uint8_t* data, std::size_t size) {
  return size == 0 ? Choice{0, {}} : Choice{data[0], toString(data + 1, size - 1)};
}

/// Aborts when @p holds is false, which the fuzzer reports as a crash.
inline void require(bool holds) {
  if (!holds) {
    std::abort();
  }
}

}  // namespace zell::fuzz

#endif  // ZELL_FUZZ_FUZZ_H_
