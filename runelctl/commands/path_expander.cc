// SPDX-License-Identifier: Apache-2.0
#include "commands/path_expander.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <utility>

#include <runel/records.h>

#include "client/core/paths.h"

namespace runelctl {
namespace {

// A device must not be able to make a pattern grow without end.
constexpr std::size_t kMostMatches = 1000000;

bool isMissing(int number) {
  return number == ENOENT || number == ENOTDIR;
}

}  // namespace

PathExpander::PathExpander(Ask ask, std::string directory)
    : ask_(std::move(ask)), directory_(std::move(directory)) {}

std::string PathExpander::remote(const std::string& word) const {
  return runel::joinPath(directory_, word);
}

void PathExpander::expand(std::vector<std::string> words, Done done) {
  words_ = std::move(words);
  done_ = std::move(done);
  proceed();
}

void PathExpander::askFirst(const std::vector<std::string>& words) {
  const auto ignore = [](const runel::Reply&) {};
  for (const std::string& word : words) {
    if (!isPattern(word)) {
      continue;
    }
    ask_(runel::Request({"lstat", remote(word)}), ignore);
    std::string directory = word[0] == '/' ? "/" : directory_;
    for (const GlobComponent& component : globComponents(word)) {
      if (component.wild()) {
        ask_(runel::Request({"readdir", directory.empty() ? "." : directory}), ignore);
        break;
      }
      directory = runel::joinPath(directory, component.name());
    }
  }
}

std::string PathExpander::laterText() {
  return "readdir and lstat for each further part of a pattern; for the files that match: ";
}

// Takes the words up to the next pattern.
void PathExpander::proceed() {
  while (word_ < words_.size() && !isPattern(words_[word_])) {
    expanded_.paths.push_back(remote(words_[word_++]));
  }
  if (word_ == words_.size()) {
    const Done done = std::move(done_);
    done(std::move(expanded_));
    return;
  }
  lookAt(remote(words_[word_]));
}

bool PathExpander::lost(const runel::Reply& reply) {
  if (reply.answered()) {
    return false;
  }
  expanded_.lost = reply;
  const Done done = std::move(done_);
  done(std::move(expanded_));
  return true;
}

void PathExpander::lookAt(const std::string& path) {
  ask_(runel::Request({"lstat", path}), [this, path](const runel::Reply& reply) {
    if (lost(reply)) {
      return;
    }
    if (reply.ok()) {
      expanded_.paths.push_back(path);
      ++word_;
      proceed();
    } else {
      match(words_[word_]);
    }
  });
}

void PathExpander::match(const std::string& word) {
  components_ = globComponents(word);
  component_ = 0;
  slash_ = word.back() == '/' ? "/" : "";
  found_ = {word[0] == '/' ? "/" : directory_};
  trouble_.reset();
  descend();
}

// Adds plain components, then reads the directories for the next one with wildcards.
void PathExpander::descend() {
  bool known = true;  // the paths exist
  for (; component_ < components_.size() && !components_[component_].wild(); ++component_) {
    for (std::string& path : found_) {
      path = runel::joinPath(path, components_[component_].name());
    }
    known = false;
  }
  next_.clear();
  at_ = 0;
  if (component_ < components_.size()) {
    listNext();
  } else if (known && slash_.empty()) {
    next_ = std::move(found_);
    endWord();
  } else {
    lookAtNext();
  }
}

void PathExpander::listNext() {
  if (next_.size() > kMostMatches) {
    endWord();
    return;
  }
  if (at_ == found_.size()) {
    found_ = std::move(next_);
    ++component_;
    descend();
    return;
  }
  const std::string directory = found_[at_++];
  ask_(runel::Request({"readdir", directory.empty() ? "." : directory}),
       [this, directory](const runel::Reply& reply) {
         if (!lost(reply)) {
           take(directory, reply);
           listNext();
         }
       });
}

// Adds the names in @p directory that match. Something that is not a directory has none.
void PathExpander::take(const std::string& directory, const runel::Reply& reply) {
  const auto names = reply.ok() ? runel::parseNames(reply.output()) : std::nullopt;
  if (!names && !trouble_ && !isMissing(reply.number())) {
    trouble_ = reply.ok() ? Error(Fault::protocol, directory + ": malformed answer")
                          : Error(reply.error(directory));
  }
  if (names) {
    for (const std::string& name : *names) {
      if (components_[component_].matches(name)) {
        next_.push_back(runel::joinPath(directory, name));
      }
    }
  }
}

// The last component is plain, or the word ends with a slash: not all paths exist.
void PathExpander::lookAtNext() {
  if (at_ == found_.size()) {
    endWord();
    return;
  }
  const std::string path = found_[at_++] + slash_;
  ask_(runel::Request({"lstat", path}), [this, path](const runel::Reply& reply) {
    if (!lost(reply)) {
      if (reply.ok()) {
        next_.push_back(path);
      }
      lookAtNext();
    }
  });
}

void PathExpander::endWord() {
  const std::string& word = words_[word_++];
  std::sort(next_.begin(), next_.end());
  if (next_.size() > kMostMatches) {
    expanded_.failures.emplace_back(
        Fault::task, word + ": more than " + std::to_string(kMostMatches) + " matches");
  } else if (trouble_) {
    expanded_.failures.push_back(*trouble_);
  } else if (next_.empty()) {
    expanded_.failures.emplace_back(Fault::task, word + ": no match", "", ENOENT);
  }
  if (next_.size() <= kMostMatches && !next_.empty()) {
    expanded_.matched =
        expanded_.matched || std::any_of(components_.begin(), components_.end(),
                                         [](const GlobComponent& one) { return one.wild(); });
    expanded_.paths.insert(expanded_.paths.end(), next_.begin(), next_.end());
  }
  proceed();
}

std::optional<Error> sameNames(const PathExpander::Expanded& expanded) {
  std::map<std::string, std::string> paths;
  for (const std::string& path : expanded.paths) {
    const auto [first, inserted] = paths.emplace(runel::baseName(path), path);
    if (!inserted && expanded.matched) {
      return Error(Fault::local,
                   first->second + " and " + path + " have the same name and one target directory",
                   "copy them one by one", EEXIST);
    }
  }
  return std::nullopt;
}

}  // namespace runelctl
