// SPDX-License-Identifier: Apache-2.0
// Generates the completion scripts of bash, zsh and fish.
#ifndef RUNELCTL_SHELL_COMPLETION_H_
#define RUNELCTL_SHELL_COMPLETION_H_

#include <string>

#include "cli/tables.h"

namespace runelctl {

[[nodiscard]] std::string bashCompletion(const Tables& tables);
[[nodiscard]] std::string zshCompletion(const Tables& tables);
[[nodiscard]] std::string fishCompletion(const Tables& tables);

}  // namespace runelctl

#endif  // RUNELCTL_SHELL_COMPLETION_H_
