// SPDX-License-Identifier: Apache-2.0
#include "gateway/api/json_text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <set>
#include <utility>

#include "text/utf8.h"

namespace runelgw {
namespace {

constexpr std::string_view kBase64 =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The value of each character, -1 for others.
constexpr std::array<int, 256> kDigits = [] {
  std::array<int, 256> digits{};
  for (int& digit : digits) {
    digit = -1;
  }
  for (std::size_t value = 0; value < kBase64.size(); ++value) {
    digits[static_cast<unsigned char>(kBase64[value])] = static_cast<int>(value);
  }
  return digits;
}();

// Checks what the library would accept: nesting without a limit, and names that occur twice, of
// which two programs may take different ones.
class LimitCheck : public nlohmann::json_sax<Json> {
 public:
  [[nodiscard]] const std::string& error() const { return error_; }

  bool null() override { return count(); }
  bool boolean(bool) override { return count(); }
  bool number_integer(number_integer_t) override { return count(); }
  bool number_unsigned(number_unsigned_t) override { return count(); }
  bool number_float(number_float_t, const string_t&) override { return count(); }
  bool string(string_t&) override { return count(); }
  bool binary(binary_t&) override { return count(); }
  bool start_object(std::size_t) override { return open(); }
  bool key(string_t& name) override {
    return names_.back().insert(name).second || fail("a name occurs twice in an object");
  }
  bool end_object() override { return close(); }
  bool start_array(std::size_t) override { return open(); }
  bool end_array() override { return close(); }
  bool parse_error(std::size_t position, const std::string&,
                   const nlohmann::detail::exception&) override {
    return fail("not valid JSON in UTF-8 at byte " + std::to_string(position));
  }

 private:
  bool count() { return ++values_ <= kMostJsonValues || fail("too many values"); }
  bool open() {
    names_.emplace_back();
    return names_.size() <= kDeepestJson ? count() : fail("nested too deeply");
  }
  bool close() {
    names_.pop_back();
    return true;
  }
  bool fail(std::string text) {
    error_ = std::move(text);
    return false;
  }

  std::vector<std::set<std::string>> names_;
  std::size_t values_ = 0;
  std::string error_;
};

void addEscaped(std::string& text, unsigned char byte) {
  char escaped[5];
  (void)snprintf(escaped, sizeof escaped, "\\x%02x", byte);
  text += escaped;
}

bool isControl(std::uint32_t code) {
  return code < 0x20 || (code >= 0x7f && code < 0xa0);
}

// Reads @p count digits at @p at.
bool readDigits(std::string_view text, std::size_t at, std::size_t count, int& value) {
  value = 0;
  for (std::size_t digit = at; digit < at + count; ++digit) {
    if (digit >= text.size() || text[digit] < '0' || text[digit] > '9') {
      return false;
    }
    value = value * 10 + (text[digit] - '0');
  }
  return true;
}

// The milliseconds of ".123" at the front of @p text, which is moved behind them.
bool readFraction(std::string_view& text, std::int64_t& milliseconds) {
  milliseconds = 0;
  if (text.empty() || text[0] != '.') {
    return true;
  }
  std::size_t digits = 1;
  for (std::int64_t unit = 100; digits < text.size() && text[digits] >= '0' && text[digits] <= '9';
       ++digits, unit /= 10) {
    milliseconds += (text[digits] - '0') * unit;
  }
  text.remove_prefix(digits);
  return digits > 1 && digits <= 10;
}

}  // namespace

std::optional<Json> parseJson(const std::string& text, std::string& error) {
  LimitCheck check;
  if (!Json::sax_parse(text, &check)) {
    error = check.error();
    return std::nullopt;
  }
  Json json = Json::parse(text, nullptr, false);
  if (json.is_discarded()) {
    error = "not valid JSON";
    return std::nullopt;
  }
  return json;
}

std::string textOf(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json bytesOf(std::string_view bytes) {
  if (zell::isUtf8(bytes)) {
    return std::string(bytes);
  }
  return {{"base64", toBase64(bytes)}};
}

std::optional<std::string> bytesFrom(const Json& json) {
  if (json.is_string()) {
    return json.get<std::string>();
  }
  if (!json.is_object() || json.size() != 1 || !json.contains("base64") ||
      !json["base64"].is_string()) {
    return std::nullopt;
  }
  return fromBase64(json["base64"].get_ref<const std::string&>());
}

std::string toBase64(std::string_view bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t at = 0; at < bytes.size(); at += 3) {
    const std::size_t count = std::min<std::size_t>(3, bytes.size() - at);
    std::uint32_t bits = 0;
    for (std::size_t byte = 0; byte < 3; ++byte) {
      bits = (bits << 8) | (byte < count ? static_cast<unsigned char>(bytes[at + byte]) : 0U);
    }
    for (std::size_t digit = 0; digit < 4; ++digit) {
      text += digit <= count ? kBase64[(bits >> (18 - 6 * digit)) & 63U] : '=';
    }
  }
  return text;
}

std::optional<std::string> fromBase64(std::string_view text) {
  if (text.size() % 4 != 0) {
    return std::nullopt;
  }
  std::size_t padding = 0;
  while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=') {
    ++padding;
  }
  std::string bytes;
  bytes.reserve(text.size() / 4 * 3);
  std::uint32_t bits = 0;
  const std::size_t digits = text.size() - padding;
  for (std::size_t at = 0; at < digits; ++at) {
    const int digit = kDigits[static_cast<unsigned char>(text[at])];
    if (digit < 0) {
      return std::nullopt;
    }
    bits = (bits << 6) | static_cast<std::uint32_t>(digit);
    if (at % 4 == 3) {
      bytes += static_cast<char>(bits >> 16 & 255U);
      bytes += static_cast<char>(bits >> 8 & 255U);
      bytes += static_cast<char>(bits & 255U);
    }
  }
  // The bits behind the last byte must be zero, so that each sequence of bytes has one form.
  if (padding == 1) {
    bytes += static_cast<char>(bits >> 10 & 255U);
    bytes += static_cast<char>(bits >> 2 & 255U);
    bits &= 3U;
  } else if (padding == 2) {
    bytes += static_cast<char>(bits >> 4 & 255U);
    bits &= 15U;
  }
  return padding > 0 && bits != 0 ? std::nullopt : std::optional<std::string>(std::move(bytes));
}

