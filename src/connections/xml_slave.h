// SPDX-License-Identifier: Apache-2.0
// The relay between an update manager agent and its master: one end of it.
#ifndef ZELL_CONNECTIONS_XML_SLAVE_H_
#define ZELL_CONNECTIONS_XML_SLAVE_H_

#include <chrono>
#include <string>

#include <sys/types.h>

#include "connections/clause_buffer.h"
#include "connections/runel_connection.h"
#include "connections/send_room.h"

namespace zell {

/// Cuts what its socket sends into XML clauses and writes each to the socket of its peer, the relay
/// at the other end. Without a peer it keeps what comes.
///
/// It reads no XML: ClauseBuffer tells what a clause is. Input that is none is kept and keeps the
/// relay blocked, with a warning each time it is driven, for as long as the connection lives.
class XmlSlave : public RunelConnection {
 public:
  /// Makes @p socket send without delay, and give a write up after 30 s.
  explicit XmlSlave(int socket);
  /// Leaves the peer alone: whoever deletes a relay unlinks the other first.
  ~XmlSlave() override;

  /// True while there is a peer and anything is buffered.
  bool inputPending() override;
  /// Buffers @p packet and relays every clause that is complete.
  void handleMessage(std::string& packet) override;
  /// True once a byte that opens a byte-count frame was among the input.
  bool stopRequested() override;

  /// Links this end to @p peer, which is borrowed, and relays at once what was kept; null unlinks.
  void setPeer(XmlSlave* peer);
  /// Adds @p packet to the buffer, unless it is a keep-alive ping and one waits at the end already.
  void appendPacket(const std::string& packet);
  /// Cuts the next complete clause; false, with a line that tells why, when there is none.
  bool nextXmlClause();
  /// Sends @p text, which gets CR LF appended, with one write(2). Waits before it until the send
  /// buffer has room. Returns what write(2) returned; what was not sent is lost. A timeout of the
  /// wait and the write, 30 s together, shuts the socket down, so that the server drops it.
  int write(std::string& text);

  /// The clause that was cut last; CR LF is appended when it is sent.
  [[nodiscard]] const std::string& clause() const { return clause_; }
  [[nodiscard]] const ClauseBuffer& buffer() const { return buffer_; }

 private:
  ssize_t writeInTime(const std::string& text, std::chrono::nanoseconds begun);

  XmlSlave* peer_ = nullptr;
  SendRoom room_;
  bool timedOut_ = false;  // the last wait for room; reset when there is room
  ClauseBuffer buffer_;
  std::string clause_;
  bool stop_ = false;
};

}  // namespace zell

#endif  // ZELL_CONNECTIONS_XML_SLAVE_H_
