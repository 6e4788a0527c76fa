// SPDX-License-Identifier: Apache-2.0
// One connection of a device at the master, in any role, with its users.
#ifndef RUNEL_MASTER_MASTER_CONNECTION_H_
#define RUNEL_MASTER_MASTER_CONNECTION_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>

#include <runel/async_master.h>
#include <runel/error.h>
#include <runel/loop.h>
#include <runel/request.h>

#include "base/unique_fd.h"
#include "client/master/bridge.h"
#include "client/master/call_queue.h"
#include "client/master/silent_socket.h"
#include "client/master/slave_link.h"

namespace runel {

class MasterConnection {
 public:
  using Id = std::uint64_t;
  /// The master. `lost` is the last call. The connection may be destroyed from the next turn of the
  /// loop.
  class Observer {
   public:
    Observer() = default;
    virtual ~Observer() = default;
    Observer(const Observer&) = delete;
    Observer& operator=(const Observer&) = delete;
    virtual void identified(Id id) = 0;
    virtual void spoke(Id id) = 0;
    virtual void clause(Id id, const std::string& text) = 0;
    virtual void lost(Id id, const std::string& why) = 0;
  };
  /// The other end.
  struct Peer {
    std::uint32_t address = 0;  ///< in host byte order
    std::uint16_t port = 0;
    std::string certificate;  ///< the name in its verified certificate, or empty

    /// The address as text.
    [[nodiscard]] std::string host() const;
    /// The address and the port as one number.
    [[nodiscard]] std::uint64_t place() const { return std::uint64_t{address} << 16 | port; }
    /// What the connections of one device have in common: the name in its certificate, or its
    /// address.
    [[nodiscard]] std::string group() const;
  };
  /// What is called for one request of a user.
  struct UserHandlers {
    std::function<void()> sent;
    std::function<void(std::string payload)> answer;
    std::function<void(const Error& error)> failed;
    std::uint64_t number = 0;
  };
  /// One user of a slave connection. Shared with the handle of the program.
  struct User {
    MasterUser::Handlers handlers;
    MasterConnection* connection = nullptr;            ///< empty after its end
    std::list<std::shared_ptr<User>>::iterator place;  ///< among the users of its connection
    std::map<std::uint64_t, std::shared_ptr<UserHandlers>> requests;  ///< those of `send`
    bool reading = true;
    bool busy = false;
  };
  /// What all connections of a master share.
  struct Context {
    Loop& loop;
    CallQueue& calls;  ///< for the handlers of the program
    Milliseconds timeout;
    Observer& observer;
  };

  /// @p context must outlive it.
  MasterConnection(const Context& context, Id id, Peer peer);
  ~MasterConnection();
  MasterConnection(const MasterConnection&) = delete;
  MasterConnection& operator=(const MasterConnection&) = delete;

  /// Uses @p socket as the slave connection and requests the identity of the device.
  void useAsSlave(zell::UniqueFd socket);
  /// Only reads from @p socket.
  void useAsBridge(zell::UniqueFd socket);
  /// The same for a connection that is to become the slave connection.
  void wait(zell::UniqueFd socket);
  /// An additional connection is to become the slave connection.
  void wait();
  /// A waiting connection is an additional one.
  void stopWaiting() { waits_ = false; }
  /// Makes a waiting connection the slave connection.
  void promote();
  /// Writes nothing any more, and holds the connection open. Its users lose it.
  void silence(const Error& error);
  /// The slave connection is used again. Returns false if that is not possible, because requests
  /// were on the way when it became silent.
  [[nodiscard]] bool resume();

  /// For a slave connection: sends @p request and queues the call of @p handler.
  void ask(const Request& request, ReplyHandler handler);
  /// For a slave connection.
  [[nodiscard]] std::shared_ptr<User> attach(MasterUser::Handlers handlers);
  void forward(const std::shared_ptr<User>& user, std::string payload, MasterUser::Answer answer);
  /// Returns the number of the request.
  std::uint64_t send(const std::shared_ptr<User>& user, SlaveLink::UserPayload payload,
                     UserHandlers handlers, SlaveLink::LongAnswers answers);
  [[nodiscard]] bool withdraw(User& user, std::uint64_t number);
  void detach(const std::shared_ptr<User>& user);
  /// Pauses or resumes the answers for @p user.
  void setReading(User& user, bool on);

