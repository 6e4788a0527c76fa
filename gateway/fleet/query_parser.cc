// SPDX-License-Identifier: Apache-2.0
#include "gateway/fleet/query_parser.h"

#include <algorithm>
#include <limits>
#include <utility>
#include <vector>

#include "gateway/fleet/groups.h"
#include "gateway/fleet/tag_rules.h"
#include "gateway/fleet/text.h"
#include "text/nearest.h"

namespace runelgw {
namespace {

using Kind = QueryNode::Kind;

constexpr std::string_view kBlanks = " \t\r\n";
constexpr std::size_t kMostDigits = 15;

bool isBlank(char character) {
  return kBlanks.find(character) != std::string_view::npos;
}

// "did you mean 'WORD'?", or nothing.
std::string meant(const std::string& word, const std::vector<std::string>& known) {
  const std::string nearest = zell::nearestWord(word, known);
  return nearest.empty() ? "" : "did you mean '" + nearest + "'?";
}

std::string listed(const std::vector<std::string>& words) {
  std::string list;
  for (const std::string& word : words) {
    list += (list.empty() ? "" : ", ") + word;
  }
  return list;
}

const std::vector<std::string>& propertyNames() {
  static const std::vector<std::string> kNames{
      "name", "tag", "type", "state", "kernel", "address", "certificate", "hostid", "agent"};
  return kNames;
}

const std::vector<std::string>& comparisonNames() {
  static const std::vector<std::string> kNames{"seen", "free"};
  return kNames;
}

// The first character of @p word that tells what it is.
std::size_t findSign(const Word& word) {
  bool inBrackets = false;
  for (std::size_t at = 0; at < word.text.size(); ++at) {
    if (word.is(at, '[') || word.is(at, ']')) {
      inBrackets = word.is(at, '[');
    }
    const bool sign = std::string_view("=:<>").find(word.text[at]) != std::string_view::npos;
    if (sign && !word.quoted[at] && !inBrackets) {
      return at;
    }
  }
  return std::string::npos;
}

bool isLowerCase(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char character) {
    return character >= 'a' && character <= 'z';
  });
}

// The number at the start of @p text, and what follows it in lower case. False for other texts.
bool splitNumber(const std::string& text, std::int64_t& number, std::string& unit) {
  const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
  if (digits == 0 || digits > kMostDigits) {
    return false;
  }
  number = std::stoll(text.substr(0, digits));
  unit = text.substr(digits);
  std::transform(unit.begin(), unit.end(), unit.begin(), [](char character) {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a')
                                                : character;
  });
  return true;
}

// The name of a unit of sizes: K, KB and KiB are the same, as in the sizes of runelctl.
std::string shortUnit(const std::string& unit) {
  const std::string rest = unit.substr(std::min<std::size_t>(unit.size(), 1));
  return rest.empty() || ((rest == "b" || rest == "ib") && unit[0] != 'b') ? unit.substr(0, 1)
                                                                           : unit;
}

// @p number of @p unit. Without a value if that is too large.
std::optional<std::int64_t> times(std::int64_t number, std::int64_t unit) {
  if (number > std::numeric_limits<std::int64_t>::max() / unit) {
    return std::nullopt;
  }
  return number * unit;
}

struct Unit {
  const char* name;
  std::int64_t value;
};

// The value of @p text, a number and one of @p units; @p shorten changes the unit first.
template <typename Units, typename Shorten>
std::optional<std::int64_t> amount(const std::string& text, const Units& units, Shorten shorten) {
  std::int64_t number = 0;
  std::string unit;
  if (!splitNumber(text, number, unit)) {
    return std::nullopt;
  }
  unit = shorten(unit);
  for (const Unit& row : units) {
    if (unit == row.name) {
      return times(number, row.value);
    }
  }
  return std::nullopt;
}

}  // namespace

std::optional<Query> Query::parse(std::string_view text, QueryError& error) {
  return QueryParser(text, error).parse();
}

