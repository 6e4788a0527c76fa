// SPDX-License-Identifier: Apache-2.0
// The master that other runelctl processes use.
#ifndef RUNELCTL_CONTROL_MASTER_H_
#define RUNELCTL_CONTROL_MASTER_H_

#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include <runel/address.h>
#include <runel/async_master.h>
#include <runel/loop.h>

#include "base/unique_fd.h"
#include "control/attachment.h"
#include "control/control_socket.h"
#include "control/journal.h"

namespace runelctl {

struct MasterSettings {
  std::string host = "127.0.0.1";
  std::uint16_t port = runel::kMasterListenPort;
  std::string socket;
  runel::MasterOptions options;  ///< without the listening address
};

class Master {
 public:
  Master(runel::Loop& loop, const MasterSettings& settings, Journal& journal);
  Master(const Master&) = delete;
  Master& operator=(const Master&) = delete;

  /// Opens the port and the control socket. Returns the error, empty for success.
  [[nodiscard]] std::string open();

 private:
  [[nodiscard]] std::string listen();
  void happened(const runel::MasterEvent& event);
  void asked(const std::string& line, zell::UniqueFd socket);
  void attach(const std::string& name, zell::UniqueFd socket);
  [[nodiscard]] std::string list() const;

  runel::Loop& loop_;
  const MasterSettings& settings_;
  Journal& journal_;
  std::unique_ptr<runel::AsyncMaster> master_;
  std::list<std::shared_ptr<Attachment>> attachments_;
  ControlSocket control_;
};

}  // namespace runelctl

#endif  // RUNELCTL_CONTROL_MASTER_H_
