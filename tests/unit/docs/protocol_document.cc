// SPDX-License-Identifier: Apache-2.0
#include "protocol_document.h"

#include <algorithm>
#include <sstream>

#include "support/temp_dir.h"

namespace zell::test {
namespace {

constexpr char kFence[] = "```";

std::vector<std::string> linesOfDocument() {
  std::istringstream text(contentOf(RUNELD_DOCS "/protocol.md"));
  std::vector<std::string> lines;
  for (std::string line; std::getline(text, line);) {
    lines.push_back(line);
  }
  return lines;
}

std::string trimmed(const std::string& text) {
  const std::size_t begin = std::min(text.find_first_not_of(' '), text.size());
  return text.substr(begin, text.find_last_not_of(' ') + 1 - begin);
}

std::vector<std::string> cellsOf(const std::string& row) {
  std::vector<std::string> cells;
  std::istringstream text(row.substr(1));
  for (std::string cell; std::getline(text, cell, '|');) {
    cells.push_back(trimmed(cell));
  }
  return cells;
}

char unescaped(char letter) {
  switch (letter) {
    case 'n':
      return '\n';
    case 'r':
      return '\r';
    case 't':
      return '\t';
    default:
      return letter;
  }
}

}  // namespace

std::vector<Block> blocksOf(const std::string& kind) {
  std::vector<Block> blocks;
  bool inside = false;
  for (const std::string& line : linesOfDocument()) {
    if (line == kFence + kind) {
      inside = true;
      blocks.emplace_back();
    } else if (line == kFence) {
      inside = false;
    } else if (inside) {
      blocks.back().push_back(line);
    }
  }
  return blocks;
}

std::vector<std::vector<std::string>> taskRows() {
  std::vector<std::vector<std::string>> rows;
  bool inside = false;
  for (const std::string& line : linesOfDocument()) {
    const bool isRow = !line.empty() && line[0] == '|';
    if (isRow && cellsOf(line).front() == "task") {
      inside = true;
    } else if (inside && isRow && line.find_first_not_of("|-") != std::string::npos) {
      rows.push_back(cellsOf(line));
    }
    inside = inside && isRow;
  }
  return rows;
}

std::pair<std::string, std::string> hexLine(const std::string& line) {
  const std::size_t end = std::min(line.find("  "), line.size());
  std::istringstream text(line.substr(0, end));
  std::string bytes;
  for (std::string byte; text >> byte;) {
    bytes.push_back(static_cast<char>(std::stoi(byte, nullptr, 16)));
  }
  return {bytes, trimmed(line.substr(end))};
}

std::string quoted(const std::string& line) {
  const std::size_t begin = line.find('"') + 1;
  const std::string text = line.substr(begin, line.rfind('"') - begin);
  std::string bytes;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '\\') {
      bytes.push_back(text[at]);
    } else if (text[++at] != 'x') {
      bytes.push_back(unescaped(text[at]));
    } else {
      bytes.push_back(static_cast<char>(std::stoi(text.substr(at + 1, 2), nullptr, 16)));
      at += 2;
    }
  }
  return bytes;
}

}  // namespace zell::test
