// SPDX-License-Identifier: Apache-2.0
// A program of another project: prints the version of the library and the parts of an address.
#include <iostream>

#include <runel/runel.h>

// A class that a program derives from a class of the library.
class Job : public runel::FleetJob {
 public:
  void start() override {}
};

int main(int argc, char** argv) {
  Job().start();
  const auto address = runel::Address::parse(argc > 1 ? argv[1] : "");
  if (!address) {
    std::cout << runel::version() << " " << address.error().text() << "\n";
    return 1;
  }
  std::cout << runel::version() << " " << address->host() << " " << address->port() << "\n";
  return 0;
}
