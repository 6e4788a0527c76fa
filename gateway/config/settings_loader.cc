// SPDX-License-Identifier: Apache-2.0
#include "gateway/config/settings_loader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include "gateway/config/endpoint.h"
#include "gateway/config/read_toml.h"
#include "text/nearest.h"

namespace runelgw {
namespace {

// A file of another kind would have a problem in each line.
constexpr std::size_t kMostProblems = 50;
constexpr std::size_t kLargestFile = 1048576;

const SettingRow* findRow(const std::string& section, const std::string& key) {
  const auto& rows = settingRows();
  const auto found = std::find_if(rows.begin(), rows.end(), [&](const SettingRow& row) {
    return row.section == section && row.key == key;
  });
  return found == rows.end() ? nullptr : &*found;
}

// What an operator may have meant by a key that the section does not have.
std::string hintFor(const std::string& section, const std::string& key) {
  std::vector<std::string> known;
  for (const SettingRow& row : settingRows()) {
    if (row.section == section) {
      known.emplace_back(row.key);
    } else if (row.key == key) {
      return " (it belongs to [" + std::string(row.section) + "])";
    }
  }
  return zell::suggestion(key, known);
}

std::string unknownName(const TomlEntry& entry) {
  std::vector<std::string> known;
  for (const SettingSection& section : settingSections()) {
    if (entry.section == section.name) {
      return "unknown key '" + entry.section + "." + entry.key + "'" +
             hintFor(entry.section, entry.key);
    }
    known.emplace_back(section.name);
  }
  if (entry.section.empty()) {
    const bool isSection = std::find(known.begin(), known.end(), entry.key) != known.end();
    return isSection ? "'" + entry.key + "' is a section: write [" + entry.key + "]"
                     : "unknown key '" + entry.key + "'" + hintFor("", entry.key);
  }
  return "unknown section '" + entry.section + "'" + zell::suggestion(entry.section, known);
}

}  // namespace

void SettingsLoader::readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string text;
  if (file) {
    text.resize(kLargestFile + 1);
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(file.gcount()));
  }
  if (!file && !file.eof()) {
    problem(path, std::strerror(errno));
  } else if (text.size() > kLargestFile) {
    problem(path, "the file is larger than 1 MiB");
  } else {
    readText(text, path);
  }
}

void SettingsLoader::readText(std::string_view text, const std::string& file) {
  for (const TomlEntry& entry : readToml(text)) {
    const std::string where = file + ":" + std::to_string(entry.line);
    const SettingRow* row = findRow(entry.section, entry.key);
    const auto& sections = settingSections();
    const bool isEmptySection =
        entry.problem.empty() && entry.key.empty() &&
        std::any_of(sections.begin(), sections.end(),
                    [&](const SettingSection& section) { return section.name == entry.section; });
    if (!entry.problem.empty()) {
      problem(where, entry.problem);
    } else if (row != nullptr) {
      set(*row, entry.value, where);
    } else if (!isEmptySection) {
      problem(where, unknownName(entry));
    }
  }
}

void SettingsLoader::readOption(const SettingRow& row, const std::string& value) {
  Settings unused;
  set(row, rawValueOf(row.place(unused).kind, value), row.option());
}

void SettingsLoader::set(const SettingRow& row, const RawValue& value, const std::string& where) {
  if (const auto expected = row.place(settings_).set(value)) {
    const bool isOption = where == row.option();
    problem(where, (isOption ? "" : row.name() + ": ") + "expected " + *expected);
  } else {
    origins_[row.name()] = where;
  }
}

void SettingsLoader::compare() {
  compareTls();
  const std::vector<Endpoint>& listen = settings_.http.listen;
  const bool local = std::all_of(listen.begin(), listen.end(), isLoopback);
  if (settings_.http.certificate.empty() && !local) {
    contradiction(
        "http.listen",
        "without TLS only loopback addresses are allowed: set http.certificate and http.key");
  }
}

void SettingsLoader::compareTls() {
  const HttpListenSettings& http = settings_.http;
  if (http.certificate.empty() != http.key.empty()) {
    contradiction(http.key.empty() ? "http.certificate" : "http.key",
                  "TLS needs both http.certificate and http.key");
  }
  if (!http.clientCa.empty() && http.certificate.empty()) {
    contradiction("http.client_ca", "certificates of clients need TLS: set http.certificate");
  }
}

void SettingsLoader::contradiction(const std::string& key, const std::string& text) {
  const auto origin = origins_.find(key);
  if (origin == origins_.end()) {
    problem(key, text);
  } else {
    const bool isOption = origin->second.compare(0, 2, "--") == 0;
    problem(origin->second, isOption ? text : key + ": " + text);
  }
}

void SettingsLoader::problem(const std::string& where, const std::string& text) {
  if (problems_.size() < kMostProblems) {
    problems_.push_back(where + ": " + text);
  }
}

}  // namespace runelgw
