// SPDX-License-Identifier: Apache-2.0
// Shared parts of the tests of the running loop.
#ifndef TESTS_UNIT_SERVER_LOOP_FIXTURE_H_
#define TESTS_UNIT_SERVER_LOOP_FIXTURE_H_

#include <string>

#include "support/temp_dir.h"
#include "unit/server/peers.h"
#include "unit/server/recording_server.h"
#include "unit/server/server_test.h"

namespace zell::test {

/// A FIFO that the test keeps open, so that opening it does not block.
class Fifo {
 public:
  Fifo(const TempDir& directory, const std::string& name);
  [[nodiscard]] const std::string& path() const { return path_; }
  void write(const std::string& bytes) const;

 private:
  std::string path_;
  UniqueFd end_;
};

/// The bytes of one read(2) of @p fd.
std::string readFrom(int fd);

class ServerLoop : public ServerTest {
 protected:
  /// The listening socket of @p port.
  [[nodiscard]] int listener(int port) const;

  RecordingServer server_;
};

/// A loop with one listening host.
class HostLoop : public ServerLoop {
 protected:
  void SetUp() override;
  void TearDown() override;

  UniqueFd master_;
};

}  // namespace zell::test

#endif  // TESTS_UNIT_SERVER_LOOP_FIXTURE_H_
