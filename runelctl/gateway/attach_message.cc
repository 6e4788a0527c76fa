// SPDX-License-Identifier: Apache-2.0
#include "gateway/attach_message.h"

#include <cerrno>
#include <limits>
#include <string_view>
#include <utility>

#include <nlohmann/json.hpp>

namespace runelctl {
namespace {

using Json = nlohmann::ordered_json;
using Type = AttachMessage::Type;

constexpr std::size_t kLongestText = 1000;
constexpr std::uint64_t kMostCredit = std::uint64_t{1} << 40U;

std::string dumped(const Json& message) {
  return message.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string textOf(const Json& message, const char* key) {
  const auto found = message.find(key);
  return found != message.end() && found->is_string() ? found->get<std::string>() : "";
}

// Without a value if it is missing or too large.
std::optional<std::uint64_t> numberOf(const Json& message, const char* key, std::uint64_t most) {
  const auto found = message.find(key);
  if (found == message.end() || !found->is_number_unsigned() ||
      found->get<std::uint64_t>() > most) {
    return std::nullopt;
  }
  return found->get<std::uint64_t>();
}

// What a code of the gateway means for this side.
struct ReasonRow {
  std::string_view code;
  runel::Kind kind;
  runel::Cause cause;
  int number;
  const char* text;  // for a gateway that gives none
};

constexpr ReasonRow kReasons[] = {
    {"offline", runel::Kind::link, runel::Cause::refusedByMaster, 0, "the device is offline"},
    {"busy", runel::Kind::link, runel::Cause::refusedByMaster, EBUSY, "the device is busy"},
    {"deadline", runel::Kind::timeout, runel::Cause::silence, ETIMEDOUT, "deadline exceeded"},
    {"quarantined", runel::Kind::link, runel::Cause::refusedByMaster, EUCLEAN,
     "the device is quarantined"},
    {"waiting", runel::Kind::link, runel::Cause::refusedByMaster, EUCLEAN,
     "the device waits for approval"},
    {"denied", runel::Kind::local, runel::Cause::refused, EACCES, "not allowed"},
    {"lost", runel::Kind::link, runel::Cause::closed, 0, "the device was lost"},
    {"too-large", runel::Kind::local, runel::Cause::refused, EFBIG, "the request is too large"},
    {"storage", runel::Kind::link, runel::Cause::refusedByMaster, EBUSY,
     "the gateway has no space for the request"},
    {"stopping", runel::Kind::link, runel::Cause::refusedByMaster, EBUSY, "the gateway stops"},
    {"refused", runel::Kind::local, runel::Cause::refused, EOPNOTSUPP, "refused by the gateway"},
};

runel::Error errorOf(const Json& message, const std::string& code, runel::Outcome outcome) {
  ReasonRow row{"", runel::Kind::link, runel::Cause::refusedByMaster, EREMOTEIO,
                "refused by the gateway"};
  for (const ReasonRow& known : kReasons) {
    if (known.code == code) {
      row = known;
    }
  }
  std::string text = textOf(message, "text").substr(0, kLongestText);
  if (text.empty()) {
    text = row.text;
  }
  return runel::Error(row.kind, row.cause, text, row.number).with(outcome);
}

std::optional<AttachMessage> parseFailure(const Json& message, AttachMessage parsed) {
  const std::string outcome = textOf(message, "outcome");
  const std::string reason = textOf(message, "reason");
  if (outcome != "not run" && outcome != "unknown") {
    return std::nullopt;
  }
  parsed.error = errorOf(message, reason,
                         outcome == "unknown" ? runel::Outcome::unknown : runel::Outcome::notSent);
  parsed.continues = reason == "denied" || reason == "refused";
  return parsed;
}

std::optional<AttachMessage> parseDevices(const Json& message, AttachMessage parsed) {
  const auto list = message.find("list");
  if (list == message.end() || !list->is_array()) {
    return std::nullopt;
  }
  for (const Json& device : *list) {
    const std::string name = device.is_object() ? textOf(device, "device") : "";
    if (name.empty() || name.find('\n') != std::string::npos) {
      return std::nullopt;
    }
    parsed.devices.push_back({name, dumped(device)});
  }
  parsed.cursor = textOf(message, "next");
  return parsed;
}

std::optional<AttachMessage> parseCredit(const Json& message, AttachMessage parsed) {
  const auto bytes = numberOf(message, "bytes", kMostCredit);
  if (!bytes) {
    return std::nullopt;
  }
  parsed.bytes = *bytes;
  return parsed;
}

std::optional<AttachMessage> parseFor(const Json& message, AttachMessage parsed) {
  switch (parsed.type) {
    case Type::refused:
      parsed.error = errorOf(message, textOf(message, "reason"), runel::Outcome::notSent);
      return parsed;
    case Type::lost:
      parsed.error = errorOf(message, "lost", runel::Outcome::notSent);
      return parsed;
    case Type::credit:
      return parseCredit(message, std::move(parsed));
    case Type::failed:
      return parseFailure(message, std::move(parsed));
    case Type::devices:
      return parseDevices(message, std::move(parsed));
    default:
      return parsed;
  }
}

AttachMessage parseError(const Json& message) {
  AttachMessage parsed;
  parsed.type = Type::error;
  parsed.number = static_cast<std::uint32_t>(
      numberOf(message, "id", std::numeric_limits<std::uint32_t>::max()).value_or(0));
  std::string text = textOf(message, "text").substr(0, kLongestText);
  parsed.error = runel::Error(runel::Kind::local, runel::Cause::refused,
                              text.empty() ? "refused by the gateway" : text, EINVAL);
  return parsed;
}

}  // namespace

std::string attachText(std::uint32_t channel, const std::string& device,
                       runel::Milliseconds deadline) {
  return dumped({{"attach", channel}, {"device", device}, {"deadline_ms", deadline.count()}});
}

std::string detachText(std::uint32_t channel) {
  return dumped({{"detach", channel}});
}

std::string creditText(std::uint32_t channel, std::size_t bytes) {
  return dumped({{"credit", channel}, {"bytes", bytes}});
}

std::string listText(const std::string& query, std::uint32_t number, const std::string& cursor) {
  Json message{{"list", query}, {"id", number}};
  if (!cursor.empty()) {
    message["cursor"] = cursor;
  }
  return dumped(message);
}

std::optional<AttachMessage> parseAttachMessage(const std::string& text) {
  static constexpr std::pair<const char*, Type> kTypes[] = {
      {"attached", Type::attached}, {"refused", Type::refused}, {"credit", Type::credit},
      {"failed", Type::failed},     {"sent", Type::sent},       {"progress", Type::progress},
      {"lost", Type::lost},         {"devices", Type::devices},
  };
  const Json message = Json::parse(text, nullptr, false);
  if (!message.is_object()) {
    return std::nullopt;
  }
  for (const auto& [key, type] : kTypes) {
    if (message.find(key) == message.end()) {
      continue;
    }
    const auto number = numberOf(message, key, std::numeric_limits<std::uint32_t>::max());
    if (!number || *number == 0) {
      return std::nullopt;
    }
    AttachMessage parsed;
    parsed.type = type;
    parsed.number = static_cast<std::uint32_t>(*number);
    return parseFor(message, std::move(parsed));
  }
  return message.find("error") != message.end() ? parseError(message) : AttachMessage();
}

}  // namespace runelctl
