// SPDX-License-Identifier: Apache-2.0
// The frame codec. The first byte of the input controls how the other bytes are split into packets.
#include <string>
#include <vector>

#include <zell/byte_count_protocol.h>

#include "fuzz.h"

namespace {

using Messages = std::vector<std::string>;

// The messages that a codec finds in @p stream, in packets of varying length up to @p most bytes.
Messages messagesOf(const std::string& stream, std::size_t most) {
  zell::ByteCountProtocol codec(-1);
  Messages messages;
  std::string message;
  std::size_t length = most;
  for (std::size_t at = 0; at < stream.size(); at += length) {
    length = 1 + (length * 5 + 3) % most;
    codec.acceptBytes(stream.substr(at, length));
    while (at % 2 == 0 && codec.recvMessage(message)) {
      messages.push_back(message);
    }
  }
  while (codec.recvMessage(message)) {
    messages.push_back(message);
  }
  return messages;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto [choice, stream] = zell::fuzz::firstByteChooses(data, size);
  const Messages messages = messagesOf(stream, choice + 1);
  zell::fuzz::require(messages == messagesOf(stream, stream.size() + 1));
  std::size_t at = 0;  // the messages appear in the stream as frames, in order
  for (const std::string& message : messages) {
    const std::string frame = '\x01' + std::to_string(message.size()) + '\x02' + message;
    at = stream.find(frame, at);
    zell::fuzz::require(at != std::string::npos);
    at += frame.size();
  }
  return 0;
}
