// SPDX-License-Identifier: Apache-2.0
#include "shell/words.h"

#include <utility>

#include "base/blank.h"

namespace runelctl {
namespace {

// Parses one line byte by byte.
class Cutter {
 public:
  void take(char byte, std::size_t place) {
    if (escaped_) {
      word_ += byte;
      escaped_ = false;
    } else if (quote_ != '\0') {
      takeQuoted(byte);
    } else if (zell::isBlank(byte)) {
      finish();
    } else {
      begin(place);
      takePlain(byte);
    }
  }

  Line end(std::size_t length) {
    line_.open = escaped_ || quote_ != '\0';
    line_.inWord = within_;
    if (!within_) {
      line_.last = length;
    }
    finish();
    return std::move(line_);
  }

  [[nodiscard]] bool betweenWords() const { return !within_; }

 private:
  void begin(std::size_t place) {
    if (!within_) {
      within_ = true;
      line_.last = place;
    }
  }

  void takePlain(char byte) {
    if (byte == '\\') {
      escaped_ = true;
    } else if (byte == '\'' || byte == '"') {
      quote_ = byte;
    } else {
      word_ += byte;
    }
  }

  void takeQuoted(char byte) {
    if (byte == quote_) {
      quote_ = '\0';
    } else if (byte == '\\' && quote_ == '"') {
      escaped_ = true;
    } else {
      word_ += byte;
    }
  }

  void finish() {
    if (within_) {
      line_.words.push_back(std::move(word_));
      word_.clear();
      within_ = false;
    }
  }

  Line line_;
  std::string word_;
  bool within_ = false;
  bool escaped_ = false;
  char quote_ = '\0';
};

}  // namespace

Line cutLine(std::string_view text) {
  Cutter cutter;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '#' && cutter.betweenWords()) {
      return cutter.end(i);
    }
    cutter.take(text[i], i);
  }
  return cutter.end(text.size());
}

std::string quoteWord(std::string_view word) {
  static constexpr std::string_view kSpecial = " \t'\"\\#";
  std::string text;
  for (const char byte : word) {
    if (kSpecial.find(byte) != std::string_view::npos) {
      text += '\\';
    }
    text += byte;
  }
  return text.empty() ? "''" : text;
}

}  // namespace runelctl
