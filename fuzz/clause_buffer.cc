// SPDX-License-Identifier: Apache-2.0
// The clause cutter, compared step by step with its rules written out. The input is a list of
// steps: a byte that says what happens, and for a packet how long it is, then the packet.
#include <algorithm>
#include <string>
#include <string_view>

#include "connections/clause_buffer.h"
#include "fuzz.h"
#include "support/slow_relay.h"

namespace {

using Next = zell::ClauseBuffer::Next;
using zell::fuzz::require;

struct Pair {
  zell::ClauseBuffer buffer;
  zell::test::SlowRelay rules;
  std::string clause;
};

// Whether what was found is what the rules say, by the line that they have for it.
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

// False when nothing was cut.
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
  // The work grows with the bytes that came: each is looked at a few times at most, per search.
  require(pair.buffer.work() <= 16 * (size + 1));
  return 0;
}
