// SPDX-License-Identifier: Apache-2.0
// A local agent: sends one clause to the master and prints the next clause of the master.
//
//   agent CLAUSE
#include <chrono>
#include <iostream>

#include <runel/runel.h>

namespace {

int fail(const runel::Error& error) {
  std::cerr << runel::nameOf(error.kind()) << ": " << error.text() << "\n";
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: agent CLAUSE\n";
    return 2;
  }
  runel::Agent agent("127.0.0.1");
  if (const auto sent = agent.send(argv[1]); !sent) {
    return fail(sent.error());
  }
  const auto clause = agent.receive(std::chrono::seconds(30));
  if (!clause) {
    return fail(clause.error());
  }
  if (!*clause) {
    std::cerr << "no answer\n";
    return 1;
  }
  std::cout << **clause << "\n";
  return 0;
}
