// SPDX-License-Identifier: Apache-2.0
// The gateway for fleets.
#include "gateway/cli/run.h"

int main(int argc, char** argv) {
  return runelgw::runProgram(argc, argv);
}
