// SPDX-License-Identifier: Apache-2.0
// The forms in which the database holds bytes. A text column ends at a zero byte in one database,
// and another one refuses invalid UTF-8.
#ifndef RUNELGW_STORE_TEXT_CODEC_H_
#define RUNELGW_STORE_TEXT_CODEC_H_

#include <string>
#include <string_view>
#include <vector>

namespace runelgw {

/// Lower-case hexadecimal digits. Equal bytes have equal texts, so a query can compare them.
[[nodiscard]] std::string hexText(std::string_view bytes);
/// False for a text that `hexText` does not make.
[[nodiscard]] bool readHex(std::string_view text, std::string& bytes);

/// Base64 with padding.
[[nodiscard]] std::string base64Text(std::string_view bytes);
/// False for a text that `base64Text` does not make.
[[nodiscard]] bool readBase64(std::string_view text, std::string& bytes);

/// Valid UTF-8 without control characters stays readable. A backslash is doubled; each other byte
/// is \xHH. Equal bytes have equal texts.
[[nodiscard]] std::string escapedText(std::string_view bytes);
/// False for a text with another use of the backslash.
[[nodiscard]] bool readEscaped(std::string_view text, std::string& bytes);

/// Each item as `escapedText`, followed by a newline.
[[nodiscard]] std::string listText(const std::vector<std::string>& items);
/// False for a text that `listText` does not make.
[[nodiscard]] bool readList(std::string_view text, std::vector<std::string>& items);

}  // namespace runelgw

#endif  // RUNELGW_STORE_TEXT_CODEC_H_
