// SPDX-License-Identifier: Apache-2.0
#include "support/slow_relay.h"

#include <cstdint>

#include <syslog.h>

namespace zell::test {
namespace {

const std::string kPing = "<ping/>\r\n";

// Received bytes as a log line shows them.
std::string trimmed(std::string text) {
  for (char& byte : text) {
    const auto value = static_cast<unsigned char>(byte);
    byte = value < 0x20 || value == 0x7f ? '.' : byte;
  }
  return text.size() > 60 ? text.substr(0, 57) + "..." : text;
}

// @p text up to its first zero byte, as %s shows it.
std::string shown(const std::string& text) {
  return text.c_str();
}

// Compares the position of the last ping in @p buffer, as a 32-bit number, with that of a ping at
// the end of the buffer.
bool pingWaits(const std::string& buffer) {
  const std::size_t last = buffer.rfind(kPing);
  return static_cast<std::uint32_t>(last) == static_cast<std::uint32_t>(buffer.size() - 9);
}

}  // namespace

void SlowRelay::setPeer(bool isLinked) {
  linked = isLinked;
  if (linked) {
    handleMessage("");
  }
}

void SlowRelay::handleMessage(const std::string& packet) {
  appendPacket(packet);
  if (!linked) {
    warn("handleMessage: no peer_ link, buffering '" + trimmed(packet) + "'");
    return;
  }
  while (nextXmlClause()) {
    sent += clause + "\r\n";
  }
}

void SlowRelay::appendPacket(const std::string& packet) {
  if (packet.empty()) {
    return;
  }
  if (packet == kPing && pingWaits(buffer)) {
    log.push_back({LOG_DEBUG, "(PID) appendPacket: discarding <ping/>"});
    return;
  }
  buffer += packet;
}

bool SlowRelay::nextXmlClause() {
  const std::size_t pos = buffer.find_first_not_of(" \t\r\n");
  if (pos == std::string::npos) {
    buffer.clear();
    return false;
  }
  if (buffer.find_first_of("\x01\x02") != std::string::npos) {
    log.push_back({LOG_ERR, "(PID) *** error: nextXmlClause found byte count sentinels in input '" +
                                trimmed(buffer) + "'"});
    stop = true;
    return false;
  }
  const std::string at = std::to_string(pos) + ", got '" + trimmed(buffer) + "'";
  if (buffer[pos] != '<') {
    warn("nextXmlClause: expecting '<' at " + at);
    return false;
  }
  const std::size_t gt = buffer.find('>', pos);
  if (gt == std::string::npos) {
    warn("nextXmlClause: cannot find '>' at " + at);
    return false;
  }
  if (buffer[gt - 1] == '/') {
    clause = buffer.substr(pos, gt - pos + 1);
    buffer.erase(pos, gt - pos + 1);
    return true;
  }
  const std::string closing = "</" + buffer.substr(pos + 1, gt - pos);
  const std::size_t close = buffer.find(closing);
  if (close == std::string::npos) {
    warn("nextXmlClause: closing not found, size = " + std::to_string(buffer.size()) +
         ", buffer ='" + shown(buffer.substr(0, 40)) + "..." +
         shown(buffer.size() > 40 ? buffer.substr(buffer.size() - 40) : "") + "'");
    return false;
  }
  clause = buffer.substr(pos, close + closing.size() - pos);
  buffer.erase(0, close + closing.size());
  return true;
}

void SlowRelay::warn(const std::string& text) {
  log.push_back({LOG_WARNING, "(PID) " + text});
}

}  // namespace zell::test
