// SPDX-License-Identifier: Apache-2.0
// Text for log lines and replies.
#ifndef ZELL_STRING_HELPERS_H_
#define ZELL_STRING_HELPERS_H_

#include <ostream>
#include <string>
#include <vector>

struct stat;

namespace zell {

/// Formats @p text for a log line. Control bytes (below 0x20, and 0x7f) become `.`. A text longer
/// than @p limit bytes is truncated to its first @p limit - 3 bytes and `...`. The text is copied,
/// so pass only the first @p limit + 1 bytes of a long one.
std::string trimOutput(std::string text, int limit);

/// Removes control bytes (below 0x20 except tab, and 0x7f) from @p text.
void trimBogusChars(std::string& text);

/// Strips spaces, tabs, CR, LF, VT and FF at both ends of @p text.
void trimWhiteSpace(std::string& text);

/// The bytes of @p text before its first space, tab, CR, LF, VT or FF.
std::string firstWord(const std::string& text);

/// Removes the bytes that `firstWord` returns from the front of @p text.
void trimFirstWord(std::string& text);

/// Writes @p st as one line of NAME=VALUE fields. The mode is octal, all other values are decimal,
/// times are in seconds with nine decimals.
void printStat(std::ostream& out, const struct stat& st);

/// Writes @p label, a space, the number of strings and a newline. For each string follow its length
/// in bytes, `:`, its bytes and a newline.
void printStringVec(std::ostream& out, const std::string& label,
                    const std::vector<std::string>& strings);

}  // namespace zell

#endif  // ZELL_STRING_HELPERS_H_
