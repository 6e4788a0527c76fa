// SPDX-License-Identifier: Apache-2.0
// The load's sockets. Every failure ends the program with a message, because a failed load has no
// figures.
#ifndef ZELL_BENCH_LOAD_SOCKETS_H_
#define ZELL_BENCH_LOAD_SOCKETS_H_

#include <cstddef>
#include <string>
#include <string_view>

#include "base/unique_fd.h"

namespace zell::bench {

/// Ends the program with a message, which includes the text of errno unless that is 0.
[[noreturn]] void fail(const std::string& what);

/// Listens on @p port of the loopback.
[[nodiscard]] UniqueFd listenOn(int port);
/// Accepts the next connection on @p listener. The timeout is a minute.
[[nodiscard]] UniqueFd acceptFrom(const UniqueFd& listener);
/// Connects to @p port of the loopback. Retries for up to a minute until a server listens.
[[nodiscard]] UniqueFd connectTo(int port);

void sendAll(int fd, std::string_view bytes);
/// Receives the available bytes. The timeout for the first byte is a minute.
[[nodiscard]] std::size_t receiveSome(int fd, char* buffer, std::size_t size);
/// Receives and discards @p count bytes.
void receive(int fd, std::size_t count);
/// Receives and discards a frame of the task protocol, and fails unless it reports success. Returns
/// the size of the whole frame.
std::size_t receiveReply(int fd);

/// Waits until the process at the other end of @p fd, connected to @p port, has read everything
/// that was sent to it.
void waitUntilRead(int fd, int port);

/// The content of the file at @p path.
[[nodiscard]] std::string contentOf(const std::string& path);

}  // namespace zell::bench

#endif  // ZELL_BENCH_LOAD_SOCKETS_H_
