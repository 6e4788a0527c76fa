// SPDX-License-Identifier: Apache-2.0
// How a request to a device ends.
#ifndef RUNELGW_CORE_OUTCOME_H_
#define RUNELGW_CORE_OUTCOME_H_

#include <cstdint>
#include <string>

#include "gateway/core/payload.h"

namespace runelgw {

/// Identifies a device. The registry assigns it and stores it. 0 is no device.
using DeviceId = std::uint64_t;

/// Whether the task of a request ran.
enum class Outcome {
  notRun,    ///< the device did not receive the whole request
  answered,  ///< the device answered
  unknown,   ///< wholly sent without an answer: the task may have run
};

/// Why a request was not answered.
enum class Reason {
  none,         ///< it was answered
  offline,      ///< the device is not connected
  busy,         ///< the queue of the device is full
  deadline,     ///< the deadline of the request or the I/O timeout is over
  quarantined,  ///< two connections claim the identity of the device
  waiting,      ///< the device is not approved yet
  denied,       ///< the device is on the deny list
  lost,         ///< the connection to the device was lost
  tooLarge,     ///< the request exceeds the limit of a frame
  storage,      ///< the temporary file has no room, or cannot be read
  stopping,     ///< the gateway is stopping
  refused,      ///< the gateway does not pass such requests on
};

/// "not run", "answered" or "unknown whether it ran".
[[nodiscard]] const char* nameOf(Outcome outcome);
/// A stable code for programs, the name of the enumerator: "offline", "busy", "too-large"...
[[nodiscard]] const char* codeOf(Reason reason);

/// The end of one request.
struct Answer {
  Outcome outcome = Outcome::notRun;
  Reason reason = Reason::none;
  std::string text;  ///< one sentence without the name of the device; empty if answered
  Payload payload;   ///< the text form of the answer's record, if answered
};

}  // namespace runelgw

#endif  // RUNELGW_CORE_OUTCOME_H_
