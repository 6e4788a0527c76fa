// SPDX-License-Identifier: Apache-2.0
// The text messages of the attach protocol, which docs/attach.md describes.
#ifndef RUNELCTL_GATEWAY_ATTACH_MESSAGE_H_
#define RUNELCTL_GATEWAY_ATTACH_MESSAGE_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <runel/error.h>
#include <runel/request.h>

namespace runelctl {

/// The bytes that each side may send of a channel before it gets more credit.
constexpr std::size_t kFirstCredit = 262144;

///@{
/// Messages to the gateway.
[[nodiscard]] std::string attachText(std::uint32_t channel, const std::string& device,
                                     runel::Milliseconds deadline);
[[nodiscard]] std::string detachText(std::uint32_t channel);
[[nodiscard]] std::string creditText(std::uint32_t channel, std::size_t bytes);
[[nodiscard]] std::string listText(const std::string& query, std::uint32_t number,
                                   const std::string& cursor);
///@}

/// A device of a list.
struct ListedDevice {
  std::string name;
  std::string line;  ///< its JSON object, in one line
};

/// A message of the gateway.
struct AttachMessage {
  enum class Type {
    attached,
    refused,
    credit,
    failed,
    sent,
    progress,
    lost,
    devices,
    error,
    other
  };

  Type type = Type::other;
  /// The channel, or the number of the list; 0 for none.
  std::uint32_t number = 0;
  std::uint64_t bytes = 0;  ///< of a credit
  /// Of a refusal, a failure, a loss or an error, with its outcome.
  runel::Error error = runel::Error(runel::Kind::link, runel::Cause::other, "");
  bool continues = false;  ///< of a failure: further requests of the channel may run
  std::vector<ListedDevice> devices{};
  std::string cursor{};  ///< of the next part of a list; empty at the end
};

/// Without a value for malformed text.
[[nodiscard]] std::optional<AttachMessage> parseAttachMessage(const std::string& text);

}  // namespace runelctl

#endif  // RUNELCTL_GATEWAY_ATTACH_MESSAGE_H_
