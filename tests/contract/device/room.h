// SPDX-License-Identifier: Apache-2.0
// What the suite of this directory needs to know about the room that it is linked with: the real
// one (real_room.cc) or the fake one (fake_room.cc). Everything else it says through <zell/...>.
#ifndef TESTS_CONTRACT_DEVICE_ROOM_H_
#define TESTS_CONTRACT_DEVICE_ROOM_H_

#include <string>
#include <vector>

namespace zell::test::room {

/// Puts the room into its initial state, with an empty directory for files.
void reset();
/// The path of @p name in that directory.
std::string file(const std::string& name);
/// Makes a directory there, with files of these names in it, and answers its path.
std::string makeDirectory(const std::string& name, const std::vector<std::string>& names);

/// Shell commands for programs that end in the way the name says. The real room needs no telling.
std::string programThatPrints(const std::string& text);
std::string programThatExitsWith(int status);
std::string programThatDiesOf(int signal);
std::string programThatSleeps();
/// The path of a program that does not exist.
std::string missingProgram();

/// Name of a process that runs.
std::string runningProcess();

}  // namespace zell::test::room

#endif  // TESTS_CONTRACT_DEVICE_ROOM_H_
