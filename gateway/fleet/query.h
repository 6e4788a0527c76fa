// SPDX-License-Identifier: Apache-2.0
// Which devices: the language in which callers and rules select them.
#ifndef RUNELGW_FLEET_QUERY_H_
#define RUNELGW_FLEET_QUERY_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <runel/result.h>

#include "gateway/fleet/device.h"

namespace runelgw {

/// The longest query, in bytes.
inline constexpr std::size_t kLongestQuery = 4096;
/// The most terms of a query, and the deepest nesting of parentheses and negations.
inline constexpr std::size_t kMostTerms = 512;
inline constexpr std::size_t kDeepestQuery = 32;

struct QueryNode;

/// Why a text is not a query.
struct QueryError {
  std::size_t position = 0;  ///< of the first wrong byte, from 0
  std::string text;          ///< one sentence without the position
  std::string hint;          ///< what may be meant, as a sentence; may be empty

  /// "at character 7: unknown state 'onlin' (did you mean 'online'?)"
  [[nodiscard]] std::string sentence() const;
};

/// A parsed query. Copies are cheap.
///
///     NAME            a device with this name, or with a tag of this name
///     name:NAME       only by its name         tag:NAME   only by a tag, with any value
///     TAG=VALUE       TAG!=VALUE: not, which also selects devices without the tag
///     type:controller state:offline kernel:5.10* certificate:NAME
///     address:10.0.0.0/8 (or an address, or a pattern)   agent:yes (or no)
///     seen<7d seen>1h (s, m, h, d, w)                    free<100M free>1G (K M G T: times 1024)
///     @GROUP          a saved query            @all       every device
///     A B             both                     A,B        one of them (binds less than "both")
///     !A              not                      (A,B)      parentheses
///
/// In names and values `*` stands for any characters, `?` for one, `[1-20]` and `[01-12,15]` for
/// numbers, `\` takes the meaning from the next character, and so do double quotes from all between
/// them. `seen` is the time since the last sign of life, 0 for a device that is online. A device
/// whose free space is not known matches no comparison with it.
class Query {
 public:
  /// What the meaning of a query depends on besides the device.
  struct Context {
    std::int64_t now = 0;  ///< wall clock, in milliseconds since 1970
    /// The query of a group, nullptr for an unknown one. May be empty if there are no groups.
    std::function<const Query*(const std::string& group)> group;
    bool ruleTags = true;  ///< false: tags that rules have set do not count
  };

  /// Parses @p text. Without a value, @p error says why.
  [[nodiscard]] static std::optional<Query> parse(std::string_view text, QueryError& error);
  /// The same, with the sentence of the error.
  [[nodiscard]] static runel::Result<Query> parse(std::string_view text);

  /// Whether @p device is selected. Groups must exist and must not contain themselves: see Groups.
  /// An unknown group selects nothing, and neither does its negation.
  [[nodiscard]] bool matches(const Device& device, const Context& context) const;

  /// As it was parsed.
  [[nodiscard]] const std::string& text() const;
  /// The groups that it names itself, without "all", each once.
  [[nodiscard]] const std::vector<std::string>& groups() const;
  /// How many of its terms are the group @p name.
  [[nodiscard]] std::size_t uses(const std::string& name) const;
  /// Terms that name single devices: without wildcards. A caller tells those that do not exist: a
  /// misspelled name would select nothing.
  struct Named {
    std::string text;                ///< as a caller writes it, such as "gw-[1-3]"
    std::vector<std::string> names;  ///< of devices; empty if there are more than `kMostNames`
    bool mayBeTag = false;           ///< devices with a tag of this name are selected too
  };
  static constexpr std::size_t kMostNames = 10000;
  [[nodiscard]] const std::vector<Named>& named() const;
  /// Whether the result changes with time alone.
  [[nodiscard]] bool dependsOnTime() const;
  /// The number of its terms.
  [[nodiscard]] std::size_t terms() const;
  /// Its parts.
  [[nodiscard]] const QueryNode& root() const;

 private:
  friend class QueryParser;
  struct Data;
  explicit Query(std::shared_ptr<const Data> data);
  std::shared_ptr<const Data> data_;
};

}  // namespace runelgw

#endif  // RUNELGW_FLEET_QUERY_H_
