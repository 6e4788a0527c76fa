// SPDX-License-Identifier: Apache-2.0
// Finds the examples in docs/protocol.md.
#ifndef TESTS_UNIT_DOCS_PROTOCOL_DOCUMENT_H_
#define TESTS_UNIT_DOCS_PROTOCOL_DOCUMENT_H_

#include <string>
#include <utility>
#include <vector>

namespace zell::test {

/// The lines of one fenced block of the document.
using Block = std::vector<std::string>;

/// The blocks with the language @p kind, in order.
std::vector<Block> blocksOf(const std::string& kind);

/// The cells of each row of the table of the tasks, in order.
std::vector<std::vector<std::string>> taskRows();

/// The bytes at the start of @p line, two hex digits each, and the text after two or more blanks.
std::pair<std::string, std::string> hexLine(const std::string& line);

/// The bytes of the string literal between the first and the last quote of @p line.
std::string quoted(const std::string& line);

}  // namespace zell::test

#endif  // TESTS_UNIT_DOCS_PROTOCOL_DOCUMENT_H_
