// SPDX-License-Identifier: Apache-2.0
// Reads lines from a terminal, with editing, history and completion.
#ifndef RUNELCTL_SHELL_LINE_EDITOR_H_
#define RUNELCTL_SHELL_LINE_EDITOR_H_

#include <functional>
#include <memory>
#include <string>

#include <csignal>

#include <histedit.h>

#include "shell/completer.h"

namespace runelctl {

class LineEditor {
 public:
  enum class Got { line, interrupted, end };
  using Complete = std::function<Completer::Offer(const std::string& before)>;

  /// @p historyFile stores the lines across sessions; empty for none.
  LineEditor(std::string historyFile, Complete complete);
  ~LineEditor();
  LineEditor(const LineEditor&) = delete;
  LineEditor& operator=(const LineEditor&) = delete;

  /// Writes @p prompt and reads a line, without its line end.
  [[nodiscard]] Got read(const std::string& prompt, std::string& line);

 private:
  struct EndEditor {
    void operator()(EditLine* editor) const { el_end(editor); }
  };
  struct EndHistory {
    void operator()(History* history) const { history_end(history); }
  };

  static LineEditor& of(EditLine* editor);
  static char* prompt(EditLine* editor);
  static int getCharacter(EditLine* editor, wchar_t* character);
  static unsigned char tab(EditLine* editor, int key);
  unsigned char completeLine();
  void show(const std::vector<std::string>& words) const;
  void remember(const std::string& line);

  const std::string historyFile_;
  const Complete complete_;
  std::unique_ptr<EditLine, EndEditor> editor_;
  std::unique_ptr<History, EndHistory> history_;
  std::string prompt_;
  std::string last_;
  struct sigaction before_ {};
};

}  // namespace runelctl

#endif  // RUNELCTL_SHELL_LINE_EDITOR_H_
