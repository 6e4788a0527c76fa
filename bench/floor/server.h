// SPDX-License-Identifier: Apache-2.0
// The least that a server of the daemon's kind can do, to measure the daemon against.
#ifndef ZELL_BENCH_FLOOR_SERVER_H_
#define ZELL_BENCH_FLOOR_SERVER_H_

#include <string_view>
#include <vector>

#include <sys/select.h>

namespace zell::bench {

/// A select() loop as the daemon's, with its system calls and nothing else: the sets rebuilt for
/// each pass, one recv of up to 4096 bytes into a cleared buffer for each readable connection. It
/// listens on one port and keeps connections to a master, tried again on each pass. No table, no
/// log, no check: it is made for loads that behave.
class FloorServer {
 public:
  explicit FloorServer(int masterPort) : masterPort_(masterPort) {}
  virtual ~FloorServer() = default;
  FloorServer(const FloorServer&) = delete;
  FloorServer& operator=(const FloorServer&) = delete;

  /// Serves @p port until a signal ends the process; returns only when it cannot listen.
  int run(int port);

 protected:
  /// @p bytes came in on @p fd.
  virtual void receive(int fd, std::string_view bytes) = 0;
  /// The connection on @p fd is gone.
  virtual void forget(int fd) = 0;
  /// A connection to the master was made.
  virtual void connected(int /*fd*/) {}
  /// Has one more connection to the master made.
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
  int wanted_ = 1;  // connections to the master that are still to be made
  int highest_ = 0;
  std::vector<int> connections_;
  fd_set readable_{};
  fd_set exceptional_{};
};

}  // namespace zell::bench

#endif  // ZELL_BENCH_FLOOR_SERVER_H_
