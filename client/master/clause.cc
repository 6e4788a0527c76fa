// SPDX-License-Identifier: Apache-2.0
#include "client/master/clause.h"

#include "protocol/clause_buffer.h"

namespace runel {

Result<std::string> clauseLine(const std::string& text) {
  using Next = zell::ClauseBuffer::Next;
  zell::ClauseBuffer buffer;
  buffer.append(text);
  std::string clause;
  std::string further;
  const Next first = buffer.next(clause);
  if (first == Next::sentinel) {
    return Error(Kind::local, Cause::other, "byte 0x01 or 0x02 in a clause");
  }
  if (first != Next::cut || buffer.next(further) != Next::empty) {
    return Error(Kind::local, Cause::other, "not exactly one clause");
  }
  return clause + "\r\n";
}

}  // namespace runel
