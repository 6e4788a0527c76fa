// SPDX-License-Identifier: Apache-2.0
// Runs the server in the background, prevents a second instance, and stops a running one.
#include "server/server_base.h"

#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "base/log.h"
#include "base/system.h"

namespace zell {

static_assert(std::atomic<int>::is_always_lock_free, "signal_quit may only touch lock-free flags");

void ServerBase::handle_startup() {
  for (const int signal_number : {SIGTERM, SIGQUIT, SIGABRT, SIGINT}) {
    (void)signal(signal_number, signal_quit);
  }
  (void)signal(SIGPIPE, SIG_IGN);
}

void ServerBase::signal_quit(int sig) {
  s_signal = sig;
  s_run = false;
}

// Returns the result of `run` when `run` is to return at once, or nothing in the child, which
// continues as the daemon. The child keeps its working directory, session and standard streams: the
// parent process chooses them.
std::optional<int> ServerBase::start_daemon() {
  if (!may_start()) {
    return -1;
  }
  m_child_pid = sys::fork();
  if (m_child_pid < 0) {
    logLine(LOG_ERR, "failed to fork");
    return 0;
  }
  if (m_child_pid > 0) {
    logLine(LOG_NOTICE, "daemon backgrounded");
    write_pid_file();
    return 1;
  }
  return std::nullopt;
}

bool ServerBase::may_start() {
  if (!open_pid_file()) {
    return true;
  }
  int pid = 0;
  if (!read_pid(&pid)) {
    // The stream stays open, because the process is about to end.
    logPlain(LOG_ERR, "(%d) cannot parse pid file", pid);
    return false;
  }
  (void)std::fclose(m_pid_fp);
  m_pid_fp = nullptr;
  if (sys::kill(pid, 0) == 0) {
    // The prefix shows the number of the running daemon, so that users know which process to check.
    logPlain(LOG_ERR, "(%d) daemon is already running", pid);
    return false;
  }
  return true;
}

// O_NONBLOCK makes a FIFO at the pid file's path read as empty instead of hanging the start.
bool ServerBase::open_pid_file() {
  UniqueFd fd(open(m_pid_file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!fd.valid()) {
    return false;
  }
  m_pid_fp = fdopen(fd.get(), "r");
  if (m_pid_fp == nullptr) {
    return false;
  }
  (void)fd.release();  // the stream owns it now
  return true;
}

bool ServerBase::read_pid(int* pid) {
  long long number = 0;  // "%d" would take the nearest number of a long, which may have 32 bits
  const bool found = std::fscanf(m_pid_fp, "%lld", &number) == 1;
  *pid = found ? static_cast<int>(number) : *pid;
  return found;
}

// Written to a temporary name and renamed, so that a power cut leaves no empty pid file. An empty
// one would prevent every later start.
void ServerBase::write_pid_file() {
  const std::string beside = m_pid_file + ".new";
  (void)unlink(beside.c_str());
  const UniqueFd fd(open(beside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
  const bool written = fd.valid() && dprintf(fd.get(), "%d\n", static_cast<int>(m_child_pid)) > 0 &&
                       fsync(fd.get()) == 0 && rename(beside.c_str(), m_pid_file.c_str()) == 0;
  if (!written) {
    logLine(LOG_ERR, "unable to write pid file: %m");
    (void)unlink(beside.c_str());
  }
}

void ServerBase::stop() {
  if (!m_daemon) {
    logLine(LOG_ERR, "stop() called, not running as a daemon");
    return;
  }
  if (!open_pid_file()) {
    logLine(LOG_ERR, "unable to read pid file: %m");
    return;
  }
  int pid = 0;
  if (!read_pid(&pid)) {
    logLine(LOG_WARNING, "cannot parse pid file");
  }
  (void)std::fclose(m_pid_fp);
  m_pid_fp = nullptr;
  (void)unlink(m_pid_file.c_str());
  logLine(LOG_INFO, "stop ServerBase with SIGTERM");
  // `pid` is still 0 when the file contained no number, so this signals our whole process group.
  // Intentional: do not add a guard.
  (void)sys::kill(pid, SIGTERM);
}

}  // namespace zell
