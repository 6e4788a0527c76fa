// SPDX-License-Identifier: Apache-2.0
// Parses queries.
#ifndef RUNELGW_FLEET_QUERY_PARSER_H_
#define RUNELGW_FLEET_QUERY_PARSER_H_

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "gateway/fleet/pattern.h"
#include "gateway/fleet/query.h"
#include "gateway/fleet/query_node.h"

namespace runelgw {

/// Parses one text by recursive descent. Each operation takes a part from the text, and returns
/// false after `fail`.
class QueryParser {
 public:
  QueryParser(std::string_view text, QueryError& error) : text_(text), error_(error) {}

  [[nodiscard]] std::optional<Query> parse();

 private:
  [[nodiscard]] bool either(QueryNode& node);
  [[nodiscard]] bool both(QueryNode& node);
  [[nodiscard]] bool one(QueryNode& node);
  [[nodiscard]] bool within(QueryNode& node);
  [[nodiscard]] bool negation(QueryNode& node);
  [[nodiscard]] bool group(QueryNode& node);
  [[nodiscard]] bool term(QueryNode& node);

  [[nodiscard]] bool takeWord(Word& word);
  [[nodiscard]] bool takeQuoted(Word& word);
  [[nodiscard]] bool wordContinues(const Word& word, bool inBrackets) const;

  [[nodiscard]] bool plain(const Word& word, QueryNode::Kind kind, QueryNode& node);
  [[nodiscard]] bool tagValue(const Word& word, std::size_t equals, QueryNode& node);
  [[nodiscard]] bool property(const Word& word, std::size_t colon, QueryNode& node);
  [[nodiscard]] bool comparison(const Word& word, std::size_t sign, QueryNode& node);
  [[nodiscard]] bool named(const Word& value, QueryNode& node);
  [[nodiscard]] bool pattern(const Word& value, QueryNode& node);
  [[nodiscard]] bool type(const Word& value, QueryNode& node);
  [[nodiscard]] bool state(const Word& value, QueryNode& node);
  [[nodiscard]] bool agent(const Word& value, QueryNode& node);
  [[nodiscard]] bool address(const Word& value, QueryNode& node);
  [[nodiscard]] bool duration(const Word& value, QueryNode& node);
  [[nodiscard]] bool size(const Word& value, QueryNode& node);

  void skipBlanks();
  [[nodiscard]] bool atEnd() const { return at_ == text_.size(); }
  [[nodiscard]] bool ahead(char character) const { return !atEnd() && text_[at_] == character; }
  /// False, with the error.
  bool fail(std::size_t place, std::string text, std::string hint = {});
  [[nodiscard]] bool countTerm();

  const std::string_view text_;
  QueryError& error_;
  std::size_t at_ = 0;
  std::size_t depth_ = 0;
  std::shared_ptr<Query::Data> data_ = std::make_shared<Query::Data>();
};

}  // namespace runelgw

#endif  // RUNELGW_FLEET_QUERY_PARSER_H_
