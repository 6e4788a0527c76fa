// SPDX-License-Identifier: Apache-2.0
// Compiled in place of web_socket.cc where its libraries are missing.
#include "gateway/web_socket.h"

namespace runelctl {

bool hasWebSockets() {
  return false;
}

std::unique_ptr<WebSocket> openWebSocket(runel::Loop& loop, const GatewaySettings& settings,
                                         WebSocket::Handlers handlers) {
  (void)loop;
  (void)settings;
  (void)handlers;
  return nullptr;  // not called: see hasWebSockets
}

}  // namespace runelctl
