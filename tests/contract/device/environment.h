// SPDX-License-Identifier: Apache-2.0
// The environment of the contract suite: the Linux system (real_environment.cc) or the fake device
// (fake_environment.cc). The suite reaches everything else through <zell/...>.
#ifndef TESTS_CONTRACT_DEVICE_ENVIRONMENT_H_
#define TESTS_CONTRACT_DEVICE_ENVIRONMENT_H_

#include <string>
#include <vector>

namespace zell::test::environment {

/// Restores the initial state, with an empty directory for files.
void reset();
/// The path of @p name in that directory.
std::string file(const std::string& name);
/// Creates a directory there with the files @p names. Returns its path.
std::string makeDirectory(const std::string& name, const std::vector<std::string>& names);

/// Shell commands for programs that end in the way that the name says. The fake device registers
/// them.
std::string programThatPrints(const std::string& text);
std::string programThatExitsWith(int status);
std::string programThatDiesOfSigusr1();
std::string programThatSleeps();
/// The path of a program that does not exist.
std::string missingProgram();

/// Name of a process that runs.
std::string runningProcess();

}  // namespace zell::test::environment

#endif  // TESTS_CONTRACT_DEVICE_ENVIRONMENT_H_
