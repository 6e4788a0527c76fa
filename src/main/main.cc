// SPDX-License-Identifier: Apache-2.0
// The program: reads the command line, runs the agent server, logs how it ended.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <typeinfo>

#include <fcntl.h>
#include <netinet/in.h>
#include <resolv.h>
#include <syslog.h>
#include <unistd.h>

#include <zell/stack_trace.h>

#include "agent/runel.h"
#include "base/log.h"
#include "main/memory.h"
#include "main/options.h"

namespace zell {
namespace {

// With a closed standard stream, the listening socket could get number 0, which the server treats
// as a failure to open it.
void openStandardStreams() {
  int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
  while (fd >= 0 && fd <= STDERR_FILENO) {
    (void)fcntl(fd, F_SETFD, 0);  // child programs inherit the standard streams
    fd = open("/dev/null", O_RDWR | O_CLOEXEC);
  }
  if (fd >= 0) {
    (void)close(fd);
  }
}

// The parent process may have left SIGCHLD ignored. Then the daemon could not wait for its
// programs.
void restoreChildSignal() {
  (void)signal(SIGCHLD, SIG_DFL);
}

// The C library allocates its resolver state at the first lookup. If that allocation fails, it
// keeps a lock and the next lookup hangs. So the state is allocated here, and on failure the daemon
// does not start.
bool prepareResolver() {
  errno = 0;
  return res_init() == 0 || errno != ENOMEM;
}

int runServer(const Options& options) {
  if (!prepareResolver()) {
    logLine(LOG_ERR, "cannot prepare name lookups: %m");
    return EXIT_FAILURE;
  }
  try {
    Runel server(options.address, options.daemon, options.verbose);
    return server.run();
  } catch (const std::exception& error) {
    logLine(LOG_ERR, "unhandled exception caught, %s: %s",
            StackTrace::demangle(typeid(error).name()).c_str(), error.what());
  } catch (...) {
    logLine(LOG_ERR, "unhandled exception caught, exception unknown");
  }
  return EXIT_FAILURE;
}

}  // namespace
}  // namespace zell

int main(int argc, char* argv[]) {
  zell::openStandardStreams();
  zell::restoreChildSignal();
  zell::giveMemoryBack();
  const zell::Options options =
      zell::scanOptions({argv + (argc > 0 ? 1 : 0), argv + argc}, std::cout);
  if (options.exitStatus) {
    return *options.exitStatus;
  }
  const pid_t started = getpid();
  openlog("runeld", options.logOptions, LOG_LOCAL5);
  const int status = zell::runServer(options);
  const pid_t own = getpid();
  if (own != started) {
    zell::logLine(LOG_INFO, "stop runeld (pid = %d), exit status %d", static_cast<int>(own),
                  status);
  }
  closelog();
  std::exit(status);
}
