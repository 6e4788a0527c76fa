// SPDX-License-Identifier: Apache-2.0
// Runs a program on a device, prints its output and ends with its exit status.
//
//   run_task ADDRESS PROGRAM [ARGUMENT...]
#include <chrono>
#include <iostream>

#include <runel/runel.h>

int main(int argc, char** argv) {
  if (argc < 3) {
    std::cerr << "usage: run_task ADDRESS PROGRAM [ARGUMENT...]\n";
    return 125;
  }
  runel::Device device(argv[1]);
  const auto result = device.exec({argv + 2, argv + argc}, std::chrono::seconds(60));
  if (!result) {
    const runel::Error& error = result.error();
    std::cerr << runel::nameOf(error.kind()) << ": " << argv[1] << ": " << error.text() << " ("
              << runel::nameOf(error.outcome()) << ")\n";
    return 125;
  }
  std::cout << result->output;
  return result->state == runel::ProgramState::exited ? result->exitStatus : 124;
}
