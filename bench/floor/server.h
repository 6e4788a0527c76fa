// SPDX-License-Identifier: Apache-2.0
// The minimal server of the daemon's kind, as a lower bound for measurements of the daemon.
#ifndef ZELL_BENCH_FLOOR_SERVER_H_
#define ZELL_BENCH_FLOOR_SERVER_H_

#include <string_view>
#include <vector>

#include <sys/select.h>

namespace zell::bench {

/// A select() loop like the daemon's, with the same system calls and nothing else: the sets rebuilt
/// for each pass, one recv of up to 4096 bytes into a cleared buffer for each readable connection.
/// Listens on one port and keeps connections to a master, which each pass retries. It has no table,
/// no log and no checks, so it needs well-behaved loads.
class FloorServer {
 public:
  explicit FloorServer(int masterPort) : masterPort_(masterPort) {}
  virtual ~FloorServer() = default;
  FloorServer(const FloorServer&) = delete;
  FloorServer& operator=(const FloorServer&) = delete;

  /// Serves @p port until a signal ends the process. Returns only when it cannot listen.
  int run(int port);

 protected:
  /// @p bytes were received on @p fd.
  virtual void receive(int fd, std::string_view bytes) = 0;
  /// The connection on @p fd was closed.
  virtual void forget(int fd) = 0;
  /// A connection to the master was made.
  virtual void connected(int /*fd*/) {}
  /// Opens one more connection to the master.
  void wantMaster() { ++wanted_; }

 private:
  void onePass();
  void fillSets();
  void watch(int fd);
  void acceptOne();
  bool readOne(int fd);
  void connectMaster();

  int masterPort_;
  int listener_ = -1;
  int wanted_ = 1;  // connections to the master still to be made
  int highest_ = 0;
  std::vector<int> connections_;
  fd_set readable_{};
  fd_set exceptional_{};
};

}  // namespace zell::bench

#endif  // ZELL_BENCH_FLOOR_SERVER_H_
