// SPDX-License-Identifier: Apache-2.0
#include "support/temp_dir.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

namespace zell::test {

TempDir::TempDir() {
  std::string name = (std::filesystem::temp_directory_path() / "runeld-test-XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) {
    std::abort();
  }
  path_ = name;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::write(const std::string& name, const std::string& content) const {
  std::ofstream(file(name), std::ios::binary) << content;
  return file(name);
}

std::string contentOf(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  EXPECT_TRUE(in.is_open()) << path;
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

}  // namespace zell::test