std::optional<Query> QueryParser::parse() {
  const std::size_t wrong = firstUnprintable(text_, kBlanks);
  if (text_.size() > kLongestQuery) {
    fail(kLongestQuery, "the query is longer than " + std::to_string(kLongestQuery) + " bytes");
    return std::nullopt;
  }
  if (wrong != std::string_view::npos) {
    fail(wrong, "invalid UTF-8 or a control character");
    return std::nullopt;
  }
  data_->text = std::string(text_);
  skipBlanks();
  if (atEnd()) {
    fail(0, "empty query", "@all selects every device");
    return std::nullopt;
  }
  if (!either(data_->root)) {
    return std::nullopt;
  }
  if (!atEnd()) {  // both() takes all but these
    fail(at_, "')' without '('");
    return std::nullopt;
  }
  return Query(std::move(data_));
}

bool QueryParser::either(QueryNode& node) {
  node.kind = Kind::either;
  while (true) {
    QueryNode child;
    if (!both(child)) {
      return false;
    }
    node.children.push_back(std::move(child));
    if (!ahead(',')) {
      break;
    }
    ++at_;
    skipBlanks();
  }
  if (node.children.size() == 1) {
    QueryNode only = std::move(node.children.front());
    node = std::move(only);
  }
  return true;
}

bool QueryParser::both(QueryNode& node) {
  node.kind = Kind::both;
  do {
    QueryNode child;
    if (!one(child)) {
      return false;
    }
    node.children.push_back(std::move(child));
    if (!atEnd() && !isBlank(text_[at_]) && !ahead(',') && !ahead(')')) {
      return fail(at_, "expected a blank or a comma here");
    }
    skipBlanks();
  } while (!atEnd() && !ahead(',') && !ahead(')'));
  if (node.children.size() == 1) {
    QueryNode only = std::move(node.children.front());
    node = std::move(only);
  }
  return true;
}

bool QueryParser::one(QueryNode& node) {
  if (atEnd() || ahead(',') || ahead(')')) {
    return fail(at_, "a term is missing here");
  }
  if (!ahead('(') && !ahead('!')) {
    return countTerm() && (ahead('@') ? group(node) : term(node));
  }
  if (depth_ == kDeepestQuery) {
    return fail(
        at_, "more than " + std::to_string(kDeepestQuery) + " levels of parentheses and negations");
  }
  ++depth_;
  const bool taken = ahead('(') ? within(node) : negation(node);
  --depth_;
  return taken;
}

bool QueryParser::within(QueryNode& node) {
  const std::size_t open = at_++;
  skipBlanks();
  if (!either(node)) {
    return false;
  }
  if (!ahead(')')) {
    return fail(open, "'(' without ')'");
  }
  ++at_;
  return true;
}

bool QueryParser::negation(QueryNode& node) {
  ++at_;
  skipBlanks();
  node.kind = Kind::negated;
  node.children.emplace_back();
  return one(node.children.front());
}

bool QueryParser::group(QueryNode& node) {
  const std::size_t place = at_++;
  Word word;
  if (!takeWord(word)) {
    return false;
  }
  if (word.text == "all") {
    node.kind = Kind::all;
    return true;
  }
  if (!Groups::isName(word.text)) {
    return fail(place, "expected the name of a group after '@'");
  }
  node.kind = Kind::group;
  node.key = word.text;
  if (++data_->uses[word.text] == 1) {
    data_->groups.push_back(word.text);
  }
  return true;
}

bool QueryParser::wordContinues(const Word& word, bool inBrackets) const {
  if (atEnd()) {
    return false;
  }
  const char next = text_[at_];
  if (inBrackets) {
    return true;
  }
  if (next == '(' && !word.text.empty()) {
    return false;  // "expected a blank"
  }
  return !isBlank(next) && next != ',' && next != ')';
}

bool QueryParser::takeQuoted(Word& word) {
  const std::size_t open = at_++;
  for (; !ahead('"'); ++at_) {
    at_ += ahead('\\') ? 1 : 0;
    if (at_ >= text_.size()) {
      return fail(open, "unclosed double quote");
    }
    word.text += text_[at_];
    word.quoted.push_back(true);
    word.places.push_back(at_);
  }
  ++at_;
  return true;
}

bool QueryParser::takeWord(Word& word) {
  bool inBrackets = false;
  while (wordContinues(word, inBrackets)) {
    if (ahead('"')) {
      if (!takeQuoted(word)) {
        return false;
      }
      continue;
    }
    const bool escaped = ahead('\\');
    at_ += escaped ? 1 : 0;
    if (atEnd()) {
      return fail(at_ - 1, "a character is missing after '\\'");
    }
    if (!escaped && (ahead('[') || ahead(']'))) {
      inBrackets = ahead('[');
    }
    word.text += text_[at_];
    word.quoted.push_back(escaped);
    word.places.push_back(at_++);
  }
  word.end = at_;
  return true;
}

