// SPDX-License-Identifier: Apache-2.0
// The local socket for the commands of the program: only its own user and root.
#ifndef RUNELGW_APP_CONTROL_SERVER_H_
#define RUNELGW_APP_CONTROL_SERVER_H_

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include <runel/loop.h>
#include <runel/result.h>

#include "base/unique_fd.h"

namespace runelgw {

/// An answer: one line of JSON without its line feed, and perhaps a descriptor.
struct ControlAnswer {
  std::string line;
  zell::UniqueFd file;
};

/// Reads requests, one line each, and sends one answer to each. A caller's next request is read
/// after its answer.
class ControlServer {
 public:
  /// To be called once, now or later, also after the caller has gone.
  using Answer = std::function<void(ControlAnswer answer)>;
  /// Receives a request of the user @p uid, without its line feed.
  using Asked = std::function<void(const std::string& line, unsigned uid, Answer answer)>;

  ControlServer(runel::Loop& loop, Asked asked);
  ~ControlServer();  ///< removes the socket
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

  /// Listens at @p path, where it replaces a socket: the caller knows that no other gateway uses
  /// it. The error is one sentence.
  [[nodiscard]] runel::Result<void> open(const std::string& path);

 private:
  struct Caller;

  void accept();
  void read(const std::shared_ptr<Caller>& caller);
  void answer(const std::shared_ptr<Caller>& caller, ControlAnswer answer);
  void write(const std::shared_ptr<Caller>& caller);
  void drop(const std::shared_ptr<Caller>& caller);

  runel::Loop& loop_;
  const Asked asked_;
  zell::UniqueFd listener_;
  std::string path_;
  std::map<int, std::shared_ptr<Caller>> callers_;
  std::shared_ptr<bool> alive_;
};

}  // namespace runelgw

#endif  // RUNELGW_APP_CONTROL_SERVER_H_
