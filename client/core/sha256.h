// SPDX-License-Identifier: Apache-2.0
// SHA-256, to compare a local file with the output of the device's sha256sum.
#ifndef RUNEL_CORE_SHA256_H_
#define RUNEL_CORE_SHA256_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace runel {

class Sha256 {
 public:
  void add(std::string_view bytes);
  /// Returns 64 lower-case hex digits. Do not call `add` afterwards.
  [[nodiscard]] std::string finish();

 private:
  std::array<std::uint32_t, 8> state_{0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                      0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
  std::string rest_;  // less than a block
  std::uint64_t length_ = 0;
};

}  // namespace runel

#endif  // RUNEL_CORE_SHA256_H_
