// SPDX-License-Identifier: Apache-2.0
// The commands that only a local user may give: tokens, backup and restore.
#ifndef RUNELGW_APP_LOCAL_COMMANDS_H_
#define RUNELGW_APP_LOCAL_COMMANDS_H_

#include <functional>
#include <memory>
#include <string>

#include <nlohmann/json_fwd.hpp>

#include "gateway/app/control_server.h"
#include "gateway/auth/auth.h"
#include "gateway/store/store.h"

namespace runelgw {

/// Answers requests in JSON. A request has a "command"; an answer is an object with "error", one
/// sentence, or without it:
///
///     token-create  name, role, groups, kinds, lifetime_ms, certificate   token, secret
///     token-list                                                         tokens
///     token-revoke  token: its name or number                             token
///     backup                                                     a descriptor: the copy
///     restore                                  a descriptor: where the copy is to be written
///     restore-commit                                             restarting
///
/// Works alike in the gateway and, while it is stopped, in the command itself.
class LocalCommands {
 public:
  struct Surroundings {
    std::string stateDirectory;  ///< for files that are not complete
    /// Checks the database in a file and puts it in the place of the present one, now or after a
    /// restart. Empty if that is not possible. The error is one sentence.
    std::function<runel::Result<void>(const std::string& path)> replaceDatabase;
    /// Receives what was done, for the log.
    std::function<void(const std::string& text)> log;
  };

  /// All must outlive it.
  LocalCommands(Auth& auth, Store& store, Surroundings surroundings);
  ~LocalCommands();
  LocalCommands(const LocalCommands&) = delete;
  LocalCommands& operator=(const LocalCommands&) = delete;

  /// Runs the request @p line of the user @p uid.
  void run(const std::string& line, unsigned uid, const ControlServer::Answer& answer);

 private:
  struct Request;
  struct Row;

  void createToken(const Request& request);
  void listTokens(const Request& request);
  void revokeToken(const Request& request);
  void backup(const Request& request);
  void restore(const Request& request);
  void commitRestore(const Request& request);

  void done(const Request& request, const std::string& detail, const nlohmann::json& answer);
  void failed(const Request& request, const std::string& detail, const std::string& why);
  void note(const Request& request, const std::string& outcome, const std::string& detail);
  [[nodiscard]] std::string restorePath() const;

  Auth& auth_;
  Store& store_;
  const Surroundings surroundings_;
  std::shared_ptr<bool> alive_;
};

}  // namespace runelgw

#endif  // RUNELGW_APP_LOCAL_COMMANDS_H_
