// SPDX-License-Identifier: Apache-2.0
// A PostgreSQL server of the test: its own directory and socket, no network.
#ifndef TESTS_UNIT_GATEWAY_STORE_POSTGRES_SERVER_H_
#define TESTS_UNIT_GATEWAY_STORE_POSTGRES_SERVER_H_

#include <string>

#include <sys/types.h>

namespace runelgw::test {

class PostgresServer {
 public:
  /// The server of all tests, which is started at the first call and ends with the process.
  static PostgresServer& shared();

  ~PostgresServer();
  PostgresServer(const PostgresServer&) = delete;
  PostgresServer& operator=(const PostgresServer&) = delete;

  /// The URI of the database @p name for the user @p user.
  [[nodiscard]] std::string uri(const std::string& name = "postgres",
                                const std::string& user = "postgres") const;
  /// Executes @p sql in the database @p name; fails the test if it fails.
  void execute(const std::string& sql, const std::string& name = "postgres") const;

  void start();
  /// Ends the server with all connections at once, as a crash would.
  void crash();

 private:
  PostgresServer();

  std::string directory_;
  std::string programs_;
  pid_t pid_ = -1;
};

}  // namespace runelgw::test

#endif  // TESTS_UNIT_GATEWAY_STORE_POSTGRES_SERVER_H_
