// SPDX-License-Identifier: Apache-2.0
// Runs a fuzz target on files and directories of files, without a fuzzer.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "fuzz.h"

namespace {

int g_inputs = 0;

void replay(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  const std::string input((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::printf("%s\n", file.c_str());
  std::fflush(stdout);  // the last line names the input that crashed
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
  ++g_inputs;
}

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (!std::filesystem::is_directory(argv[i])) {
      replay(argv[i]);
      continue;
    }
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      replay(entry.path());
    }
  }
  std::printf("%d inputs\n", g_inputs);
  return g_inputs == 0 ? 1 : 0;  // a missing corpus must not pass
}
