// SPDX-License-Identifier: Apache-2.0
// Included before everything else in a tree that contains all mutants at once. Selects the active
// mutant at run time.
#ifndef ZELL_MUTATION_MUTANT_H_
#define ZELL_MUTATION_MUTANT_H_

#include <cstddef>
#include <cstdlib>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace mutant {

/// The limit for the number of mutants in a tree.
constexpr std::size_t kMost = 65536;

/// The mapping of the file that RUNELD_MUTANT_REACH names, one byte for each mutant, shared with
/// child processes. Null without it.
inline char* openReach() {
  const char* const path = std::getenv("RUNELD_MUTANT_REACH");
  const int fd = path == nullptr ? -1 : ::open(path, O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    return nullptr;
  }
  void* const bytes = ::mmap(nullptr, kMost, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  (void)::close(fd);
  return bytes == MAP_FAILED ? nullptr : static_cast<char*>(bytes);
}

inline int readChosen() {
  const char* const text = std::getenv("RUNELD_MUTANT");
  return text == nullptr ? -1 : std::atoi(text);
}

// Initialized before main, so that no test sees a change of errno or of its descriptors.
inline const int kChosen = readChosen();
inline char* const kReach = openReach();

/// Whether mutant @p number is active. Records that it was reached.
inline bool on(int number) {
  if (kReach != nullptr) {
    kReach[number] = 1;
  }
  return number == kChosen;
}

}  // namespace mutant

#endif  // ZELL_MUTATION_MUTANT_H_
