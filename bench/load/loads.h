// SPDX-License-Identifier: Apache-2.0
// The kinds of load. Each drives one server, whose process the option --pid names, and prints its
// figures as one JSON object. With --master PORT it also acts as the server's master and accepts
// the connection that the server makes.
#ifndef ZELL_BENCH_LOAD_LOADS_H_
#define ZELL_BENCH_LOAD_LOADS_H_

#include "options.h"

namespace zell::bench {

/// --request FILE --count N. With --port P it opens new connections, otherwise it uses the master's
/// connection. --connections K are used in turn, each with --depth D outstanding requests, next to
/// --idle I connections that sent one request and then stay silent. --reply BYTES is the size of a
/// reply; by default it is measured on the master's connection.
void runRounds(const Options& options);

/// --request FILE: one request and its reply, on the master's connection.
void runTransfer(const Options& options);

/// --port P --clauses FILE: an agent sends the file, its master receives it; --repeat N times.
/// --reply BYTES is the number of bytes that the master receives each time. With --backlog 1 the
/// master is disconnected while the agent sends.
void runRelay(const Options& options);

/// The same through a message broker at --port. --sender FILE and --receiver FILE open the
/// connections; the broker replies with --sender-welcome BYTES and --receiver-welcome BYTES.
void runBroker(const Options& options);

/// --milliseconds N: measures an idle server.
void runIdle(const Options& options);

/// --port P --command PROGRAM: measures the time until the program listens.
void runStart(const Options& options);

}  // namespace zell::bench

#endif  // ZELL_BENCH_LOAD_LOADS_H_