bool QueryParser::term(QueryNode& node) {
  const std::size_t place = at_;
  Word word;
  if (!takeWord(word)) {
    return false;
  }
  if (word.text.empty()) {
    return fail(place, "an empty name");
  }
  const std::size_t sign = findSign(word);
  if (sign == std::string::npos) {
    return plain(word, Kind::plain, node);
  }
  if (word.text[sign] == '=') {
    return tagValue(word, sign, node);
  }
  return word.text[sign] == ':' ? property(word, sign, node) : comparison(word, sign, node);
}

bool QueryParser::plain(const Word& word, Kind kind, QueryNode& node) {
  node.kind = kind;
  return named(word, node);
}

// The value of a name: kept in the list of single devices, if it names such.
bool QueryParser::named(const Word& value, QueryNode& node) {
  if (!pattern(value, node)) {
    return false;
  }
  const bool wild = [&] {
    for (std::size_t at = 0; at < value.text.size(); ++at) {
      if (value.is(at, '*') || value.is(at, '?')) {
        return true;
      }
    }
    return false;
  }();
  if (!wild) {
    auto names = node.pattern.all(Query::kMostNames);
    data_->named.push_back({value.text, names ? *std::move(names) : std::vector<std::string>(),
                            node.kind == Kind::plain && node.pattern.isLiteral()});
  }
  return true;
}

bool QueryParser::pattern(const Word& value, QueryNode& node) {
  Pattern::Problem problem;
  auto parsed = Pattern::parse(value, problem);
  if (!parsed) {
    return fail(problem.place, problem.text);
  }
  node.pattern = *std::move(parsed);
  return true;
}

bool QueryParser::tagValue(const Word& word, std::size_t equals, QueryNode& node) {
  const bool differs = equals > 0 && word.is(equals - 1, '!');
  QueryNode match;
  match.kind = Kind::tagValue;
  match.key = word.text.substr(0, equals - (differs ? 1 : 0));
  if (!isTagName(match.key)) {
    const std::vector<std::string>& names = propertyNames();
    return fail(word.place(0),
                match.key.empty() ? "the name of a tag is missing before '='"
                                  : "'" + match.key + "' is not the name of a tag",
                std::find(names.begin(), names.end(), match.key) != names.end()
                    ? "use " + match.key + ":VALUE"
                    : "");
  }
  if (!pattern(word.from(equals + 1), match)) {
    return false;
  }
  if (!differs) {
    node = std::move(match);
    return true;
  }
  node.kind = Kind::negated;
  node.children.push_back(std::move(match));
  return true;
}

bool QueryParser::property(const Word& word, std::size_t colon, QueryNode& node) {
  using Take = bool (QueryParser::*)(const Word&, QueryNode&);
  struct Row {
    const char* name;
    Kind kind;
    Take take;
  };
  static constexpr Row kRows[] = {
      {"name", Kind::name, &QueryParser::named},
      {"tag", Kind::tag, &QueryParser::pattern},
      {"type", Kind::type, &QueryParser::type},
      {"state", Kind::state, &QueryParser::state},
      {"kernel", Kind::kernel, &QueryParser::pattern},
      {"address", Kind::address, &QueryParser::address},
      {"certificate", Kind::certificate, &QueryParser::pattern},
      {"hostid", Kind::hostid, &QueryParser::pattern},
      {"agent", Kind::agent, &QueryParser::agent},
  };
  const std::string key = word.text.substr(0, colon);
  for (const Row& row : kRows) {
    if (key == row.name) {
      node.kind = row.kind;
      const Word value = word.from(colon + 1);
      return value.text.empty()
                 ? fail(word.place(colon + 1), "a value is missing after '" + key + ":'")
                 : (this->*row.take)(value, node);
    }
  }
  if (!isLowerCase(key)) {
    return plain(word, Kind::plain, node);  // ADDRESS:PORT
  }
  const auto& comparisons = comparisonNames();
  const bool compared = std::find(comparisons.begin(), comparisons.end(), key) != comparisons.end();
  std::string hint = compared ? "use " + key + "< or " + key + ">" : meant(key, propertyNames());
  return fail(word.place(0), "unknown property '" + key + "'",
              hint.empty() ? "known are " + listed(propertyNames()) : std::move(hint));
}

