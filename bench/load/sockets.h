// SPDX-License-Identifier: Apache-2.0
// The load's sockets. What fails ends the program with a message: a load that does not work has no
// figures.
#ifndef ZELL_BENCH_LOAD_SOCKETS_H_
#define ZELL_BENCH_LOAD_SOCKETS_H_

#include <cstddef>
#include <string>
#include <string_view>

#include "base/unique_fd.h"

namespace zell::bench {

/// Ends the program; with the text of errno unless that is 0.
[[noreturn]] void fail(const std::string& what);

/// Listens on @p port of the loopback.
[[nodiscard]] UniqueFd listenOn(int port);
/// Takes the next connection that comes in on @p listener; waits a minute at most.
[[nodiscard]] UniqueFd acceptFrom(const UniqueFd& listener);
/// Connects to @p port of the loopback, trying until somebody listens, a minute at most.
[[nodiscard]] UniqueFd connectTo(int port);

void sendAll(int fd, std::string_view bytes);
/// Receives what is there, waiting a minute at most for the first byte.
[[nodiscard]] std::size_t receiveSome(int fd, char* buffer, std::size_t size);
/// Receives @p count bytes and throws them away.
void receive(int fd, std::size_t count);
/// Receives a task protocol frame and throws it away, after a look whether it tells of a success.
/// The size of the whole frame.
std::size_t receiveReply(int fd);

/// Waits until the process at the other end of @p fd, connected to @p port, has read all that was
/// sent to it.
void waitUntilRead(int fd, int port);

/// The content of the file at @p path.
[[nodiscard]] std::string contentOf(const std::string& path);

}  // namespace zell::bench

#endif  // ZELL_BENCH_LOAD_SOCKETS_H_
