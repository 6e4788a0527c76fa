// SPDX-License-Identifier: Apache-2.0
// Validates UTF-8.
#ifndef ZELL_TEXT_UTF8_H_
#define ZELL_TEXT_UTF8_H_

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace zell {

/// The length of the valid UTF-8 sequence at the start of @p text, and its code point. 0 for an
/// invalid sequence, such as an overlong form, a surrogate or a number above 0x10ffff.
[[nodiscard]] std::size_t utf8Sequence(std::string_view text, std::uint32_t& code);

/// Whether @p text, which is not empty, may be the beginning of one valid sequence that has more
/// bytes.
[[nodiscard]] bool isUtf8Beginning(std::string_view text);

[[nodiscard]] bool isUtf8(std::string_view bytes);

}  // namespace zell

#endif  // ZELL_TEXT_UTF8_H_
