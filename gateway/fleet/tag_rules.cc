// SPDX-License-Identifier: Apache-2.0
#include "gateway/fleet/tag_rules.h"

#include <algorithm>
#include <utility>

#include "client/master/access_list.h"
#include "gateway/fleet/text.h"

namespace runelgw {
namespace {

constexpr std::size_t kLongestValue = 256;

}  // namespace

bool isTagName(const std::string& name) {
  return runel::usableName(name);
}

bool isTagValue(const std::string& value) {
  return value.size() <= kLongestValue && firstUnprintable(value) == std::string::npos;
}

runel::Result<void> checkTag(const std::string& name, const std::string& value) {
  if (!isTagName(name)) {
    return failure("invalid name of a tag: expected 1 to 64 letters, digits, '.', '-' and '_'");
  }
  if (!isTagValue(value)) {
    return failure("invalid value of a tag: expected at most " + std::to_string(kLongestValue) +
                   " bytes of UTF-8 without control characters");
  }
  return {};
}

runel::Result<void> TagRules::set(const TagRuleRecord& rule, const Groups& groups) {
  if (!runel::usableName(rule.name)) {
    return failure("invalid name of a rule: expected 1 to 64 letters, digits, '.', '-' and '_'");
  }
  if (const runel::Result<void> tag = checkTag(rule.tag, rule.value); !tag) {
    return tag.error();
  }
  runel::Result<Query> query = Query::parse(rule.query);
  if (!query) {
    return query.error();
  }
  if (const runel::Result<void> checked = groups.check(*query); !checked) {
    return checked.error();
  }
  if (rules_.count(rule.name) == 0 && rules_.size() >= kMostRules) {
    return failure("more than " + std::to_string(kMostRules) + " rules");
  }
  rules_.insert_or_assign(rule.name, Rule{rule, *std::move(query)});
  return {};
}

bool TagRules::remove(const std::string& name) {
  return rules_.erase(name) > 0;
}

std::map<std::string, TagRules::Tag> TagRules::tagsFor(const Device& device,
                                                       Query::Context context) const {
  context.ruleTags = false;
  std::map<std::string, Tag> tags;
  for (const auto& [name, rule] : rules_) {
    const std::string& tag = rule.record.tag;
    const bool setByCaller = device.tags.count(tag) > 0 && !device.isRuleTag(tag);
    if (!setByCaller && tags.count(tag) == 0 && rule.query.matches(device, context)) {
      tags[tag] = {rule.record.value, name};
    }
  }
  return tags;
}

bool TagRules::uses(const std::string& group) const {
  return std::any_of(rules_.begin(), rules_.end(),
                     [&](const auto& rule) { return rule.second.query.uses(group) > 0; });
}

bool TagRules::dependOnTime(const Groups& groups) const {
  return std::any_of(rules_.begin(), rules_.end(),
                     [&](const auto& rule) { return groups.dependsOnTime(rule.second.query); });
}

std::vector<TagRuleRecord> TagRules::all() const {
  std::vector<TagRuleRecord> all;
  for (const auto& [name, rule] : rules_) {
    all.push_back(rule.record);
  }
  return all;
}

}  // namespace runelgw
