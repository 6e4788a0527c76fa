// SPDX-License-Identifier: Apache-2.0
// Settings as a file.
#ifndef RUNELGW_CONFIG_WRITE_SETTINGS_H_
#define RUNELGW_CONFIG_WRITE_SETTINGS_H_

#include <string>

#include "gateway/config/settings.h"

namespace runelgw {

/// The example file: each key with its meaning and its default, commented out.
[[nodiscard]] std::string exampleFile();
/// All keys with the values of @p settings. The password of the database is replaced by "***".
[[nodiscard]] std::string settingsText(Settings settings);
/// @p url with "***" in place of its password, for logs.
[[nodiscard]] std::string withoutPassword(const std::string& url);

}  // namespace runelgw

#endif  // RUNELGW_CONFIG_WRITE_SETTINGS_H_
