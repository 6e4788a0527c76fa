// SPDX-License-Identifier: Apache-2.0
#include "client/fleet/waves.h"

#include <algorithm>
#include <charconv>
#include <sstream>
#include <system_error>

namespace runel {
namespace {

constexpr std::size_t kHundred = 100;

bool parseWave(const std::string& word, std::size_t devices, std::size_t& size) {
  if (word == "rest") {
    size = devices;
    return true;
  }
  const char* end = word.data() + word.size();
  const auto [stop, error] = std::from_chars(word.data(), end, size);
  if (error != std::errc() || size == 0) {
    return false;
  }
  if (stop + 1 == end && *stop == '%' && size <= kHundred) {
    size = std::max<std::size_t>(1, devices * size / kHundred);
    return true;
  }
  return stop == end;
}

}  // namespace

bool parseWaves(const std::string& text, std::size_t devices, std::vector<std::size_t>& sizes) {
  std::size_t left = devices;
  std::istringstream words(text);
  std::string word;
  while (std::getline(words, word, ',')) {
    std::size_t size = 0;
    if (!parseWave(word, devices, size)) {
      return false;
    }
    size = std::min(size, left);
    left -= size;
    if (size > 0) {
      sizes.push_back(size);
    }
  }
  if (left > 0) {
    sizes.push_back(left);
  }
  return true;
}

}  // namespace runel
