// SPDX-License-Identifier: Apache-2.0
// The file with the version that an installation of the daemon writes: no task tells the version.
#ifndef RUNELCTL_COMMANDS_INSTALLED_VERSION_H_
#define RUNELCTL_COMMANDS_INSTALLED_VERSION_H_

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace runelctl {

/// The file on a device with an installation below /usr.
constexpr char kVersionFile[] = "/usr/share/runeld/version";
/// The longest version, in bytes.
constexpr std::size_t kMostVersionBytes = 64;

/// The version in @p text, the content of the file: one line of at most 64 letters, digits and the
/// characters ". + ~ _ : -". Nothing for any other text.
[[nodiscard]] std::optional<std::string> parseVersion(std::string_view text);

}  // namespace runelctl

#endif  // RUNELCTL_COMMANDS_INSTALLED_VERSION_H_
