// SPDX-License-Identifier: Apache-2.0
#include "gateway/fleet/query.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "gateway/fleet/query_node.h"

namespace runelgw {
namespace {

using Kind = QueryNode::Kind;

// What is not known stays unknown when it is negated.
enum class Answer3 { no, yes, unknown };

Answer3 from(bool holds) {
  return holds ? Answer3::yes : Answer3::no;
}

Answer3 negated(Answer3 answer) {
  if (answer == Answer3::unknown) {
    return answer;
  }
  return from(answer == Answer3::no);
}

bool compare(const QueryNode& node, std::int64_t value) {
  return node.yes ? value > node.number : value < node.number;
}

std::int64_t silenceOf(const Device& device, std::int64_t now) {
  if (device.state == DeviceState::online) {
    return 0;
  }
  if (device.lastSeen == 0) {
    return std::numeric_limits<std::int64_t>::max();
  }
  return std::max<std::int64_t>(0, now - device.lastSeen);
}

bool hasFree(const QueryNode& node, const Device& device) {
  constexpr auto kMost = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  return device.freeBytes &&
         compare(node, static_cast<std::int64_t>(std::min(*device.freeBytes, kMost)));
}

bool counts(const Device& device, const std::string& tag, const Query::Context& context) {
  return context.ruleTags || !device.isRuleTag(tag);
}

bool hasTag(const QueryNode& node, const Device& device, const Query::Context& context) {
  if (node.pattern.isLiteral()) {
    return device.tags.count(node.pattern.text()) > 0 &&
           counts(device, node.pattern.text(), context);
  }
  return std::any_of(device.tags.begin(), device.tags.end(), [&](const auto& tag) {
    return node.pattern.matches(tag.first) && counts(device, tag.first, context);
  });
}

bool hasTagValue(const QueryNode& node, const Device& device, const Query::Context& context) {
  const auto found = device.tags.find(node.key);
  return found != device.tags.end() && counts(device, node.key, context) &&
         node.pattern.matches(found->second);
}

bool isPlain(const QueryNode& node, const Device& device, const Query::Context& context) {
  return node.pattern.matches(device.name) ||
         (node.pattern.isLiteral() && hasTag(node, device, context));
}

bool isWithin(const QueryNode& node, const Device& device) {
  const auto address = parseAddress(device.address);
  return address && node.network.contains(*address);
}

bool term(const QueryNode& node, const Device& device, const Query::Context& context) {
  switch (node.kind) {
    case Kind::plain:
      return isPlain(node, device, context);
    case Kind::name:
      return node.pattern.matches(device.name);
    case Kind::tag:
      return hasTag(node, device, context);
    case Kind::tagValue:
      return hasTagValue(node, device, context);
    case Kind::type:
      return node.pattern.matches(device.deviceType);
    case Kind::state:
      return device.state == node.state;
    case Kind::kernel:
      return node.pattern.matches(device.kernel);
    case Kind::address:
      return node.pattern.matches(device.address);
    case Kind::network:
      return isWithin(node, device);
    case Kind::certificate:
      return node.pattern.matches(device.certificate);
    case Kind::hostid:
      return node.pattern.matches(device.hostid);
    case Kind::agent:
      return device.agent == node.yes;
    case Kind::seen:
      return compare(node, silenceOf(device, context.now));
    case Kind::free:
      return hasFree(node, device);
    default:
      return true;  // all
  }
}

Answer3 evaluate(const QueryNode& node, const Device& device, const Query::Context& context);

// Stops at a child with the answer @p decisive.
Answer3 combine(const QueryNode& node, Answer3 decisive, const Device& device,
                const Query::Context& context) {
  Answer3 result = negated(decisive);
  for (const QueryNode& child : node.children) {
    const Answer3 answer = evaluate(child, device, context);
    if (answer == decisive) {
      return answer;
    }
    result = answer == Answer3::unknown ? answer : result;
  }
  return result;
}

Answer3 evaluateGroup(const QueryNode& node, const Device& device, const Query::Context& context);

Answer3 evaluate(const QueryNode& node, const Device& device, const Query::Context& context) {
  switch (node.kind) {
    case Kind::both:
      return combine(node, Answer3::no, device, context);
    case Kind::either:
      return combine(node, Answer3::yes, device, context);
    case Kind::negated:
      return negated(evaluate(node.children.front(), device, context));
    case Kind::group:
      return evaluateGroup(node, device, context);
    default:
      return from(term(node, device, context));
  }
}

Answer3 evaluateGroup(const QueryNode& node, const Device& device, const Query::Context& context) {
  const Query* const query = context.group ? context.group(node.key) : nullptr;
  return query == nullptr ? Answer3::unknown : evaluate(query->root(), device, context);
}

}  // namespace

std::string QueryError::sentence() const {
  return "at character " + std::to_string(position + 1) + ": " + text +
         (hint.empty() ? "" : " (" + hint + ")");
}

Query::Query(std::shared_ptr<const Data> data) : data_(std::move(data)) {}

runel::Result<Query> Query::parse(std::string_view text) {
  QueryError error;
  std::optional<Query> query = parse(text, error);
  if (!query) {
    return failure(error.sentence());
  }
  return *std::move(query);
}

bool Query::matches(const Device& device, const Context& context) const {
  return evaluate(data_->root, device, context) == Answer3::yes;
}

const std::string& Query::text() const {
  return data_->text;
}

const std::vector<std::string>& Query::groups() const {
  return data_->groups;
}

std::size_t Query::uses(const std::string& name) const {
  const auto found = data_->uses.find(name);
  return found == data_->uses.end() ? 0 : found->second;
}

const std::vector<Query::Named>& Query::named() const {
  return data_->named;
}

bool Query::dependsOnTime() const {
  return data_->time;
}

std::size_t Query::terms() const {
  return data_->terms;
}

const QueryNode& Query::root() const {
  return data_->root;
}

}  // namespace runelgw
