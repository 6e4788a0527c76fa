// SPDX-License-Identifier: Apache-2.0
#include "gateway/attach/attach_text.h"

#include <limits>
#include <utility>

#include <nlohmann/json.hpp>

namespace runelgw {
namespace {

using Json = nlohmann::ordered_json;
using Type = AttachMessage::Type;

constexpr std::uint64_t kMostCredit = std::uint64_t{1} << 40U;
constexpr std::uint64_t kLongestDeadline = 604800000;  // a week
constexpr std::size_t kLongestText = 65536;

std::string dumped(const Json& message) {
  return message.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// Without a value if it is missing or not from 1 to @p most.
std::optional<std::uint64_t> numberOf(const Json& message, const char* key, std::uint64_t most) {
  const auto found = message.find(key);
  if (found == message.end() || !found->is_number_unsigned()) {
    return std::nullopt;
  }
  const auto number = found->get<std::uint64_t>();
  return number == 0 || number > most ? std::nullopt : std::optional(number);
}

std::optional<std::string> textOf(const Json& message, const char* key) {
  const auto found = message.find(key);
  if (found == message.end() || !found->is_string() ||
      found->get_ref<const std::string&>().size() > kLongestText) {
    return std::nullopt;
  }
  return found->get<std::string>();
}

bool readAttach(const Json& message, AttachMessage& read) {
  const auto device = textOf(message, "device");
  const auto deadline = numberOf(message, "deadline_ms", kLongestDeadline);
  if (!device || (!deadline && message.contains("deadline_ms"))) {
    return false;
  }
  read.text = *device;
  if (deadline) {
    read.deadline = runel::Milliseconds(*deadline);
  }
  return true;
}

bool readCredit(const Json& message, AttachMessage& read) {
  const auto bytes = numberOf(message, "bytes", kMostCredit);
  read.bytes = bytes.value_or(0);
  return bytes.has_value();
}

bool readList(const Json& message, AttachMessage& read) {
  const auto query = textOf(message, "list");
  const auto cursor = textOf(message, "cursor");
  read.text = query.value_or("");
  read.cursor = cursor.value_or("");
  return query && (cursor || !message.contains("cursor"));
}

bool readMore(const Json& message, AttachMessage& read) {
  switch (read.type) {
    case Type::attach:
      return readAttach(message, read);
    case Type::credit:
      return readCredit(message, read);
    case Type::list:
      return readList(message, read);
    case Type::detach:
    case Type::other:
      break;
  }
  return true;
}

}  // namespace

std::optional<AttachMessage> parseAttachMessage(const std::string& text, std::string& problem) {
  static constexpr std::pair<const char*, Type> kTypes[] = {{"attach", Type::attach},
                                                            {"detach", Type::detach},
                                                            {"credit", Type::credit},
                                                            {"list", Type::list}};
  const Json message = Json::parse(text, nullptr, false);
  if (!message.is_object()) {
    problem = "a text message must be a JSON object";
    return std::nullopt;
  }
  for (const auto& [key, type] : kTypes) {
    if (!message.contains(key)) {
      continue;
    }
    AttachMessage read;
    read.type = type;
    const auto number = numberOf(message, type == Type::list ? "id" : key,
                                 std::numeric_limits<std::uint32_t>::max());
    if (!number || !readMore(message, read)) {
      problem = std::string("the message \"") + key + "\" is malformed";
      return std::nullopt;
    }
    read.number = static_cast<std::uint32_t>(*number);
    return read;
  }
  return AttachMessage();
}

std::string attachedText(std::uint32_t channel, const AttachDirectory::Entry& device) {
  return dumped({{"attached", channel}, {"device", device.name}, {"hostid", device.hostid}});
}

std::string refusedText(std::uint32_t channel, Reason reason, const std::string& text) {
  return dumped({{"refused", channel}, {"reason", codeOf(reason)}, {"text", text}});
}

std::string creditText(std::uint32_t channel, std::size_t bytes) {
  return dumped({{"credit", channel}, {"bytes", bytes}});
}

std::string failedText(std::uint32_t channel, const Answer& answer) {
  return dumped({{"failed", channel},
                 {"outcome", answer.outcome == Outcome::unknown ? "unknown" : "not run"},
                 {"reason", codeOf(answer.reason)},
                 {"text", answer.text}});
}

std::string sentText(std::uint32_t channel) {
  return dumped({{"sent", channel}});
}

std::string progressText(std::uint32_t channel) {
  return dumped({{"progress", channel}});
}

std::string lostText(std::uint32_t channel, const std::string& text) {
  return dumped({{"lost", channel}, {"text", text}});
}

std::string devicesText(std::uint32_t list, const AttachDirectory::Part& part) {
  std::string text = "{\"devices\":" + std::to_string(list) + ",\"list\":[";
  for (const std::string& device : part.devices) {
    text.append(text.back() == '[' ? "" : ",").append(device);
  }
  text += ']';
  if (!part.next.empty()) {
    text += ",\"next\":" + dumped(part.next);
  }
  return text + '}';
}

std::string errorText(const std::string& code, std::uint32_t list, const std::string& text) {
  Json message{{"error", code}};
  if (list != 0) {
    message["id"] = list;
  }
  message["text"] = text;
  return dumped(message);
}

}  // namespace runelgw
