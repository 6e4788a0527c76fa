// SPDX-License-Identifier: Apache-2.0
#include "shell/completer.h"

#include <algorithm>
#include <utility>

#include "output/text.h"

namespace runelctl {
namespace {

void addMatching(std::vector<std::string>& matches, const std::vector<std::string>& words,
                 const std::string& start) {
  std::copy_if(words.begin(), words.end(), std::back_inserter(matches),
               [&](const std::string& word) { return startsWith(word, start); });
}

// A name with a control character cannot be typed and must not be written to the terminal.
bool typeable(const std::string& name) {
  return std::none_of(name.begin(), name.end(),
                      [](char byte) { return (byte >= 0 && byte < ' ') || byte == '\x7f'; });
}

}  // namespace

Completer::Completer(Tables tables, std::vector<std::string> own, Lists lists)
    : tables_(std::move(tables)), own_(std::move(own)), lists_(std::move(lists)) {}

Completer::Offer Completer::complete(const std::string& before) const {
  Line line = cutLine(before);
  std::string word;
  if (line.inWord) {
    word = line.words.back();
    line.words.pop_back();
  }
  Offer offer;
  offer.begin = line.last;
  for (const std::string& candidate : candidates(line.words, word)) {
    offer.words.push_back(quoteWord(candidate));
  }
  std::sort(offer.words.begin(), offer.words.end());
  offer.words.erase(std::unique(offer.words.begin(), offer.words.end()), offer.words.end());
  return offer;
}

std::vector<std::string> Completer::candidates(const std::vector<std::string>& before,
                                               const std::string& word) const {
  const CommandRow* command = nullptr;
  const OptionRow* option = nullptr;  // the option whose value is typed
  bool own = false;
  std::size_t arguments = 0;
  for (const std::string& earlier : before) {
    if (option != nullptr) {
      option = nullptr;
    } else if (startsWith(earlier, "-")) {
      const OptionRow* row = tables_.option(command, earlier);
      option = row != nullptr && row->value != Value::none ? row : nullptr;
    } else if (command == nullptr && !own) {
      command = tables_.command(earlier);
      own = command == nullptr;
    } else if (command != nullptr && command->subcommand(earlier) != nullptr) {
      command = command->subcommand(earlier);
    } else {
      ++arguments;
    }
  }
  if (option != nullptr) {
    return values(*option, word);
  }
  if (startsWith(word, "-")) {
    return optionNames(command, word);
  }
  if (own) {
    return completePath(before.front() == "cd" ? lists_.remote : lists_.local, word);
  }
  if (command == nullptr) {
    return commandNames(word);
  }
  if (!command->commands.empty()) {
    std::vector<std::string> matches;
    for (const CommandRow& row : command->commands) {
      addMatching(matches, {row.name}, word);
    }
    return matches;
  }
  const auto& rows = command->arguments;
  return rows.empty() ? std::vector<std::string>()
                      : values(rows[std::min(arguments, rows.size() - 1)], word);
}

std::vector<std::string> Completer::commandNames(const std::string& word) const {
  std::vector<std::string> matches;
  addMatching(matches, own_, word);
  for (const CommandRow& row : tables_.commands) {
    addMatching(matches, {row.name}, word);
  }
  return matches;
}

std::vector<std::string> Completer::optionNames(const CommandRow* command,
                                                const std::string& word) const {
  std::vector<std::string> matches;
  for (const OptionRow& row : tables_.options) {
    addMatching(matches, row.names, word);
  }
  if (command != nullptr) {
    for (const OptionRow& row : command->options) {
      addMatching(matches, row.names, word);
    }
  }
  return matches;
}

std::vector<std::string> Completer::values(const OptionRow& row, const std::string& word) const {
  std::vector<std::string> matches;
  switch (row.value) {
    case Value::oneOf:
      addMatching(matches, row.words, word);
      return matches;
    case Value::file:
      return completePath(lists_.local, word);
    case Value::remote:
    case Value::programs:
      return completePath(lists_.remote, word);
    case Value::fileOrRemote:
      matches = completePath(lists_.local, word);
      addMatching(matches, completePath(lists_.remote, word), word);
      return matches;
    case Value::device:
      addMatching(matches, lists_.devices(), word);
      return matches;
    case Value::group:
      addMatching(matches, lists_.groups(), word);
      return matches;
    default:
      return matches;
  }
}

std::vector<std::string> completePath(const Completer::List& list, const std::string& word) {
  const std::size_t slash = word.rfind('/');
  const std::string directory = slash == std::string::npos ? "" : word.substr(0, slash + 1);
  const std::string start = word.substr(directory.size());
  std::vector<std::string> matches;
  for (const DirectoryEntry& entry : list(directory.empty() ? "." : directory)) {
    const bool hidden = startsWith(entry.name, ".") && !startsWith(start, ".");
    if (startsWith(entry.name, start) && !hidden && typeable(entry.name)) {
      matches.push_back(directory + entry.name + (entry.directory ? "/" : ""));
    }
  }
  return matches;
}

std::string sharedBeginning(const std::vector<std::string>& words) {
  if (words.empty()) {
    return "";
  }
  std::size_t length = words.front().size();
  for (const std::string& word : words) {
    const auto differ =
        std::mismatch(words.front().begin(), words.front().end(), word.begin(), word.end());
    length = std::min(length, static_cast<std::size_t>(differ.first - words.front().begin()));
  }
  const std::string& first = words.front();
  while (length > 0 && length < first.size() &&
         (static_cast<unsigned char>(first[length]) & 0xc0U) == 0x80) {
    --length;
  }
  // Never cut inside an escape sequence.
  std::size_t slashes = 0;
  while (slashes < length && first[length - 1 - slashes] == '\\') {
    ++slashes;
  }
  return first.substr(0, length - slashes % 2);
}

}  // namespace runelctl
