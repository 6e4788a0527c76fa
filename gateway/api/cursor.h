// SPDX-License-Identifier: Apache-2.0
// Positions in lists. Clients cannot read or make them: a changed one, one of another list and one
// of another gateway are refused.
#ifndef RUNELGW_API_CURSOR_H_
#define RUNELGW_API_CURSOR_H_

#include <optional>
#include <string>
#include <string_view>

namespace runelgw {

class Cursors {
 public:
  /// @p key is secret and random.
  explicit Cursors(std::string key) : key_(std::move(key)) {}

  /// The cursor after @p position of the list @p list, which names the route and its filters.
  [[nodiscard]] std::string make(std::string_view list, std::string_view position) const;
  /// The position of @p cursor, if it is one of this list.
  [[nodiscard]] std::optional<std::string> read(std::string_view list,
                                                std::string_view cursor) const;

 private:
  [[nodiscard]] std::string seal(std::string_view list, std::string_view position) const;

  std::string key_;
};

/// Base64 with the alphabet for addresses and without padding.
[[nodiscard]] std::string toBase64Url(std::string_view bytes);
[[nodiscard]] std::optional<std::string> fromBase64Url(std::string_view text);

}  // namespace runelgw

#endif  // RUNELGW_API_CURSOR_H_
