// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_SUPPORT_TEMP_DIR_H_
#define TESTS_SUPPORT_TEMP_DIR_H_

#include <string>

namespace zell::test {

/// A temporary directory, which the destructor removes with its content.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }
  /// The path of @p name in the directory.
  [[nodiscard]] std::string file(const std::string& name) const { return path_ + "/" + name; }
  /// Creates the file @p name with @p content. Returns its path.
  std::string write(const std::string& name, const std::string& content) const;

 private:
  std::string path_;
};

/// The whole content of @p path; fails the running test if it cannot be read.
std::string contentOf(const std::string& path);

}  // namespace zell::test

#endif  // TESTS_SUPPORT_TEMP_DIR_H_
