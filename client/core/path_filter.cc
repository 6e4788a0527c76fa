// SPDX-License-Identifier: Apache-2.0
#include "client/core/path_filter.h"

#include <algorithm>
#include <cerrno>

namespace runel {
namespace {

Error invalidRule(const std::string& rule, const char* why) {
  return Error(Kind::local, Cause::other, "exclude rule '" + rule + "': " + why, EINVAL);
}

Wildcard wildcardOf(std::string_view pattern) {
  // A backslash quotes only in a pattern with wildcards.
  return hasWildcard(pattern) ? Wildcard(pattern) : Wildcard::literal(pattern);
}

}  // namespace

std::optional<Error> PathFilter::add(const std::string& text) {
  std::string_view pattern = text;
  Rule rule;
  if (text.compare(0, 2, "+ ") == 0 || text.compare(0, 2, "- ") == 0) {
    rule.out = text[0] == '-';
    pattern.remove_prefix(2);
  } else if (text == "!") {
    return invalidRule(text, "clearing the rules is not supported");
  }
  rule.anchored = !pattern.empty() && pattern.front() == '/';
  pattern.remove_prefix(rule.anchored ? 1 : 0);
  rule.directories = !pattern.empty() && pattern.back() == '/';
  pattern.remove_suffix(rule.directories ? 1 : 0);
  if (pattern.empty() || pattern.find('\0') != std::string_view::npos) {
    return invalidRule(text, "it matches nothing");
  }
  rule.wholePath = rule.anchored || pattern.find('/') != std::string_view::npos ||
                   pattern.find("**") != std::string_view::npos;
  rule.patterns.push_back(wildcardOf(pattern));
  if (!rule.anchored && pattern.substr(0, 3) == "**/" && pattern.size() > 3) {
    rule.patterns.push_back(wildcardOf(pattern.substr(3)));
  }
  rules_.push_back(std::move(rule));
  return std::nullopt;
}

std::optional<Error> PathFilter::add(const std::vector<std::string>& rules) {
  for (const std::string& rule : rules) {
    if (auto error = add(rule)) {
      return error;
    }
  }
  return std::nullopt;
}

// A pattern that is not anchored may begin at each component, and ends at the end of the path.
bool PathFilter::matches(const Rule& rule, std::string_view path) {
  const auto fits = [&](std::string_view part) {
    return std::any_of(rule.patterns.begin(), rule.patterns.end(),
                       [&](const Wildcard& pattern) { return pattern.matches(part); });
  };
  if (rule.anchored) {
    return fits(path);
  }
  if (!rule.wholePath) {
    return fits(path.substr(path.rfind('/') + 1));
  }
  while (!fits(path)) {
    const std::size_t slash = path.find('/');
    if (slash == std::string_view::npos) {
      return false;
    }
    path.remove_prefix(slash + 1);
  }
  return true;
}

bool PathFilter::decide(std::string_view path, bool directory, bool source) const {
  for (const Rule& rule : rules_) {
    const bool candidate = (directory || !rule.directories) && !(source && rule.anchored);
    if (candidate && matches(rule, path)) {
      return rule.out;
    }
  }
  return false;
}

bool PathFilter::leavesOut(std::string_view path, bool directory) const {
  return decide(path, directory, false);
}

bool PathFilter::hides(std::string_view path, bool directory) const {
  for (std::size_t slash = path.find('/'); slash != std::string_view::npos && !empty();
       slash = path.find('/', slash + 1)) {
    if (leavesOut(path.substr(0, slash), true)) {
      return true;
    }
  }
  return path != "." && leavesOut(path, directory);
}

bool PathFilter::leavesOutSource(const std::string& name, bool directory) const {
  const bool plain = name != "." && name != ".." && name != "/";
  return plain && decide(name, directory, true);
}

std::vector<std::string> filterRulesIn(std::string_view text) {
  std::vector<std::string> rules;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (!line.empty() && line.back() == '\r') {
      line.remove_suffix(1);
    }
    if (!line.empty() && line.front() != '#' && line.front() != ';') {
      rules.emplace_back(line);
    }
  }
  return rules;
}

}  // namespace runel