  /// Checks whether the device is alive.
  void check();
  /// The device must not be used.
  void refuse() { refused_ = true; }

  /// True when the device has told its identity.
  [[nodiscard]] bool identified() const { return identified_; }
  /// True when the device is identified and not refused.
  [[nodiscard]] bool ready() const { return identified_ && !refused_; }
  /// True for the slave connection, and for one that waits to become it.
  [[nodiscard]] bool isSlave() const { return bridge_ == nullptr || waits_; }
  [[nodiscard]] bool isWaiting() const { return waits_; }
  /// True for a connection that is only held open.
  [[nodiscard]] bool isSilent() const { return silent_ != nullptr; }
  /// True for an additional connection that has received data.
  [[nodiscard]] bool isAgent() const { return bridge_ && bridge_->hasSpoken(); }
  /// The bridge or surplus connection; null for a slave connection.
  [[nodiscard]] Bridge* bridge() const { return bridge_.get(); }

  [[nodiscard]] const std::string& hostid() const { return hostid_; }
  [[nodiscard]] const std::string& deviceType() const { return deviceType_; }
  [[nodiscard]] Id id() const { return id_; }
  [[nodiscard]] const Peer& peer() const { return peer_; }
  [[nodiscard]] std::string host() const { return peer_.host(); }
  [[nodiscard]] std::uint16_t port() const { return peer_.port; }
  /// HOST:PORT.
  [[nodiscard]] std::string place() const { return host() + ":" + std::to_string(peer_.port); }
  [[nodiscard]] std::string group() const { return peer_.group(); }
  /// The host identifier as it was told, if it is not a valid name. Kept until it is taken.
  [[nodiscard]] std::string takeRawHostid();
  /// The key of the device in statistics, which devices with the same host identifier share.
  [[nodiscard]] std::string key() const { return hostid_.empty() ? host() : hostid_; }
  /// The unique name of the device, empty while it is unknown.
  [[nodiscard]] const std::string& name() const { return name_; }
  void setName(const std::string& name) { name_ = name; }
  /// For an additional connection: takes the names of its device.
  void adopt(const MasterConnection& owner);

  /// The wall clock time of the connect, in milliseconds since 1970.
  [[nodiscard]] std::int64_t since() const { return since_; }
  [[nodiscard]] Milliseconds age() const;
  [[nodiscard]] std::size_t users() const { return users_.size(); }
  /// Of a slave connection: when bytes were sent or received last.
  [[nodiscard]] Clock::time_point lastProgress() const { return lastProgress_; }
  /// The counters of a slave connection; all 0 for other roles.
  [[nodiscard]] SlaveLink::Counters counters() const;

 private:
  struct Asked;

  /// Flow control: pauses the users while the device is busy, and the device while a user is slow.
  void adjust();
  void identify();
  void useSilently(zell::UniqueFd socket);
  void link(zell::UniqueFd socket);
  void lose(const Error& error);
  void endUsers(const Error& error);
  void watch(const std::shared_ptr<Asked>& asked);
  void finish(Asked& asked, Reply reply);

  const Context& context_;
  const Id id_;
  const Peer peer_;
  const std::int64_t since_;
  const Clock::time_point start_ = Clock::now();
  std::unique_ptr<std::string> rawHostid_;
  std::string hostid_;
  std::string deviceType_;
  std::string name_;
  bool identified_ = false;
  bool refused_ = false;
  bool waits_ = false;
  bool clean_ = false;  // when it became silent, nothing was on the way
  Clock::time_point lastProgress_;
  std::unique_ptr<SilentSocket> silent_;
  std::unique_ptr<Bridge> bridge_;
  std::unique_ptr<SlaveLink> slave_;
  std::list<std::shared_ptr<User>> users_;  // they use slave_
  std::size_t slowUsers_ = 0;
  bool busy_ = false;  // as the users know it
};

/// The current wall clock time in milliseconds since 1970.
[[nodiscard]] std::int64_t wallClockNow();

}  // namespace runel

#endif  // RUNEL_MASTER_MASTER_CONNECTION_H_
