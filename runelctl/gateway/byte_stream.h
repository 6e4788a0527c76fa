// SPDX-License-Identifier: Apache-2.0
// A TCP connection to a gateway, with or without TLS.
#ifndef RUNELCTL_GATEWAY_BYTE_STREAM_H_
#define RUNELCTL_GATEWAY_BYTE_STREAM_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <netinet/in.h>
#include <sys/socket.h>

#include <runel/error.h>
#include <runel/loop.h>

#include "base/unique_fd.h"
#include "gateway/gateway_settings.h"

struct ssl_st;
struct ssl_ctx_st;

namespace runelctl {

/// Moves bytes without blocking the loop. One read and one write may be under way.
class ByteStream {
 public:
  /// An errno value, 0 for success, and the moved bytes: 0 with 0 for the end of the stream.
  using Moved = std::function<void(int number, std::size_t bytes)>;
  /// Without an error, the stream can be used.
  using Opened = std::function<void(const runel::Error* why)>;

  ByteStream(runel::Loop& loop, const GatewaySettings& settings)
      : loop_(loop), settings_(settings) {}
  ~ByteStream();
  ByteStream(const ByteStream&) = delete;
  ByteStream& operator=(const ByteStream&) = delete;

  /// Looks up the name, which BLOCKS, connects, and negotiates TLS.
  void open(Opened opened);
  ///@{
  /// Calls @p moved later. The memory must live until then.
  void read(void* bytes, std::size_t size, Moved moved);
  void write(const void* bytes, std::size_t size, Moved moved);
  ///@}
  /// Ends what is under way with ECANCELED.
  void close();

  /// Whether bytes have come since the last call.
  [[nodiscard]] bool heard();
  /// What the failure of TLS was, if there was one.
  [[nodiscard]] const std::string& detail() const { return detail_; }

 private:
  struct Operation {
    void* bytes = nullptr;
    std::size_t size = 0;
    Moved moved;  // empty for none
    std::uint32_t awaited = 0;
  };
  struct Free {
    void operator()(ssl_st* tls) const;
    void operator()(ssl_ctx_st* context) const;
  };

  [[nodiscard]] std::string prepareTls();
  void connectNext();
  void checkConnected();
  void handshake();
  void fail(runel::Cause cause, const std::string& why, int number);
  void tryRead();
  void tryWrite();
  void handle(ssize_t result, Operation& operation, std::uint32_t plainWait);
  void finish(Operation& operation, int number, std::size_t bytes);
  [[nodiscard]] int tlsFailure();
  void watch();

  runel::Loop& loop_;
  const GatewaySettings settings_;
  Opened opened_;
  std::vector<sockaddr_storage> addresses_;  // that were not tried, the next one last
  int lastError_ = 0;
  zell::UniqueFd socket_;
  std::uint32_t watched_ = 0;
  std::unique_ptr<ssl_ctx_st, Free> context_;
  std::unique_ptr<ssl_st, Free> tls_;
  Operation reading_;
  Operation writing_;
  bool heard_ = false;
  std::string detail_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace runelctl

#endif  // RUNELCTL_GATEWAY_BYTE_STREAM_H_
