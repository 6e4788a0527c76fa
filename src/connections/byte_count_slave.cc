// SPDX-License-Identifier: Apache-2.0
#include "connections/byte_count_slave.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <syslog.h>

#include <zell/led_control.h>
#include <zell/string_helpers.h>

#include "base/log.h"

namespace zell {
namespace {

constexpr int kShownBytes = 60;

std::string shownBytes(const std::string& bytes) {
  return trimOutput(bytes.substr(0, kShownBytes + 1), kShownBytes);
}

}  // namespace

ByteCountSlave::ByteCountSlave(int socket)
    : RunelConnection(socket, kByteCount),
      codec_(std::make_unique<ByteCountProtocol>(socket)),
      tasks_(*proxy_, [this](const SlaveTask& reply) { send(reply); }) {
  // A reply must not wait for the peer's delayed acknowledgement. Without this option it only takes
  // longer.
  const int on = 1;
  (void)setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  LedControl::instance().initialize(proxy_.get());
}

ByteCountSlave::~ByteCountSlave() = default;

bool ByteCountSlave::inputPending() {
  return codec_ != nullptr && codec_->dataAvailable();
}

bool ByteCountSlave::stopRequested() {
  return tasks_.stopRequested();
}

void ByteCountSlave::handleMessage(std::string& packet) {
  codec_->acceptBytes(packet);
  if (!codec_->dataAvailable()) {
    logLine(LOG_DEBUG, "handleMessage: got packet, but it is not a complete message '%s'",
            shownBytes(packet).c_str());
    return;
  }
  std::string message;
  while (codec_->dataAvailable()) {
    (void)codec_->recvMessage(message);  // a message is available
    runMessage(message);
  }
}

SlaveTask* ByteCountSlave::dispatchTask(const SlaveTask& task) {
  return tasks_.run(task).release();
}

void ByteCountSlave::runMessage(std::string& message) {
  if (!SlaveTask::isA(message)) {
    logLine(LOG_ERR, "handleMessage: unexpected task '%s'", shownBytes(message).c_str());
    return;
  }
  SlaveTask task;
  (void)task.parse(std::move(message));  // a malformed record has no arguments
  const std::unique_ptr<SlaveTask> reply(dispatchTask(task));
  if (reply != nullptr) {
    send(*reply);
  }
}

// Sends the output without a copy: a large file would otherwise be in memory twice while a slow
// peer receives it.
void ByteCountSlave::send(const SlaveTask& reply) {
  const SlaveTask::Parts record = reply.parts();
  // The loop drops a lost peer.
  (void)codec_->sendMessage(record.head, record.output, record.tail);
}

}  // namespace zell
