// SPDX-License-Identifier: Apache-2.0
// The clause buffer, compared step by step with a model of its rules. The input is a list of steps:
// a byte that selects the action, and for a packet its length and its bytes.
#include <algorithm>
#include <string>
#include <string_view>

#include "fuzz.h"
#include "protocol/clause_buffer.h"
#include "support/slow_relay.h"

namespace {

using Next = zell::ClauseBuffer::Next;
using zell::fuzz::require;

struct Pair {
  zell::ClauseBuffer buffer;
  zell::test::SlowRelay rules;
  std::string clause;
};

// Whether the result @p found agrees with the rules.
bool agrees(const Pair& pair, Next found) {
  if (pair.rules.log.empty()) {
    return found == Next::empty;
  }
  const std::string& line = pair.rules.log.back().text;
  const auto says = [&line](const char* text) { return line.find(text) != std::string::npos; };
  const std::string at = " at " + std::to_string(pair.buffer.position()) + ", got";
  switch (found) {
    case Next::sentinel:
      return says("found byte count sentinels");
    case Next::notOpening:
      return says("expecting '<'") && says(at.c_str());
    case Next::noGt:
      return says("cannot find '>'") && says(at.c_str());
    case Next::noClosing:
      return says("closing not found");
    default:
      return false;
  }
}

void compareContents(const Pair& pair) {
  const std::string& wanted = pair.rules.buffer;
  require(pair.buffer.size() == wanted.size());
  require(pair.buffer.first(wanted.size()) == wanted);
  require(pair.buffer.last(7) ==
          wanted.substr(wanted.size() - std::min<std::size_t>(7, wanted.size())));
  const bool ends = wanted.size() >= 3 && wanted.compare(wanted.size() - 3, 3, "<a>") == 0;
  require(pair.buffer.endsWith("<a>") == ends);
}

// Removes one clause. False when no clause was removed.
bool cut(Pair* pair) {
  pair->rules.log.clear();
  const Next found = pair->buffer.next(pair->clause);
  const bool wanted = pair->rules.nextXmlClause();
  require((found == Next::cut) == wanted);
  require(wanted ? pair->clause == pair->rules.clause : agrees(*pair, found));
  compareContents(*pair);
  return wanted;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Pair pair;
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  while (!rest.empty()) {
    const auto step = static_cast<unsigned char>(rest.front());
    const std::string packet(rest.substr(1, step / 2));
    rest.remove_prefix(1 + packet.size());
    pair.buffer.append(packet);
    pair.rules.buffer += packet;
    compareContents(pair);
    while (step % 2 == 0 && cut(&pair)) {
    }
  }
  // The work grows linearly with the bytes received: each search reads each byte a few times at
  // most.
  require(pair.buffer.work() <= 16 * (size + 1));
  return 0;
}
