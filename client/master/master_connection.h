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
#include "client/master/slave_link.h"

namespace runel {

class MasterConnection {
 public:
  /// Events for the master. `lost` is the last one. The connection may be destroyed from the next
  /// turn of the loop.
  struct Events {
    std::function<void()> identified;
    std::function<void()> spoke;
    std::function<void(const std::string& clause)> clause;
    std::function<void(const std::string& why)> lost;
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
  };

  MasterConnection(const Context& context, std::string host, std::uint16_t port, Events events);
  ~MasterConnection();
  MasterConnection(const MasterConnection&) = delete;
  MasterConnection& operator=(const MasterConnection&) = delete;

  /// Uses @p socket as the slave connection and requests the identity of the device.
  void useAsSlave(zell::UniqueFd socket);
  /// Only reads from @p socket.
  void useAsBridge(zell::UniqueFd socket);
  /// Makes a silent additional connection the slave connection.
  void promote();

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
  [[nodiscard]] bool isSlave() const { return slave_ != nullptr; }
  /// True for an additional connection that has received data.
  [[nodiscard]] bool isAgent() const { return bridge_ && bridge_->hasSpoken(); }
  /// The bridge or surplus connection; null for a slave connection.
  [[nodiscard]] Bridge* bridge() const { return bridge_.get(); }

  [[nodiscard]] const std::string& hostid() const { return hostid_; }
  [[nodiscard]] const std::string& deviceType() const { return deviceType_; }
  [[nodiscard]] const std::string& host() const { return host_; }
  [[nodiscard]] std::uint16_t port() const { return port_; }
  /// HOST:PORT.
  [[nodiscard]] std::string place() const { return host_ + ":" + std::to_string(port_); }
  /// The key of the device in statistics, which devices with the same host identifier share.
  [[nodiscard]] const std::string& key() const { return hostid_.empty() ? host_ : hostid_; }
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
  void lose(const Error& error);
  void endUsers(const Error& error);
  void watch(const std::shared_ptr<Asked>& asked);
  void finish(Asked& asked, Reply reply);

  const Context context_;
  const std::string host_;
  const std::uint16_t port_;
  Events events_;
  const std::int64_t since_;
  const Clock::time_point start_ = Clock::now();
  std::string hostid_;
  std::string deviceType_;
  std::string name_;
  bool identified_ = false;
  bool refused_ = false;
  Clock::time_point lastProgress_;
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
