// SPDX-License-Identifier: Apache-2.0
// Tags, and the rules that set them.
#ifndef RUNELGW_FLEET_TAG_RULES_H_
#define RUNELGW_FLEET_TAG_RULES_H_

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include <runel/result.h>

#include "gateway/fleet/groups.h"
#include "gateway/fleet/query.h"
#include "gateway/store/records.h"

namespace runelgw {

/// Rules by name: the devices of a query get a tag. A rule sees only the tags that people have set,
/// so that no rule depends on another one. A tag that a person has set stays as it is. Of several
/// rules for one tag, the first by name sets it.
class TagRules {
 public:
  static constexpr std::size_t kMostRules = 200;

  /// Adds or replaces a rule. Fails with a sentence for an invalid name or tag, and for a query
  /// that is malformed or that @p groups refuses.
  runel::Result<void> set(const TagRuleRecord& rule, const Groups& groups);
  /// False if there is no such rule.
  bool remove(const std::string& name);

  /// The tags that the rules set on @p device, with the names of the rules.
  struct Tag {
    std::string value;
    std::string rule;
  };
  [[nodiscard]] std::map<std::string, Tag> tagsFor(const Device& device,
                                                   Query::Context context) const;

  /// Whether a rule uses this group itself.
  [[nodiscard]] bool uses(const std::string& group) const;
  /// Whether a rule must be evaluated again when only time has passed.
  [[nodiscard]] bool dependOnTime(const Groups& groups) const;
  [[nodiscard]] std::vector<TagRuleRecord> all() const;
  [[nodiscard]] bool empty() const { return rules_.empty(); }

 private:
  struct Rule {
    TagRuleRecord record;
    Query query;
  };
  std::map<std::string, Rule> rules_;
};

/// 1 to 64 letters, digits, '.', '-' and '_'.
[[nodiscard]] bool isTagName(const std::string& name);
/// At most 256 bytes of valid UTF-8 without control characters; may be empty.
[[nodiscard]] bool isTagValue(const std::string& value);

/// Fails with a sentence for an invalid name or value.
[[nodiscard]] runel::Result<void> checkTag(const std::string& name, const std::string& value);

}  // namespace runelgw

#endif  // RUNELGW_FLEET_TAG_RULES_H_
