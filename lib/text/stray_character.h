// SPDX-License-Identifier: Apache-2.0
// Finds what the parser of inventories must not see.
#ifndef ZELL_TEXT_STRAY_CHARACTER_H_
#define ZELL_TEXT_STRAY_CHARACTER_H_

#include <optional>
#include <string_view>

namespace zell {

/// The line of the first character of the TOML file @p text that is not ASCII and not in a string
/// or a comment. Only these may contain such characters. For some of them the behaviour of the
/// library that parses the file is undefined: it expects them to be white space.
[[nodiscard]] std::optional<int> lineOfStrayCharacter(std::string_view text);

}  // namespace zell

#endif  // ZELL_TEXT_STRAY_CHARACTER_H_