std::string printable(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  while (!text.empty()) {
    std::uint32_t code = 0;
    const std::size_t length = zell::utf8Sequence(text, code);
    if (length == 0 || isControl(code)) {
      for (std::size_t byte = 0; byte < std::max<std::size_t>(length, 1); ++byte) {
        addEscaped(result, static_cast<unsigned char>(text[byte]));
      }
    } else {
      result.append(text.substr(0, length));
    }
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return result;
}

Json timeOf(std::int64_t milliseconds) {
  if (milliseconds == 0) {
    return nullptr;
  }
  const std::int64_t fraction = ((milliseconds % 1000) + 1000) % 1000;
  const std::time_t seconds = (milliseconds - fraction) / 1000;
  std::tm parts{};
  char text[64];
  if (gmtime_r(&seconds, &parts) == nullptr ||
      std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts) == 0) {
    return nullptr;
  }
  char whole[80];
  (void)snprintf(whole, sizeof whole, "%s.%03dZ", text, static_cast<int>(fraction));
  return whole;
}

std::optional<std::int64_t> timeFrom(std::string_view text) {
  std::tm parts{};
  if (!readDigits(text, 0, 4, parts.tm_year) || !readDigits(text, 5, 2, parts.tm_mon) ||
      !readDigits(text, 8, 2, parts.tm_mday) || !readDigits(text, 11, 2, parts.tm_hour) ||
      !readDigits(text, 14, 2, parts.tm_min) || !readDigits(text, 17, 2, parts.tm_sec) ||
      text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' || text[16] != ':') {
    return std::nullopt;
  }
  text.remove_prefix(19);
  std::int64_t milliseconds = 0;
  if (!readFraction(text, milliseconds) || text != "Z") {
    return std::nullopt;
  }
  parts.tm_year -= 1900;
  parts.tm_mon -= 1;
  const std::tm wanted = parts;
  const std::time_t seconds = timegm(&parts);
  // timegm changes a date that does not exist, such as 30 February, to another one.
  if (parts.tm_mon != wanted.tm_mon || parts.tm_mday != wanted.tm_mday ||
      parts.tm_hour != wanted.tm_hour || parts.tm_min != wanted.tm_min ||
      parts.tm_sec != wanted.tm_sec || parts.tm_year < 70) {
    return std::nullopt;
  }
  return static_cast<std::int64_t>(seconds) * 1000 + milliseconds;
}

