// SPDX-License-Identifier: Apache-2.0
// Modes of files as `ls -l` prints them.
#ifndef RUNELCTL_OUTPUT_MODE_TEXT_H_
#define RUNELCTL_OUTPUT_MODE_TEXT_H_

#include <cstdint>
#include <string>

namespace runelctl {

/// "-rw-r--r--" for the type letter @p type and the permission bits @p mode.
[[nodiscard]] std::string modeText(char type, std::uint32_t mode);
/// The type letter of a mode with its type bits.
[[nodiscard]] char typeLetter(std::uint32_t mode);

}  // namespace runelctl

#endif  // RUNELCTL_OUTPUT_MODE_TEXT_H_
