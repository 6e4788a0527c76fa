// SPDX-License-Identifier: Apache-2.0
// Clients that send frames to devices over one WebSocket. docs/attach.md describes the protocol.
#ifndef RUNELGW_ATTACH_ATTACH_H_
#define RUNELGW_ATTACH_ATTACH_H_

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <runel/loop.h>
#include <runel/result.h>

#include "gateway/core/outcome.h"
#include "gateway/core/payload_spool.h"
#include "gateway/core/permit.h"
#include "gateway/core/router.h"
#include "gateway/http/http.h"

namespace runelgw {

/// The subprotocol.
inline constexpr const char* kAttachProtocol = "runel.attach.v1";

/// Who knows the devices.
class AttachDirectory {
 public:
  /// A device that a client wants to use.
  struct Entry {
    DeviceId id = 0;
    std::string name;              ///< valid UTF-8
    std::string hostid;            ///< any bytes
    Reason absent = Reason::none;  ///< why it cannot be used now
  };
  /// A part of a list.
  struct Part {
    std::vector<std::string> devices;  ///< JSON objects with the member "device", the name
    std::string next;                  ///< the cursor of the next part; empty at the end
  };

  AttachDirectory() = default;
  virtual ~AttachDirectory() = default;
  AttachDirectory(const AttachDirectory&) = delete;
  AttachDirectory& operator=(const AttachDirectory&) = delete;

  /// The device that is called @p name.
  [[nodiscard]] virtual std::optional<Entry> find(const std::string& name) const = 0;
  /// At most @p most devices that match @p query and that @p permit may see, in the order of their
  /// names, after those that @p cursor stands for. Fails with a sentence about the query.
  [[nodiscard]] virtual runel::Result<Part> list(const std::string& query,
                                                 const std::string& cursor, const Permit& permit,
                                                 std::size_t most) const = 0;
};

/// What sessions use. All must outlive them.
struct AttachParts {
  runel::Loop& loop;
  Router& router;
  const AttachDirectory& directory;
  std::shared_ptr<PayloadSpool> spool;  ///< of large requests
};

struct AttachSettings {
  std::size_t memoryBytes = 262144;  ///< from this size on, a request is spooled
  std::size_t mostChannels = 20000;  ///< of one client
  std::size_t answerBytes =
      16777216;                    ///< of answers in memory, above which no request is passed on
  runel::Milliseconds tick{1000};  ///< between two looks at rights and progress
};

/// Serves the client of @p exchange, which may do what @p permit says, until it leaves.
void attachClient(const std::shared_ptr<HttpExchange>& exchange, std::shared_ptr<Permit> permit,
                  const AttachParts& parts, const AttachSettings& settings = {});

/// The session of one client, for any WebSocket.
[[nodiscard]] std::shared_ptr<WebSocketHandler> makeAttachSession(
    std::shared_ptr<Permit> permit, const AttachParts& parts, const AttachSettings& settings = {});

}  // namespace runelgw

#endif  // RUNELGW_ATTACH_ATTACH_H_
