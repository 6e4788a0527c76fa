// SPDX-License-Identifier: Apache-2.0
#include "client/core/address.h"

#include <algorithm>
#include <charconv>
#include <sstream>
#include <system_error>

#include "protocol/protocol.h"

namespace runel {
namespace {

constexpr char kSeparators[] = " \t\r";

bool parsePort(const std::string& digits, std::uint16_t& port) {
  const char* end = digits.data() + digits.size();
  std::uint16_t value = 0;
  const auto [stop, error] = std::from_chars(digits.data(), end, value);
  if (error != std::errc() || stop != end || value == 0) {
    return false;
  }
  port = value;
  return true;
}

bool plainHost(const std::string& host) {
  const auto plain = [](char byte) {
    return (byte >= '0' && byte <= '9') || (byte >= 'a' && byte <= 'z') ||
           (byte >= 'A' && byte <= 'Z') || byte == '.' || byte == '-' || byte == '_';
  };
  return !host.empty() && host.size() <= 253 && std::all_of(host.begin(), host.end(), plain);
}

void addOnce(std::vector<Target>& targets, const Target& target) {
  if (std::find(targets.begin(), targets.end(), target) == targets.end()) {
    targets.push_back(target);
  }
}

bool readLine(const std::string& line, std::vector<Target>& targets, std::string& why) {
  std::istringstream words(line.substr(0, line.find('#')));
  std::string first;
  std::string second;
  std::string third;
  if (!(words >> first)) {
    return true;
  }
  Target target;
  const bool named = static_cast<bool>(words >> second);
  if (words >> third) {
    why = "too many fields: expected DEVICE or NAME DEVICE";
    return false;
  }
  if (!parseTarget(named ? second : first, target, why)) {
    return false;
  }
  target.name = named ? first : target.name;
  addOnce(targets, target);
  return true;
}

}  // namespace

bool parseTarget(const std::string& text, Target& target, std::string& why) {
  if (text.size() > 1 && text[0] == '@') {
    target = {text, "", 0, text.substr(1)};
    return true;
  }
  const std::size_t colon = text.find(':');
  target = {text, text.substr(0, colon), zell::kDevicePort, ""};
  if (!plainHost(target.host)) {
    why = "invalid address or host name '" + text + "'";
    return false;
  }
  if (colon != std::string::npos && !parsePort(text.substr(colon + 1), target.port)) {
    why = "invalid port '" + text.substr(colon + 1) + "': expected 1 to 65535";
    return false;
  }
  return true;
}

bool parseTargetList(const std::string& text, std::vector<Target>& targets, std::string& why) {
  std::istringstream parts(text);
  std::string part;
  bool any = false;
  while (std::getline(parts, part, ',')) {
    part.erase(part.find_last_not_of(kSeparators) + 1);
    part.erase(0, part.find_first_not_of(kSeparators));
    Target target;
    if (part.empty()) {
      continue;
    }
    if (!parseTarget(part, target, why)) {
      return false;
    }
    addOnce(targets, target);
    any = true;
  }
  why = any ? "" : "empty device list";
  return any;
}

bool readTargets(std::istream& lines, std::vector<Target>& targets, std::string& why) {
  std::string line;
  for (int number = 1; std::getline(lines, line); ++number) {
    if (!readLine(line, targets, why)) {
      why = "line " + std::to_string(number) + ": " + why;
      return false;
    }
  }
  return true;
}

bool parseListen(const std::string& text, std::string& host, std::uint16_t& port) {
  const std::size_t colon = text.find(':');
  const std::string address = text.substr(0, colon);
  if (!address.empty()) {
    host = address;
  }
  return plainHost(host) && (colon == std::string::npos || parsePort(text.substr(colon + 1), port));
}

}  // namespace runel
