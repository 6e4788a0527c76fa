// SPDX-License-Identifier: Apache-2.0
// JSON of clients and for clients: strict limits on the way in, valid UTF-8 on the way out.
#ifndef RUNELGW_API_JSON_TEXT_H_
#define RUNELGW_API_JSON_TEXT_H_

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace runelgw {

using Json = nlohmann::json;

/// The deepest nesting and the most values of a body.
inline constexpr std::size_t kDeepestJson = 16;
inline constexpr std::size_t kMostJsonValues = 20000;

/// Parses the body of a request. Without a value, @p error says why: not JSON, not UTF-8, a name
/// twice in one object, too deep, or too many values.
[[nodiscard]] std::optional<Json> parseJson(const std::string& text, std::string& error);

/// @p json without line breaks. Never fails: invalid UTF-8 is replaced.
[[nodiscard]] std::string textOf(const Json& json);

/// Bytes of a device: a string if they are UTF-8, else {"base64": "..."}.
[[nodiscard]] Json bytesOf(std::string_view bytes);
/// The reverse of `bytesOf`; without a value for any other JSON.
[[nodiscard]] std::optional<std::string> bytesFrom(const Json& json);

[[nodiscard]] std::string toBase64(std::string_view bytes);
/// Strict: padded, no other characters, no stray bits.
[[nodiscard]] std::optional<std::string> fromBase64(std::string_view text);

/// @p text with control characters and invalid UTF-8 as \xNN. For logs and problems.
[[nodiscard]] std::string printable(std::string_view text);

/// "2026-11-23T07:22:33.123Z" for milliseconds since 1970; null for 0.
[[nodiscard]] Json timeOf(std::int64_t milliseconds);
/// The reverse; the fraction is optional, and the zone is Z.
[[nodiscard]] std::optional<std::int64_t> timeFrom(std::string_view text);

/// Reads the members of an object. The first wrong one is kept as the error; later reads return
/// defaults.
class Fields {
 public:
  /// @p object may be any JSON. Members other than @p known are an error.
  Fields(const Json& object, std::initializer_list<std::string_view> known,
         std::string pointer = "");

  [[nodiscard]] bool has(std::string_view name) const;
  /// A string of at most @p longest bytes. Without the member an error, or @p otherwise.
  [[nodiscard]] std::string text(std::string_view name, std::size_t longest,
                                 const std::optional<std::string>& otherwise = std::nullopt);
  /// A string or an object with base64, see `bytesOf`.
  [[nodiscard]] std::string bytes(std::string_view name,
                                  const std::optional<std::string>& otherwise = std::nullopt);
  [[nodiscard]] std::int64_t number(std::string_view name, std::int64_t least, std::int64_t most,
                                    std::optional<std::int64_t> otherwise = std::nullopt);
  [[nodiscard]] bool flag(std::string_view name, bool otherwise);
  [[nodiscard]] std::vector<std::string> texts(std::string_view name, std::size_t most);
  /// An array of `bytes`.
  [[nodiscard]] std::vector<std::string> byteList(std::string_view name, std::size_t most);
  /// The member itself; null JSON without it.
  [[nodiscard]] const Json& member(std::string_view name) const;

  [[nodiscard]] bool ok() const { return error_.empty(); }
  [[nodiscard]] const std::string& error() const { return error_; }
  /// A JSON pointer to the wrong member.
  [[nodiscard]] const std::string& pointer() const { return errorPointer_; }
  void fail(std::string_view name, std::string text);

 private:
  [[nodiscard]] const Json* find(std::string_view name);

  const Json& object_;
  std::string base_;
  std::string error_;
  std::string errorPointer_;
};

}  // namespace runelgw

#endif  // RUNELGW_API_JSON_TEXT_H_
