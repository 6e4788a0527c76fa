// SPDX-License-Identifier: Apache-2.0
// A local agent: exchanges clauses with the master of a daemon.
#ifndef RUNEL_AGENT_H_
#define RUNEL_AGENT_H_

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <runel/address.h>
#include <runel/error.h>
#include <runel/export.h>
#include <runel/loop.h>
#include <runel/request.h>
#include <runel/result.h>

namespace runel {
inline namespace v1 {

/// The event-driven agent. The daemon has one agent: a second one replaces it. The daemon connects
/// to its master after the first clause, and keeps clauses until then.
class RUNEL_API AsyncAgent {
 public:
  /// The functions that an agent calls. Each may destroy the agent.
  struct Handlers {
    /// A clause of the master has arrived.
    std::function<void(const std::string& clause)> clause;
    /// The connection ended or could not be made. Called once, as the last function.
    std::function<void(const Error& error)> end;
    /// The connection is made. May be empty.
    std::function<void()> connected;
    /// Bytes were sent or received. May be empty.
    std::function<void()> progress;
  };

  /// Starts to connect. The loop must outlive the agent.
  AsyncAgent(Loop& loop, const Address& address, Milliseconds connectTimeout, Handlers handlers);
  /// Closes the connection. Drops all handlers without calling them.
  ~AsyncAgent();
  AsyncAgent(const AsyncAgent&) = delete;
  AsyncAgent& operator=(const AsyncAgent&) = delete;

  /// Queues one clause, also before the connection is made. Fails with `Kind::local` if @p clause
  /// is not exactly one: a malformed one would stop the daemon. Ignored after the end.
  [[nodiscard]] Result<void> send(const std::string& clause);
  /// Queues @p bytes unchecked, even if they stop the daemon.
  void sendRaw(const std::string& bytes);
  /// The number of bytes that are not sent yet.
  [[nodiscard]] std::size_t queued() const;

 private:
  struct RUNEL_LOCAL Data;
  std::unique_ptr<Data> data_;
};

/// The blocking agent. Use one object in one thread at a time.
class RUNEL_API Agent {
 public:
  /// @p address is HOST[:PORT] of the daemon, usually on this host. Malformed text fails in the
  /// first call. @p timeout is for connecting, and for each progress of sending.
  explicit Agent(const std::string& address = "127.0.0.1",
                 Milliseconds timeout = Milliseconds(30000));
  ~Agent();
  ///@{
  /// Moving leaves @p other without a state: assign to it or destroy it.
  Agent(Agent&& other) noexcept;
  Agent& operator=(Agent&& other) noexcept;
  ///@}

  /// Connects on the first call, and on the next one after the end of a connection. Returns when
  /// the system has taken the clause. Fails with `Kind::local` if @p clause is not exactly one.
  [[nodiscard]] Result<void> send(const std::string& clause);
  /// The next clause of the master, waiting at most @p limit. Without a value after @p limit. Fails
  /// when the connection has ended.
  [[nodiscard]] Result<std::optional<std::string>> receive(Milliseconds limit);

 private:
  struct RUNEL_LOCAL Data;
  std::unique_ptr<Data> data_;
};

}  // namespace v1
}  // namespace runel

#endif  // RUNEL_AGENT_H_