Fields::Fields(const Json& object, std::initializer_list<std::string_view> known,
               std::string pointer)
    : object_(object), base_(std::move(pointer)) {
  if (!object.is_object()) {
    error_ = "must be an object";
    errorPointer_ = base_;
    return;
  }
  for (const auto& [name, value] : object.items()) {
    if (std::find(known.begin(), known.end(), name) == known.end()) {
      fail(name, "is not known here");
      return;
    }
  }
}

void Fields::fail(std::string_view name, std::string text) {
  if (!error_.empty()) {
    return;
  }
  errorPointer_ = base_ + "/";
  for (const char character : name) {
    if (character == '~') {
      errorPointer_ += "~0";
    } else if (character == '/') {
      errorPointer_ += "~1";
    } else {
      errorPointer_ += character;
    }
  }
  error_ = "\"" + std::string(name) + "\" " + std::move(text);
}

const Json* Fields::find(std::string_view name) {
  if (!ok()) {
    return nullptr;
  }
  const auto found = object_.find(name);
  return found == object_.end() ? nullptr : &*found;
}

bool Fields::has(std::string_view name) const {
  return object_.is_object() && object_.contains(name);
}

const Json& Fields::member(std::string_view name) const {
  static const Json kNull;
  const auto found = object_.is_object() ? object_.find(name) : object_.end();
  return found == object_.end() ? kNull : *found;
}

std::string Fields::text(std::string_view name, std::size_t longest,
                         const std::optional<std::string>& otherwise) {
  const Json* const json = find(name);
  if (json == nullptr) {
    if (!otherwise) {
      fail(name, "is missing");
    }
    return otherwise.value_or("");
  }
  if (!json->is_string() || json->get_ref<const std::string&>().size() > longest) {
    fail(name, "must be a string of at most " + std::to_string(longest) + " bytes");
    return "";
  }
  return json->get<std::string>();
}

std::string Fields::bytes(std::string_view name, const std::optional<std::string>& otherwise) {
  const Json* const json = find(name);
  if (json == nullptr) {
    if (!otherwise) {
      fail(name, "is missing");
    }
    return otherwise.value_or("");
  }
  std::optional<std::string> bytes = bytesFrom(*json);
  if (!bytes) {
    fail(name, "must be a string or an object with \"base64\"");
    return "";
  }
  return std::move(*bytes);
}

std::int64_t Fields::number(std::string_view name, std::int64_t least, std::int64_t most,
                            std::optional<std::int64_t> otherwise) {
  const Json* const json = find(name);
  if (json == nullptr) {
    if (!otherwise) {
      fail(name, "is missing");
    }
    return otherwise.value_or(0);
  }
  const bool whole = json->is_number_integer() &&
                     (!json->is_number_unsigned() || json->get<std::uint64_t>() <= INT64_MAX);
  const std::int64_t value = whole ? json->get<std::int64_t>() : 0;
  if (!whole || value < least || value > most) {
    fail(name,
         "must be a whole number from " + std::to_string(least) + " to " + std::to_string(most));
    return otherwise.value_or(0);
  }
  return value;
}

bool Fields::flag(std::string_view name, bool otherwise) {
  const Json* const json = find(name);
  if (json == nullptr) {
    return otherwise;
  }
  if (!json->is_boolean()) {
    fail(name, "must be true or false");
    return otherwise;
  }
  return json->get<bool>();
}

std::vector<std::string> Fields::texts(std::string_view name, std::size_t most) {
  std::vector<std::string> texts;
  const Json* const json = find(name);
  if (json == nullptr) {
    return texts;
  }
  if (!json->is_array() || json->size() > most) {
    fail(name, "must be an array of at most " + std::to_string(most) + " strings");
    return texts;
  }
  for (const Json& item : *json) {
    if (!item.is_string()) {
      fail(name, "must be an array of strings");
      return {};
    }
    texts.push_back(item.get<std::string>());
  }
  return texts;
}

std::vector<std::string> Fields::byteList(std::string_view name, std::size_t most) {
  std::vector<std::string> list;
  const Json* const json = find(name);
  if (json == nullptr) {
    return list;
  }
  if (!json->is_array() || json->size() > most) {
    fail(name, "must be an array of at most " + std::to_string(most) + " items");
    return list;
  }
  for (const Json& item : *json) {
    std::optional<std::string> bytes = bytesFrom(item);
    if (!bytes) {
      fail(name, "must be an array of strings or objects with \"base64\"");
      return {};
    }
    list.push_back(std::move(*bytes));
  }
  return list;
}

}  // namespace runelgw
