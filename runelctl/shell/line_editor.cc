// SPDX-License-Identifier: Apache-2.0
#include "shell/line_editor.h"

#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include "output/standard_output.h"
#include "output/text.h"

namespace runelctl {
namespace {

constexpr int kHistorySize = 1000;
constexpr std::size_t kMostWordsShown = 200;

volatile std::sig_atomic_t interrupted = 0;

void onInterrupt(int) {
  interrupted = 1;
}

// The editor runs only on a terminal.
Style terminalStyle() {
  Style style;
  style.outTerminal = true;
  return style;
}

// Names are UTF-8, independent of the locale.
void useUtf8() {
  (void)std::setlocale(LC_CTYPE, "");  // on failure it is "C", which the next line detects
  if (MB_CUR_MAX == 1) {
    (void)std::setlocale(LC_CTYPE, "C.UTF-8");
  }
}

}  // namespace

LineEditor::LineEditor(std::string historyFile, Complete complete)
    : historyFile_(std::move(historyFile)),
      complete_(std::move(complete)),
      editor_((useUtf8(), el_init("runelctl", stdin, stdout, stderr))),
      history_(history_init()) {
  HistEvent event;
  (void)history(history_.get(), &event, H_SETSIZE, kHistorySize);
  (void)history(history_.get(), &event, H_SETUNIQUE, 1);
  if (!historyFile_.empty()) {
    (void)history(history_.get(), &event, H_LOAD,
                  historyFile_.c_str());  // the file may not exist yet
  }
  // SIGINT interrupts a read. Between two lines it must not end the process either.
  struct sigaction action {};
  action.sa_handler = onInterrupt;
  (void)sigaction(SIGINT, &action, &before_);  // the arguments are valid
  el_set(editor_.get(), EL_CLIENTDATA, this);
  el_set(editor_.get(), EL_PROMPT, &LineEditor::prompt);
  el_set(editor_.get(), EL_EDITOR, "emacs");
  el_set(editor_.get(), EL_HIST, history, history_.get());
  el_set(editor_.get(), EL_GETCFN, &LineEditor::getCharacter);
  el_wset(editor_.get(), EL_ADDFN, L"complete", L"Complete the word",
          &LineEditor::tab);  // does not copy the strings
  el_set(editor_.get(), EL_BIND, "^I", "complete", nullptr);
  el_set(editor_.get(), EL_BIND, "^R", "em-inc-search-prev", nullptr);
}

LineEditor::~LineEditor() {
  (void)sigaction(SIGINT, &before_, nullptr);  // the arguments are valid
}

LineEditor& LineEditor::of(EditLine* editor) {
  void* self = nullptr;
  el_get(editor, EL_CLIENTDATA, &self);
  return *static_cast<LineEditor*>(self);
}

char* LineEditor::prompt(EditLine* editor) {
  return of(editor).prompt_.data();
}

// Reads one character, which may have several bytes. Returns -1 on SIGINT, 0 at the end of the
// input.
int LineEditor::getCharacter(EditLine* editor, wchar_t* character) {
  (void)editor;
  std::mbstate_t state{};
  for (;;) {
    char byte = 0;
    const ssize_t got = ::read(STDIN_FILENO, &byte, 1);
    if (got < 0 && errno == EINTR && interrupted == 0) {
      continue;
    }
    if (got <= 0) {
      return got < 0 ? -1 : 0;
    }
    const std::size_t length = std::mbrtowc(character, &byte, 1, &state);
    if (length != static_cast<std::size_t>(-2)) {
      if (length == static_cast<std::size_t>(-1)) {
        *character = L'?';
      }
      return 1;
    }
  }
}

LineEditor::Got LineEditor::read(const std::string& prompt, std::string& line) {
  prompt_ = prompt;
  interrupted = 0;
  int count = 0;
  // Before the prompt is written: the terminal itself must not echo an immediate answer.
  el_set(editor_.get(), EL_PREP_TERM, 1);
  const char* text = el_gets(editor_.get(), &count);
  if (text == nullptr || count <= 0) {
    (void)writeOut(terminalStyle(), "\n");
    return interrupted != 0 ? Got::interrupted : Got::end;
  }
  line.assign(text, static_cast<std::size_t>(count));
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
    line.pop_back();
  }
  remember(line);
  return Got::line;
}

void LineEditor::remember(const std::string& line) {
  if (line.find_first_not_of(" \t") == std::string::npos || line == last_) {
    return;
  }
  last_ = line;
  HistEvent event;
  (void)history(history_.get(), &event, H_ENTER, line.c_str());
  if (!historyFile_.empty()) {
    // The history may contain secrets: only this user may read it.
    const mode_t before = umask(077);
    (void)history(history_.get(), &event, H_SAVE, historyFile_.c_str());
    umask(before);
  }
}

unsigned char LineEditor::tab(EditLine* editor, int key) {
  (void)key;
  return of(editor).completeLine();
}

unsigned char LineEditor::completeLine() {
  const LineInfo* info = el_line(editor_.get());
  const std::string before(info->buffer, info->cursor);
  const Completer::Offer offer = complete_(before);
  if (offer.words.empty()) {
    return CC_REFRESH_BEEP;
  }
  const bool only = offer.words.size() == 1;
  std::string word = only ? offer.words.front() : sharedBeginning(offer.words);
  if (only && word.back() != '/') {
    word += ' ';
  }
  const std::string typed = before.substr(offer.begin);
  if (!only && word.size() <= typed.size()) {
    show(offer.words);
    return CC_REDISPLAY;
  }
  el_deletestr(editor_.get(), static_cast<int>(before.size() - offer.begin));
  return el_insertstr(editor_.get(), word.c_str()) == 0 ? CC_REFRESH : CC_ERROR;
}

void LineEditor::show(const std::vector<std::string>& words) const {
  std::string text = "\n";
  for (std::size_t i = 0; i < words.size() && i < kMostWordsShown; ++i) {
    const std::string word = cutLine(words[i]).words.front();
    const std::size_t slash = word.find_last_of('/', word.size() - 2);
    text += terminalSafe(slash == std::string::npos ? word : word.substr(slash + 1)) + "  ";
  }
  text += words.size() > kMostWordsShown ? "..." : "";
  (void)writeOut(terminalStyle(), text + "\n");
}

}  // namespace runelctl
