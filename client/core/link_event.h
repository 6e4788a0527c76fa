// SPDX-License-Identifier: Apache-2.0
// What the process between this client and a device tells in place of answers.
#ifndef RUNEL_CORE_LINK_EVENT_H_
#define RUNEL_CORE_LINK_EVENT_H_

#include <optional>
#include <string>
#include <string_view>

#include <runel/error.h>

namespace runel {

/// One event. It travels as the payload of a frame, in the order of the answers. Its first byte
/// cannot begin a task record, so no answer is mistaken for an event. Only a connection of a
/// `Dialer` carries events.
struct LinkEvent {
  enum class About {
    oldest,    ///< the oldest request has no answer: `error`
    sent,      ///< the oldest request, which has no answer, is wholly sent to the device
    progress,  ///< bytes of a request or answer have moved behind the dialer
  };

  About about;
  Error error = Error(Kind::link, Cause::other, "");  ///< with its outcome

  [[nodiscard]] std::string payload() const;
  /// Without a value for another payload.
  [[nodiscard]] static std::optional<LinkEvent> parse(std::string_view payload);
  /// Whether a payload that begins with @p byte may be an event.
  [[nodiscard]] static bool mayBegin(char byte);
};

/// An error in one line, for the answer to a request line. `parseErrorLine` reads it.
[[nodiscard]] std::string errorLine(const Error& error);
/// Without a value for another line.
[[nodiscard]] std::optional<Error> parseErrorLine(std::string_view line);

}  // namespace runel

#endif  // RUNEL_CORE_LINK_EVENT_H_
