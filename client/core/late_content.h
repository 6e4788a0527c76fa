// SPDX-License-Identifier: Apache-2.0
// Content of a request that is read while it is sent, so that a large piece is never in memory.
#ifndef RUNEL_CORE_LATE_CONTENT_H_
#define RUNEL_CORE_LATE_CONTENT_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <runel/request.h>

namespace runel {
inline namespace v1 {

/// The last argument of a request. Its size is announced before it is read.
struct LateContent {
  /// Sets @p bytes to the @p count bytes at @p offset. Another number of bytes ends the connection.
  /// Files that shrink need not do that: as many other bytes may be given and that be remembered.
  /// Called as long as the request may be sent.
  using Read = std::function<void(std::uint64_t offset, std::size_t count, std::string& bytes)>;

  std::size_t size = 0;
  Read read;
};

/// The payload of a frame: `head`, the bytes of `content`, `tail`.
struct OutgoingPayload {
  OutgoingPayload() = default;
  OutgoingPayload(std::string whole)
      : head(std::move(whole)) {}  // NOLINT(google-explicit-constructor)

  [[nodiscard]] std::size_t size() const { return head.size() + content.size + tail.size(); }

  std::string head;
  LateContent content;
  std::string tail;
};

/// Requests with late content.
class LateRequest {
 public:
  /// The task @p words[0] with its arguments, of which @p content is the last.
  [[nodiscard]] static Request with(std::vector<std::string> words, LateContent content);
  /// The payload of any request.
  [[nodiscard]] static OutgoingPayload payloadOf(const Request& request);
};

}  // namespace v1
}  // namespace runel

#endif  // RUNEL_CORE_LATE_CONTENT_H_
