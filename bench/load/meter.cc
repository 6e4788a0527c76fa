// SPDX-License-Identifier: Apache-2.0
#include "meter.h"

#include <algorithm>
#include <chrono>
#include <fstream>

namespace zell::bench {

std::uint64_t Meter::processorTime() const {
  std::uint64_t time = 0;
  std::ifstream(directory_ + "schedstat") >> time;
  return time;
}

void Meter::forgetPeak() const {
  std::ofstream(directory_ + "clear_refs") << "5";
}

std::uint64_t Meter::status(const std::string& field) const {
  std::ifstream file(directory_ + "status");
  std::string word;
  while (file >> word) {
    if (word == field) {
      std::uint64_t value = 0;
      file >> value;
      return value;
    }
  }
  return 0;
}

std::uint64_t now() {
  const auto time = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(time).count());
}

std::uint64_t percentile(std::vector<std::uint64_t>& figures, double part) {
  if (figures.empty()) {
    return 0;
  }
  const auto place = static_cast<std::size_t>(static_cast<double>(figures.size() - 1) * part);
  std::nth_element(figures.begin(), figures.begin() + static_cast<std::ptrdiff_t>(place),
                   figures.end());
  return figures[place];
}

}  // namespace zell::bench
