// SPDX-License-Identifier: Apache-2.0
#include "output/table.h"

#include <algorithm>
#include <cstddef>

#include "output/text.h"

namespace runelctl {
namespace {

constexpr std::size_t kColumnGap = 2;

std::size_t columnsOf(const std::string& text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char byte) {
    return (static_cast<unsigned char>(byte) & 0xc0U) != 0x80;
  }));
}

}  // namespace

std::string tableText(const Table& table) {
  std::vector<std::size_t> widths;
  Table safe = table;
  for (auto& cells : safe) {
    widths.resize(cells.size());
    for (std::size_t i = 0; i < cells.size(); ++i) {
      cells[i] = terminalSafe(cells[i]);
      widths[i] = std::max(widths[i], columnsOf(cells[i]));
    }
  }
  std::string lines;
  for (const auto& cells : safe) {
    std::string line;
    for (std::size_t i = 0; i < cells.size(); ++i) {
      line += cells[i] + std::string(widths[i] - columnsOf(cells[i]) + kColumnGap, ' ');
    }
    line.erase(line.find_last_not_of(' ') + 1);
    lines += line + "\n";
  }
  return lines;
}

}  // namespace runelctl