bool QueryParser::comparison(const Word& word, std::size_t sign, QueryNode& node) {
  const std::string key = word.text.substr(0, sign);
  const auto& names = comparisonNames();
  if (std::find(names.begin(), names.end(), key) == names.end()) {
    const std::string hint = meant(key, names);
    return fail(word.place(0), "'" + key + "' cannot be compared",
                hint.empty() ? "only " + listed(names) : hint);
  }
  node.yes = word.text[sign] == '>';
  node.kind = key == "seen" ? Kind::seen : Kind::free;
  const Word value = word.from(sign + 1);
  return key == "seen" ? duration(value, node) : size(value, node);
}

bool QueryParser::type(const Word& value, QueryNode& node) {
  static const std::vector<std::string> kTypes{"controller", "server", "unknown"};
  if (!pattern(value, node)) {
    return false;
  }
  const std::string& text = node.pattern.text();
  if (!node.pattern.isLiteral() || std::find(kTypes.begin(), kTypes.end(), text) != kTypes.end()) {
    return true;
  }
  const std::string hint = meant(text, kTypes);
  return fail(value.place(0), "unknown type '" + text + "'",
              hint.empty() ? "expected " + listed(kTypes) : hint);
}

bool QueryParser::state(const Word& value, QueryNode& node) {
  static const std::vector<std::string> kStates{"online", "offline", "waiting", "denied",
                                                "quarantined"};
  const auto state = stateOf(value.text);
  if (state) {
    node.state = *state;
    return true;
  }
  const std::string hint = meant(value.text, kStates);
  return fail(value.place(0), "unknown state '" + value.text + "'",
              hint.empty() ? "expected " + listed(kStates) : hint);
}

bool QueryParser::agent(const Word& value, QueryNode& node) {
  node.yes = value.text == "yes";
  return node.yes || value.text == "no" ||
         fail(value.place(0), "expected yes or no after 'agent:'");
}

bool QueryParser::address(const Word& value, QueryNode& node) {
  if (!pattern(value, node)) {
    return false;
  }
  if (!node.pattern.isLiteral()) {
    return true;
  }
  const auto network = Network::parse(node.pattern.text());
  if (!network) {
    return fail(value.place(0), "'" + value.text + "' is not an IPv4 address or network",
                "expected 192.0.2.1, 192.0.2.0/24 or 192.0.2.*");
  }
  node.kind = Kind::network;
  node.network = *network;
  return true;
}

bool QueryParser::duration(const Word& value, QueryNode& node) {
  static constexpr Unit kUnits[] = {
      {"s", 1000}, {"m", 60000}, {"h", 3600000}, {"d", 86400000}, {"w", 604800000}};
  const auto time = amount(value.text, kUnits, [](const std::string& unit) { return unit; });
  if (!time) {
    return fail(value.place(0), "'" + value.text + "' is not a time",
                "expected a number and s, m, h, d or w, such as seen<7d");
  }
  node.number = *time;
  data_->time = true;
  return true;
}

bool QueryParser::size(const Word& value, QueryNode& node) {
  static constexpr std::int64_t kOne = 1;
  static constexpr Unit kUnits[] = {{"", kOne},        {"b", kOne},       {"k", kOne << 10},
                                    {"m", kOne << 20}, {"g", kOne << 30}, {"t", kOne << 40}};
  const auto bytes = amount(value.text, kUnits, shortUnit);
  if (!bytes) {
    return fail(value.place(0), "'" + value.text + "' is not a size",
                "expected a number and K, M, G or T, such as free<100M");
  }
  node.number = *bytes;
  return true;
}

bool QueryParser::countTerm() {
  if (++data_->terms > kMostTerms) {
    return fail(at_, "more than " + std::to_string(kMostTerms) + " terms");
  }
  return true;
}

void QueryParser::skipBlanks() {
  while (!atEnd() && isBlank(text_[at_])) {
    ++at_;
  }
}

bool QueryParser::fail(std::size_t place, std::string text, std::string hint) {
  error_ = {place, std::move(text), std::move(hint)};
  return false;
}

}  // namespace runelgw
