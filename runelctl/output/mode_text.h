// SPDX-License-Identifier: Apache-2.0
// Modes of files as texts.
#ifndef RUNELCTL_OUTPUT_MODE_TEXT_H_
#define RUNELCTL_OUTPUT_MODE_TEXT_H_

#include <cstdint>
#include <string>

namespace runelctl {

/// "-rw-r--r--", as in `ls -l`, for the type letter @p type and the permission bits @p mode.
[[nodiscard]] std::string modeText(char type, std::uint32_t mode);

/// "0644" for the permission bits @p mode.
[[nodiscard]] std::string octalMode(std::uint32_t mode);

}  // namespace runelctl

#endif  // RUNELCTL_OUTPUT_MODE_TEXT_H_
