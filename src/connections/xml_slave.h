// SPDX-License-Identifier: Apache-2.0
// One end of the relay between an update manager agent and its master.
#ifndef ZELL_CONNECTIONS_XML_SLAVE_H_
#define ZELL_CONNECTIONS_XML_SLAVE_H_

#include <chrono>
#include <string>

#include <sys/types.h>

#include "connections/runel_connection.h"
#include "connections/send_room.h"
#include "protocol/clause_buffer.h"

namespace zell {

/// Splits the input of its socket into XML clauses and writes each to the socket of its peer, the
/// relay at the other end. Buffers the input while it has no peer.
///
/// It does not parse XML: ClauseBuffer defines what a clause is. Other input stays in the buffer
/// and blocks the relay as long as the connection lives. Each attempt to relay logs a warning.
class XmlSlave : public RunelConnection {
 public:
  /// Disables delayed sending on @p socket and sets a write timeout of 30 s.
  explicit XmlSlave(int socket);
  /// Does not change the peer: unlink both relays before deleting one.
  ~XmlSlave() override;

  /// True while it has a peer and a non-empty buffer.
  bool inputPending() override;
  /// Buffers @p packet and relays every complete clause.
  void handleMessage(std::string& packet) override;
  /// True once the input contained a byte that begins a byte-count frame.
  bool stopRequested() override;

  /// Links this end to @p peer, which is borrowed, and relays the buffered clauses at once. Null
  /// unlinks.
  void setPeer(XmlSlave* peer);
  /// Appends @p packet to the buffer. Discards a keep-alive ping when the buffer already ends with
  /// one.
  void appendPacket(const std::string& packet);
  /// Removes the next complete clause. When no clause is complete, logs the reason and returns
  /// false.
  bool nextXmlClause();
  /// Appends CR LF to @p text and sends it with one write(2). Waits before that until the send
  /// buffer has room. Returns the result of write(2); bytes not sent are lost. The wait and the
  /// write together time out after 30 s. A timeout shuts the socket down, so that the server drops
  /// it.
  int write(std::string& text);

  /// The clause removed last. CR LF is appended when it is sent.
  [[nodiscard]] const std::string& clause() const { return clause_; }
  [[nodiscard]] const ClauseBuffer& buffer() const { return buffer_; }

 private:
  ssize_t writeInTime(const std::string& text, std::chrono::nanoseconds begun);

  XmlSlave* peer_ = nullptr;
  SendRoom room_;
  bool timedOut_ = false;  // the last wait for room timed out; reset when there is room
  ClauseBuffer buffer_;
  std::string clause_;
  bool stop_ = false;
};

}  // namespace zell

#endif  // ZELL_CONNECTIONS_XML_SLAVE_H_
