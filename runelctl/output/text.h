// SPDX-License-Identifier: Apache-2.0
// Converts bytes from a device for a terminal or for JSON.
#ifndef RUNELCTL_OUTPUT_TEXT_H_
#define RUNELCTL_OUTPUT_TEXT_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "output/terminal_text.h"

namespace runelctl {

/// Create objects with `Json::object()` and lists with `Json::array()`: a null value that becomes
/// one of them is invalid, and ends the program when it is destroyed, if the memory is exhausted.
using Json = nlohmann::ordered_json;

/// Makes @p value empty. Its destructor then allocates no memory, as it does for a value with
/// members.
void discard(Json& value) noexcept;

/// @p object as a line. On a @p terminal, characters that it could interpret are escaped.
[[nodiscard]] std::string jsonLine(const Json& object, bool terminal);

/// The number of bytes at the end of @p bytes that begin a character and do not complete it.
[[nodiscard]] std::size_t unfinishedCharacter(std::string_view bytes);

/// Sets @p key of @p object to @p bytes if they are valid UTF-8. Otherwise sets "KEY_base64" to
/// their base64 form.
void putBytes(Json& object, const std::string& key, std::string_view bytes);
/// The same without a copy of valid UTF-8.
void moveBytes(Json& object, const std::string& key, std::string&& bytes);

/// @p text truncated to @p columns characters.
[[nodiscard]] std::string cutTo(std::string_view text, std::size_t columns);

/// All @p words in one text, with @p between in between.
[[nodiscard]] std::string joined(const std::vector<std::string>& words, const std::string& between);

/// Whether @p text begins with @p start.
[[nodiscard]] bool startsWith(std::string_view text, std::string_view start);

/// Formats a size with its unit, such as "1.4 MiB".
[[nodiscard]] std::string sizeText(std::uint64_t bytes);

/// "3 devices", "1 device".
[[nodiscard]] std::string countText(std::size_t count, const std::string& thing);

/// A hex dump with the columns offset, hex and characters.
[[nodiscard]] std::string hexDump(std::string_view bytes);

}  // namespace runelctl

#endif  // RUNELCTL_OUTPUT_TEXT_H_
