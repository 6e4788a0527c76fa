// SPDX-License-Identifier: Apache-2.0
// The text messages of the attach protocol.
#ifndef RUNELGW_ATTACH_ATTACH_TEXT_H_
#define RUNELGW_ATTACH_ATTACH_TEXT_H_

#include <cstdint>
#include <optional>
#include <string>

#include <runel/request.h>

#include "gateway/attach/attach.h"
#include "gateway/core/outcome.h"

namespace runelgw {

/// The bytes that each side may send of a channel before it gets more credit.
inline constexpr std::size_t kFirstCredit = 262144;

/// A message of a client.
struct AttachMessage {
  enum class Type {
    attach,
    detach,
    credit,
    list,
    other,  ///< of a later version: ignore it
  };

  Type type = Type::other;
  std::uint32_t number = 0;             ///< of the channel or the list, at least 1
  std::string text{};                   ///< the name of a device, or a query
  std::string cursor{};                 ///< of a list
  std::uint64_t bytes = 0;              ///< of a credit
  runel::Milliseconds deadline{30000};  ///< of each request of a channel
};

/// Without a value and with a sentence in @p problem if @p text is malformed.
[[nodiscard]] std::optional<AttachMessage> parseAttachMessage(const std::string& text,
                                                              std::string& problem);

///@{
/// Messages to a client.
[[nodiscard]] std::string attachedText(std::uint32_t channel, const AttachDirectory::Entry& device);
[[nodiscard]] std::string refusedText(std::uint32_t channel, Reason reason,
                                      const std::string& text);
[[nodiscard]] std::string creditText(std::uint32_t channel, std::size_t bytes);
[[nodiscard]] std::string failedText(std::uint32_t channel, const Answer& answer);
[[nodiscard]] std::string sentText(std::uint32_t channel);
[[nodiscard]] std::string progressText(std::uint32_t channel);
[[nodiscard]] std::string lostText(std::uint32_t channel, const std::string& text);
[[nodiscard]] std::string devicesText(std::uint32_t list, const AttachDirectory::Part& part);
/// About the list @p list, or about the whole session for 0.
[[nodiscard]] std::string errorText(const std::string& code, std::uint32_t list,
                                    const std::string& text);
///@}

}  // namespace runelgw

#endif  // RUNELGW_ATTACH_ATTACH_TEXT_H_
