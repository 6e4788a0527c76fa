// SPDX-License-Identifier: Apache-2.0
// Bytes that a device sent, made fit for a terminal or for JSON.
#ifndef ZELL_RUNELCTL_OUTPUT_TEXT_H_
#define ZELL_RUNELCTL_OUTPUT_TEXT_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

namespace zell::ctl {

using Json = nlohmann::ordered_json;

/// @p bytes with everything escaped that a terminal could act on: control characters, what is no
/// UTF-8, marks that change the direction of writing, and the backslash. One line, always.
[[nodiscard]] std::string forPeople(std::string_view bytes);

/// Sets @p key of @p object to @p bytes exactly: as they are when they are UTF-8, else in base64
/// under the name "KEY_base64".
void putBytes(Json& object, const std::string& key, std::string_view bytes);

/// @p text cut to @p columns characters.
[[nodiscard]] std::string cutTo(std::string_view text, std::size_t columns);

/// Whether @p text begins with @p start.
[[nodiscard]] bool startsWith(std::string_view text, std::string_view start);

/// "1.4 MiB" and the like.
[[nodiscard]] std::string sizeText(std::uint64_t bytes);

/// "3 devices", "1 device".
[[nodiscard]] std::string countText(std::size_t count, const std::string& thing);

/// The bytes in the usual three columns: offset, hex, characters.
[[nodiscard]] std::string hexDump(std::string_view bytes);

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_OUTPUT_TEXT_H_
