// SPDX-License-Identifier: Apache-2.0
#include "connections/runel_connection.h"

#include <syslog.h>

#include <zell/slave_proxy_local.h>

#include "base/log.h"

namespace zell {
namespace {

// No descriptor table is larger. Compared as unsigned, so that a negative number is out of range
// too.
constexpr unsigned kSocketNumbers = 65536;

}  // namespace

RunelConnection::RunelConnection(int socket, int protocol)
    : socket_(socket), protocol_(protocol), proxy_(std::make_unique<SlaveProxyLocal>()) {
  if (bogusSocket()) {
    logLine(LOG_ERR, "RunelConnection: bogus socket_ %d", socket_);
  }
}

RunelConnection::~RunelConnection() = default;

bool RunelConnection::bogusSocket() const {
  return static_cast<unsigned>(socket_) >= kSocketNumbers;
}

bool RunelConnection::inputPending() {
  logPlain(LOG_ERR, "inputPending: no implementation");
  return false;
}

void RunelConnection::handleMessage(std::string& /*packet*/) {
  logPlain(LOG_ERR, "handleMessage: no implementation");
}

bool RunelConnection::stopRequested() {
  return false;
}

}  // namespace zell
