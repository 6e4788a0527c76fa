// SPDX-License-Identifier: Apache-2.0
#include "unit/server/recording_server.h"

#include <algorithm>
#include <utility>

#include <gtest/gtest.h>

namespace zell::test {
namespace {

constexpr std::chrono::seconds kLongestRun(120);
constexpr unsigned kPassMs = 10;

}  // namespace

int OpenServer::hostSocket(std::size_t place) const {
  auto host = m_hosts.begin();
  std::advance(host, place);
  return host->socket;
}

std::vector<int> OpenServer::inbound() const {
  std::vector<int> sockets;
  for (const auto& [socket, connection] : m_connections) {
    sockets.push_back(socket);
  }
  return sockets;
}

RecordingServer::RecordingServer(const std::string& name) : OpenServer(name) {
  set_use_timeout(true);
  set_timeout(kPassMs);
}

int RecordingServer::runUntil(std::function<bool()> done) {
  done_ = std::move(done);
  deadline_ = std::chrono::steady_clock::now() + kLongestRun;
  return run(false);
}

int RecordingServer::runPasses(int passes) {
  return runUntil([passes]() mutable { return --passes <= 0; });
}

std::vector<std::string> RecordingServer::events() const {
  std::vector<std::string> some;
  std::copy_if(calls.begin(), calls.end(), std::back_inserter(some), [](const std::string& call) {
    return call.rfind("select", 0) != 0 && call != "loop" && call != "timeout";
  });
  return some;
}

int RecordingServer::count(const std::string& call) const {
  return static_cast<int>(std::count(calls.begin(), calls.end(), call));
}

int RecordingServer::drop_socket(int fd) {
  note("drop " + std::to_string(fd));
  return onDropSocket ? onDropSocket(fd) : ServerBase::drop_socket(fd);
}

int RecordingServer::drop_host_connection(int fd) {
  note("drop host " + std::to_string(fd));
  return onDropHostConnection ? onDropHostConnection(fd) : ServerBase::drop_host_connection(fd);
}

void RecordingServer::handle_startup() {
  note("startup");
  ServerBase::handle_startup();
  if (onStartup) {
    onStartup();
  }
}

void RecordingServer::handle_started() {
  note("started");
  if (onStarted) {
    onStarted();
  }
}

bool RecordingServer::handle_listen_failure(int port) {
  note("listen failure " + std::to_string(port));
  return onListenFailure && onListenFailure(port);
}

void RecordingServer::handle_data_read(int fd, char* buf, size_t len, int port) {
  const std::string bytes(buf, len);
  note("data " + std::to_string(fd) + " port " + std::to_string(port) + " " + bytes);
  if (onData) {
    onData(fd, bytes);
  }
}

bool RecordingServer::handle_data_read(int fd, int port) {
  note("readable " + std::to_string(fd) + " port " + std::to_string(port));
  return !onReadable || onReadable(fd);
}

bool RecordingServer::handle_select(int result, fd_set* read_set, fd_set* except_set) {
  note("select " + std::to_string(result));
  EXPECT_EQ(read_set, &m_read_set);
  EXPECT_EQ(except_set, &m_except_set);
  watchTheTime();
  return onSelect && onSelect(result);
}

void RecordingServer::handle_timeout() {
  note("timeout");
  if (onTimeout) {
    onTimeout();
  }
}

void RecordingServer::handle_device(const std::string& path, int fd) {
  note("device " + path + " " + std::to_string(fd));
  if (onDevice) {
    onDevice(path, fd);
  }
}

void RecordingServer::handle_incoming_connection(int fd) {
  note("incoming " + std::to_string(fd));
  if (onIncoming) {
    onIncoming(fd);
  }
}

void RecordingServer::handle_outgoing_connection(int fd) {
  note("outgoing " + std::to_string(fd));
  if (onOutgoing) {
    onOutgoing(fd);
  }
}

void RecordingServer::handle_loop() {
  note("loop");
  if (onLoop) {
    onLoop();
  }
  if (done_ && done_()) {
    s_run = false;
  }
}

void RecordingServer::handle_shutdown() {
  note("shutdown");
  if (onShutdown) {
    onShutdown();
  }
}

void RecordingServer::watchTheTime() {
  if (done_ && std::chrono::steady_clock::now() > deadline_) {
    ADD_FAILURE() << "the loop did not come to its end";
    s_run = false;
  }
}

}  // namespace zell::test
