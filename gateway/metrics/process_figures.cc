// SPDX-License-Identifier: Apache-2.0
#include "gateway/metrics/process_figures.h"

#include <cstdio>

#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

namespace runelgw {
namespace {

double secondsOf(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

double residentBytes() {
  FILE* const file = fopen("/proc/self/statm", "re");
  if (file == nullptr) {
    return 0;
  }
  char text[128] = "";
  const bool read = fgets(text, sizeof text, file) != nullptr;
  (void)fclose(file);
  unsigned long total = 0;
  unsigned long resident = 0;
  if (!read || sscanf(text, "%lu %lu", &total, &resident) != 2) {  // NOLINT(cert-err34-c)
    return 0;
  }
  return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

double openDescriptors() {
  DIR* const directory = opendir("/proc/self/fd");
  if (directory == nullptr) {
    return 0;
  }
  double count = 0;
  while (const dirent* const entry = readdir(directory)) {
    count += entry->d_name[0] == '.' ? 0 : 1;
  }
  closedir(directory);
  return count - 1;  // the directory itself
}

}  // namespace

ProcessFigures processFigures() {
  ProcessFigures figures;
  rusage usage{};
  if (getrusage(RUSAGE_SELF, &usage) == 0) {
    figures.cpuSeconds = secondsOf(usage.ru_utime) + secondsOf(usage.ru_stime);
  }
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    figures.maxDescriptors = static_cast<double>(limit.rlim_cur);
  }
  figures.residentBytes = residentBytes();
  figures.descriptors = openDescriptors();
  return figures;
}

}  // namespace runelgw
