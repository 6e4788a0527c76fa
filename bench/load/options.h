// SPDX-License-Identifier: Apache-2.0
#ifndef ZELL_BENCH_LOAD_OPTIONS_H_
#define ZELL_BENCH_LOAD_OPTIONS_H_

#include <cstdlib>
#include <map>
#include <string>

#include "sockets.h"

namespace zell::bench {

/// The command line: `--name value` pairs.
class Options {
 public:
  Options(int argc, char** argv) {
    for (int i = 0; i + 1 < argc; i += 2) {
      values_[argv[i]] = argv[i + 1];
    }
  }

  [[nodiscard]] bool has(const std::string& name) const { return values_.count(name) != 0; }
  /// A required option.
  [[nodiscard]] const std::string& text(const std::string& name) const {
    const auto found = values_.find(name);
    if (found == values_.end()) {
      fail("missing " + name);
    }
    return found->second;
  }
  [[nodiscard]] std::size_t number(const std::string& name) const {
    return std::strtoul(text(name).c_str(), nullptr, 10);
  }
  [[nodiscard]] std::size_t number(const std::string& name, std::size_t otherwise) const {
    return has(name) ? number(name) : otherwise;
  }
  [[nodiscard]] int port(const std::string& name) const { return static_cast<int>(number(name)); }

 private:
  std::map<std::string, std::string> values_;
};

}  // namespace zell::bench

#endif  // ZELL_BENCH_LOAD_OPTIONS_H_
