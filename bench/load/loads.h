// SPDX-License-Identifier: Apache-2.0
// The kinds of load. Each drives one server, whose process the option --pid names, and prints its
// figures as one JSON object. With --master PORT it is also the server's master, which accepts the
// connection that the server makes.
#ifndef ZELL_BENCH_LOAD_LOADS_H_
#define ZELL_BENCH_LOAD_LOADS_H_

#include "options.h"

namespace zell::bench {

/// --request FILE --count N, and where: --port P for connections of our own, else on the master's.
/// --connections K take turns, each with --depth D requests on the way, beside --idle I that have
/// sent one request and are silent then. --reply BYTES is the size of a reply; without it, it is
/// found out on the master's connection.
void runRounds(const Options& options);

/// --request FILE: one request and its reply, on the master's connection.
void runTransfer(const Options& options);

/// --port P --clauses FILE: an agent sends the file, its master receives it; --repeat N times.
/// --reply BYTES is what comes out of one time. With --backlog 1 the master is away while the agent
/// sends.
void runRelay(const Options& options);

/// The same through a message broker at --port. --sender FILE and --receiver FILE open the
/// connections, --sender-welcome BYTES and --receiver-welcome BYTES answer that.
void runBroker(const Options& options);

/// --milliseconds N: watches a server that has nothing to do.
void runIdle(const Options& options);

/// --port P --command PROGRAM: how long until the program listens.
void runStart(const Options& options);

}  // namespace zell::bench

#endif  // ZELL_BENCH_LOAD_LOADS_H_
