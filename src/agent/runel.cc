// SPDX-License-Identifier: Apache-2.0
// Construction, start, and the reaction to a port that cannot be opened.
#include "agent/runel.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>

#include <syslog.h>
#include <unistd.h>

#include "agent/busy.h"
#include "agent/settings.h"
#include "base/log.h"
#include "base/scope_guard.h"
#include "base/system.h"
#include "connections/runel_connection.h"

namespace zell {
namespace {

constexpr char kName[] = "runeld";
constexpr unsigned kSelectTimeoutMs = 100;

// Each wait before a retry is one second longer than the one before: 630 s in all until the last.
constexpr int kMostListenFailures = 35;

// LINUX_REBOOT_CMD_RESTART of the kernel's reboot(2).
constexpr int kRebootCommand = 0x01234567;
constexpr unsigned kSecondsBeforeReboot = 3;

constexpr char kProcessList[] = "/zell/bin/psreal alxw -L";
constexpr int kProcessLineSize = 256;
constexpr char kEndTftpServer[] = "/usr/bin/killall -TERM atftpd";

// Sleeps the whole time even when signals arrive, because a signal must not bring the reboot
// forward. The clock gives the remaining time, because sleep() returns whole seconds only.
void sleepWhole(unsigned length) {
  using std::chrono::seconds;
  const auto end = sys::monotonicTime() + seconds(length);
  for (auto now = sys::monotonicTime(); now < end; now = sys::monotonicTime()) {
    (void)sys::sleep(static_cast<unsigned>(std::chrono::ceil<seconds>(end - now).count()));
  }
}

}  // namespace

Runel::Runel(const std::string& address, bool daemon, int verbose)
    : ServerBase(kName, settings::kDevicePort),
      address_(address),
      verbose_(verbose),
      daemon_(daemon) {
  m_pid_file = settings::kPidFile;
  set_log_facility(LOG_LOCAL5);
  set_use_timeout(true);
  set_timeout(kSelectTimeoutMs);
  (void)signal(SIGALRM, SIG_IGN);
  add_host(address_, settings::kMasterPort);
}

// Deletes the handlers in ascending order of their sockets.
Runel::~Runel() {
  for (auto& [socket, handler] : handlers_) {
    handler.reset();
  }
}

int Runel::run() {
  if (ServerBase::run(daemon_ != 0) != 0) {
    return 0;
  }
  stop();
  return 0;
}

void Runel::handle_startup() {
  ServerBase::handle_startup();
  if (daemon_ != 0) {
    openlog(kName, 0, LOG_LOCAL5);
  }
  logLine(LOG_INFO, "start runeld (%d) %s", static_cast<int>(getpid()),
          "==================================================");
  logLine(LOG_INFO, " version = %s", RUNELD_VERSION);
  logLine(LOG_INFO, " address = %s", address_.c_str());
  logLine(LOG_INFO, " daemon  = %d", daemon_);
  logLine(LOG_INFO, " verbose = %d", verbose_);
  logLine(LOG_INFO, " port    = %d", settings::kDevicePort);
}

void Runel::handle_timeout() {}

bool Runel::handle_listen_failure(int port) {
  if (m_ports.size() != 1) {
    return true;
  }
  logLine(LOG_WARNING, "failed to listen on the only port (%d), retrying", port);
  ++retries_;
  sleepWhole(static_cast<unsigned>(retries_));
  if (retries_ == 1 && port == settings::kDevicePort) {
    logProcessList();
    endTftpServer();
  }
  if (retries_ < kMostListenFailures) {
    return true;
  }
  rebootDevice();
  return false;
}

// Logs the process list, which shows what holds the port. The last line is logged twice: only a
// failed read detects the end of the list, and the loop logs the unchanged buffer after it.
void Runel::logProcessList() {
  std::FILE* const list = sys::popen(kProcessList, "r");
  const ScopeGuard end([list] { (void)sys::pclose(list); });
  char line[kProcessLineSize] = "";
  while (list != nullptr && std::feof(list) == 0 && std::ferror(list) == 0) {
    (void)std::fgets(line, sizeof line, list);
    logLine(LOG_DEBUG, "%s", line);
  }
}

// The TFTP server is the usual holder of the port.
void Runel::endTftpServer() {
  logLine(LOG_WARNING, "%s", kEndTftpServer);
  if (sys::system(kEndTftpServer) == -1) {
    const int error = errno;
    logLine(LOG_WARNING, "killall failed, (%d, %m)", error);
  }
}

void Runel::rebootDevice() {
  logLine(LOG_ERR, "retry count exceeded, exiting");
  logLine(LOG_ERR, "rebooting");
  sys::sync();
  sleepWhole(kSecondsBeforeReboot);
  (void)sys::reboot(kRebootCommand);
  s_run = false;
}

}  // namespace zell
