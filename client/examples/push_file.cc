// SPDX-License-Identifier: Apache-2.0
// Copies a file to a device and prints the progress.
//
//   push_file ADDRESS SOURCE TARGET
#include <iomanip>
#include <iostream>

#include <runel/runel.h>

namespace {

void show(const runel::Progress& progress) {
  constexpr double kMegabyte = 1e6;
  std::cout << std::fixed << std::setprecision(1) << static_cast<double>(progress.done) / kMegabyte
            << " of " << static_cast<double>(progress.total) / kMegabyte << " MB" << std::endl;
}

int fail(const runel::Error& error) {
  std::cerr << runel::nameOf(error.kind()) << ": " << error.text() << "\n";
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::cerr << "usage: push_file ADDRESS SOURCE TARGET\n";
    return 2;
  }
  runel::Device device(argv[1]);
  const auto report =
      device.push({argv[2]}, argv[3], runel::TransferOptions().setChecksum(true).setProgress(show));
  if (!report) {
    return fail(report.error());
  }
  if (report->error()) {
    return fail(*report->error());
  }
  for (const std::string& warning : report->warnings()) {
    std::cerr << warning << "\n";
  }
  std::cout << argv[3] << ": " << report->bytes() << " bytes\n";
  return report->ok() ? 0 : 1;
}
