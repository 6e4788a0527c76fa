// SPDX-License-Identifier: Apache-2.0
// The event-driven master: the port that devices connect to, and the role of each connection.
#ifndef RUNEL_ASYNC_MASTER_H_
#define RUNEL_ASYNC_MASTER_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <runel/error.h>
#include <runel/events.h>
#include <runel/export.h>
#include <runel/loop.h>
#include <runel/request.h>
#include <runel/result.h>

namespace runel {
inline namespace v1 {

/// Who may connect to a master, and how it treats connections.
class RUNEL_API MasterOptions {
 public:
  MasterOptions();
  ///@{
  /// A copy with its own settings.
  MasterOptions(const MasterOptions& other);
  MasterOptions& operator=(const MasterOptions& other);
  ///@}
  ~MasterOptions();

  /// The listening address, 127.0.0.1:5112 by default. @p host is an IPv4 address; 0.0.0.0 stands
  /// for all interfaces. Port 0 lets the system choose.
  MasterOptions& setListen(std::string host, std::uint16_t port);
  /// A further listening address.
  MasterOptions& addListen(std::string host, std::uint16_t port);
  /// Allows only these networks, a comma-separated list of ADDRESS and ADDRESS/BITS. Fails with
  /// `Kind::local`.
  [[nodiscard]] Result<void> allowAddresses(const std::string& list);
  /// Allows only these host identifiers, a comma-separated list. Fails with `Kind::local`.
  [[nodiscard]] Result<void> allowHostids(const std::string& list);
  /// For several devices at one address, behind a router: a connection that is silent for this long
  /// is used as the task connection of another device. By default each address is one device.
  MasterOptions& setShared(std::optional<Milliseconds> silence);
  /// Restricts `setShared` to connections from these networks, a comma-separated list. Fails with
  /// `Kind::local`.
  [[nodiscard]] Result<void> setSharedAddresses(const std::string& list);
  /// Trusts these networks, a comma-separated list, to begin each connection with a header of the
  /// PROXY protocol, version 2: the connection counts as one of the address in it, and its device
  /// is told apart by the name in its client certificate, if the proxy has verified one. A
  /// connection without a valid header is refused. Fails with `Kind::local`.
  [[nodiscard]] Result<void> trustProxies(const std::string& list);
  /// Requests the identity of at most so many devices a second, in the order of their connections,
  /// which are accepted at once. 0, the default: of any number.
  MasterOptions& setIdentifyRate(std::size_t devices);
  /// Keeps the statistics of at most so many disconnected devices, 4096 by default. With 0 there
  /// are statistics of no device at all: see `DeviceInfo`.
  MasterOptions& setHistory(std::size_t devices);
  /// Holds at most so many refused connections open for as long as the peer does: a device whose
  /// connection is closed connects again at once. 0, the default: at most 256, for 5 s. Nothing is
  /// written to them.
  MasterOptions& setHeld(std::size_t connections);
  /// How long a new connection must be silent before anything is written to it. It gets the
  /// address, the port, and the name in a verified certificate. 0: it is used at once. A connection
  /// that speaks in that time is the bridge of an agent. Without a value nothing is ever written to
  /// it. It is asked for each connection that is about to become the task connection of a device,
  /// and must not call the master.
  using Policy = std::function<std::optional<Milliseconds>(
      const std::string& host, std::uint16_t port, const std::string& certificate)>;
  /// Without a policy each connection is used at once.
  MasterOptions& setPolicy(Policy policy);
  /// The I/O timeout, 30 s by default: the longest time without a byte sent or received while the
  /// answer to an `ask` is due. It also limits the answers to cheap tasks of the master itself. The
  /// users of a device share its connection, so it must cover the requests of the others.
  MasterOptions& setTimeout(Milliseconds time);

 private:
  friend class MasterEngine;
  struct RUNEL_LOCAL Data;
  std::unique_ptr<Data> data_;
};

/// What a master knows of one connected device at one moment. Times are wall clock times in
/// milliseconds since 1970. The counters cover earlier connections of the device too. Copies are
/// cheap.
class RUNEL_API DeviceInfo {
 public:
  /// Its name, which no other device has: its host identifier; if that is empty, not a valid name
  /// or taken, its address; if that is taken, ADDRESS:PORT.
  [[nodiscard]] const std::string& name() const;
  /// Its host identifier, if it is a valid name.
  [[nodiscard]] const std::string& hostid() const;
  /// "controller", "server" or "unknown".
  [[nodiscard]] const std::string& deviceType() const;
  ///@{
  /// The IPv4 address and the port at the other end of its task connection.
  [[nodiscard]] const std::string& host() const;
  [[nodiscard]] std::uint16_t port() const;
  ///@}
  /// The name in its client certificate, if a trusted proxy has verified one; otherwise empty.
  [[nodiscard]] const std::string& certificate() const;
  /// When its task connection was accepted.
  [[nodiscard]] std::int64_t connectedSince() const;
  /// The age of the connection, by a clock that is never set.
  [[nodiscard]] Milliseconds connectedFor() const;
  /// When this master saw the device for the first time.
  [[nodiscard]] std::int64_t firstSeen() const;
  ///@{
  /// The number of its connects, and of the losses of its task connection.
  [[nodiscard]] std::uint64_t connects() const;
  [[nodiscard]] std::uint64_t losses() const;
  ///@}
  [[nodiscard]] std::int64_t lastLoss() const;  ///< 0 before the first loss
  /// Empty before the first loss.
  [[nodiscard]] const std::string& lastLossReason() const;
  [[nodiscard]] std::size_t users() const;  ///< attached now: see `AsyncMaster::attach`
  /// The number of requests of users and of `AsyncMaster::ask` that were sent to it.
  [[nodiscard]] std::uint64_t requests() const;
  [[nodiscard]] std::uint64_t bytesToDevice() const;    ///< of payloads
  [[nodiscard]] std::uint64_t bytesFromDevice() const;  ///< of payloads
  [[nodiscard]] std::size_t additional() const;         ///< further connections from its address
  [[nodiscard]] std::size_t agents() const;             ///< those of them that are bridges
  [[nodiscard]] std::uint64_t clauses() const;          ///< received on them

 private:
  friend class MasterEngine;
  struct RUNEL_LOCAL Data;
  RUNEL_LOCAL explicit DeviceInfo(std::shared_ptr<const Data> data);
  std::shared_ptr<const Data> data_;
};

/// One request that a user passes on as it is, and how it ends.
class RUNEL_API UserRequest {
 public:
  /// Sets @p bytes to the @p count bytes at @p offset of the payload. Another number of bytes ends
  /// the connection to the device, because it must not get others. Called as long as the request
  /// may be sent.
  using Read = std::function<void(std::uint64_t offset, std::size_t count, std::string& bytes)>;
  /// Receives the bytes of a long answer, part by part.
  using Sink = std::function<void(std::string_view part)>;

  /// The text form of a record.
  explicit UserRequest(std::string payload);
  /// A record of @p size bytes, which are read while they are sent. Never "restart".
  UserRequest(std::size_t size, Read read);
  ///@{
  /// Moving leaves @p other without a state: assign to it or destroy it.
  UserRequest(UserRequest&& other) noexcept;
  UserRequest& operator=(UserRequest&& other) noexcept;
  ///@}
  ~UserRequest();

  /// Calls @p sent when the system has taken the last byte of the request. Before the answer, and
  /// not at all when the connection ends before that.
  UserRequest& onSent(std::function<void()> sent);
  /// Calls @p answer with the payload of the answer. A request without an answer, such as
  /// "restart", only calls what `onSent` has set.
  UserRequest& onAnswer(std::function<void(std::string payload)> answer);
  /// Calls @p failed when the connection ends before the answer. The outcome of the error is that
  /// of this request: `Outcome::notSent` or `Outcome::unknown`.
  UserRequest& onFailed(std::function<void(const Error& error)> failed);
  /// Passes an answer of @p least bytes or more to a sink, which @p make creates when the length is
  /// announced. `onAnswer` then gets an empty text. A long answer that arrives at once may still
  /// come as a text.
  UserRequest& setLongAnswers(std::size_t least, std::function<Sink(std::size_t size)> make);

 private:
  friend class MasterUser;
  struct RUNEL_LOCAL Data;
  std::unique_ptr<Data> data_;
};

/// One of several users of a device at a master, such as a program that passes on the requests of
/// another process. Requests and answers pass byte for byte.
class RUNEL_API MasterUser {
 public:
  /// The functions that a user calls.
  struct Handlers {
    /// The connection to the device ended. No other call follows. Pending requests have no answer.
    std::function<void(const Error& error)> lost;
    /// `busy` has changed. May be empty.
    std::function<void(bool busy)> busy;
  };
  /// Receives the payload of an answer.
  using Answer = std::function<void(std::string payload)>;

  /// Detaches. Drops the handlers without calling them. The master may be destroyed before.
  ~MasterUser();
  MasterUser(const MasterUser&) = delete;
  MasterUser& operator=(const MasterUser&) = delete;

  /// Sends any @p payload as one frame and calls @p answer with the payload of its answer. A
  /// payload without an answer, such as "restart", calls nothing. Answers come in order. There is
  /// no timeout: detach to give up.
  void forward(std::string payload, Answer answer);
  /// Sends @p request as one frame and returns its number, from 1. Returns 0 and calls nothing when
  /// the connection has ended. When it ends later, `onFailed` comes before `Handlers::lost`.
  std::uint64_t send(UserRequest request);
  /// Takes back the request @p number. Returns true if it never runs: it is dropped or, if a part
  /// of it is sent, its last byte is replaced, so that the device refuses it. Nothing is called for
  /// it any more. Returns false, and changes nothing, if it is sent wholly or has ended.
  bool withdraw(std::uint64_t number);
  /// Checks whether the device is alive: the connection ends if it is not.
  void check();
  /// When the last bytes were sent to the device or received from it.
  [[nodiscard]] Clock::time_point lastProgress() const;
  /// True while so many bytes wait for the device that the user should pause.
  [[nodiscard]] bool busy() const;
  /// Pauses or resumes the answers, for a user that takes them slowly. A pause stops the answers to
  /// all users of the device.
  void setReading(bool on);

 private:
  friend class MasterEngine;
  struct RUNEL_LOCAL Data;
  RUNEL_LOCAL explicit MasterUser(std::unique_ptr<Data> data);
  std::unique_ptr<Data> data_;
};

/// The port that devices connect to. A device does not tell which of its connections is which, and
/// a frame on the bridge of its agent stops its daemon: the master finds out, and writes tasks to a
/// connection only when it cannot be a bridge.
class RUNEL_API AsyncMaster {
 public:
  /// Receives each event of the master, in order.
  using Handler = std::function<void(const MasterEvent& event)>;

  /// The loop must outlive the master. All handlers, of the master and of its users, are called
  /// with nothing of the master on the stack: each may destroy any object of the library.
  AsyncMaster(Loop& loop, const MasterOptions& options, Handler handler);
  /// Closes all connections. Drops all handlers without calling them.
  ~AsyncMaster();
  AsyncMaster(const AsyncMaster&) = delete;
  AsyncMaster& operator=(const AsyncMaster&) = delete;

  /// Opens the port. Fails with `Kind::local`.
  [[nodiscard]] Result<void> open();
  /// The listening port, 0 before `open`.
  [[nodiscard]] std::uint16_t port() const;
  /// The listening ports in the order of the options.
  [[nodiscard]] std::vector<std::uint16_t> ports() const;
  /// The number of connections that wait for their turn to be identified.
  [[nodiscard]] std::size_t unidentified() const;
  /// The number of connections that are held open without being used.
  [[nodiscard]] std::size_t silent() const;

  /// Writes nothing any more to the task connection at @p place, ADDRESS:PORT, not even a check
  /// whether it is alive. It is held open, its users lose it, and its end is still reported.
  /// Returns false if there is no such connection.
  bool silence(const std::string& place);
  /// Uses a silenced connection again. Returns false if there is no such connection, or if requests
  /// were on the way when it became silent: such a connection is closed, and its device connects
  /// again.
  bool resume(const std::string& place);

  /// The connected devices that have told their identity, in the order of their connections.
  [[nodiscard]] std::vector<DeviceInfo> devices() const;
  /// The connected devices with this name, host identifier, address or ADDRESS:PORT. Several if it
  /// is not unique: two devices may report the same host identifier. Then select one by
  /// ADDRESS:PORT, which is always unique.
  [[nodiscard]] std::vector<DeviceInfo> find(const std::string& name) const;

  /// Sends @p request to the device @p name and calls @p handler with the reply. All callers of a
  /// device share its connection. Fails, through @p handler, when the device is not connected, when
  /// `find` does not return exactly one device, and after the I/O timeout.
  void ask(const std::string& name, const Request& request, ReplyHandler handler);
  /// Attaches a user to the device @p name. Fails with `Kind::link` when the device is not
  /// connected or the name is not unique.
  [[nodiscard]] Result<std::unique_ptr<MasterUser>> attach(const std::string& name,
                                                           MasterUser::Handlers handlers);

  /// Sends one clause to the agent of the device @p name. The agent does not acknowledge it. Fails
  /// with `Kind::local` if @p clause is not exactly one clause, and with `Kind::link` while no
  /// bridge to an agent is known: the agent's first byte identifies it. With several bridges at one
  /// address, @p name must be the ADDRESS:PORT of the bridge.
  [[nodiscard]] Result<void> sendClause(const std::string& name, const std::string& clause);

 private:
  struct RUNEL_LOCAL Data;
  std::unique_ptr<Data> data_;
};

}  // namespace v1
}  // namespace runel

#endif  // RUNEL_ASYNC_MASTER_H_
