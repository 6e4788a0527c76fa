// SPDX-License-Identifier: Apache-2.0
// Text for log lines and replies.
#ifndef ZELL_STRING_HELPERS_H_
#define ZELL_STRING_HELPERS_H_

#include <ostream>
#include <string>
#include <vector>

struct stat;

namespace zell {

/// @p text made fit for a log line: control bytes (below 0x20, and 0x7f) become `.`, and what is
/// longer than @p limit bytes is cut to its first @p limit - 3 bytes and `...`. It takes a copy: of
/// a long text hand over the first @p limit + 1 bytes only.
std::string trimOutput(std::string text, int limit);

/// Takes the bytes below 0x20 other than tab, and 0x7f, out of @p text.
void trimBogusChars(std::string& text);

/// Strips blanks, tabs, CR, LF, VT and FF at both ends of @p text.
void trimWhiteSpace(std::string& text);

/// The bytes of @p text before its first blank, tab, CR, LF, VT or FF.
std::string firstWord(const std::string& text);

/// Takes what `firstWord` answers off the front of @p text.
void trimFirstWord(std::string& text);

/// Writes @p st as one line of NAME=VALUE fields: mode in octal, all else decimal, times in seconds
/// with nine decimals.
void printStat(std::ostream& out, const struct stat& st);

/// Writes @p label, a blank, the number of strings and a newline; then for each string its length
/// in bytes, `:`, its bytes and a newline.
void printStringVec(std::ostream& out, const std::string& label,
                    const std::vector<std::string>& strings);

}  // namespace zell

#endif  // ZELL_STRING_HELPERS_H_
