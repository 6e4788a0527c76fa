// SPDX-License-Identifier: Apache-2.0
// The bytes of a device's additional connection at a master. The master reports the clauses that
// are cut from all bytes together, for any borders of the packets, also those kept back for a
// while, and sends nothing.
//
// The input is packets with the separator 0x1e in between. An empty packet keeps the clauses back,
// the next one releases them.
#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <runel/loop.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "client/master/bridge.h"
#include "client/master/clause.h"
#include "fuzz.h"
#include "protocol/clause_buffer.h"

namespace {

using zell::ClauseBuffer;
using zell::fuzz::require;

constexpr char kSeparator = '\x1e';
constexpr int kTurns = 3;  // of the loop, after each packet

// The clauses in @p bytes.
std::vector<std::string> clausesIn(std::string_view bytes) {
  ClauseBuffer buffer;
  buffer.append(bytes);
  std::vector<std::string> clauses;
  std::string clause;
  while (buffer.next(clause) == ClauseBuffer::Next::cut) {
    clauses.push_back(clause);
  }
  return clauses;
}

// Whether @p clauses may be cut from @p bytes. Clauses before the byte of a frame are lost if they
// are in the buffer together with it.
bool mayBeCut(const std::vector<std::string>& clauses, const std::string& bytes) {
  const std::size_t frame = bytes.find_first_of("\x01\x02");
  const std::vector<std::string> all = clausesIn(std::string_view(bytes).substr(0, frame));
  return frame == std::string::npos ? clauses == all
                                    : clauses.size() <= all.size() &&
                                          std::equal(clauses.begin(), clauses.end(), all.begin());
}

class Peer {
 public:
  Peer() {
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) == 0);
    daemon_ = zell::UniqueFd(ends[0]);
    master_ = zell::UniqueFd(ends[1]);
  }
  [[nodiscard]] zell::UniqueFd masterEnd() { return std::move(master_); }
  // True if all bytes were taken; false for a connection that the master has closed.
  [[nodiscard]] bool send(std::string_view bytes) const {
    return ::send(daemon_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
  }
  // The master has written nothing.
  void checkSilence() const {
    char byte = 0;
    require(recv(daemon_.get(), &byte, 1, 0) <= 0);
  }
  void hangUp() const { require(shutdown(daemon_.get(), SHUT_WR) == 0); }

 private:
  zell::UniqueFd daemon_;
  zell::UniqueFd master_;
};

void run(const std::vector<std::string_view>& packets, const std::string& sentBytes) {
  runel::Loop loop;
  Peer peer;
  std::vector<std::string> clauses;
  int spoke = 0;
  int ended = 0;
  runel::Bridge bridge(loop, peer.masterEnd(),
                       {[&] { ++spoke; }, [&](const std::string& one) { clauses.push_back(one); },
                        [&](const std::string& why) {
                          require(!why.empty());
                          ++ended;
                        }});
  const auto turn = [&loop] {
    for (int i = 0; i < kTurns; ++i) {
      loop.turn(runel::Milliseconds(0));
    }
  };
  bool held = false;
  for (const std::string_view packet : packets) {
    if (!packet.empty()) {
      if (!peer.send(packet)) {
        break;
      }
    } else if (ended == 0) {
      held = !held;
      held ? bridge.hold() : bridge.release();
    }
    turn();
  }
  if (ended == 0) {
    bridge.release();
    turn();
    peer.hangUp();
    turn();
  }
  peer.checkSilence();
  require(mayBeCut(clauses, sentBytes));
  require(spoke == (sentBytes.empty() ? 0 : 1));
  require(ended == 1 && bridge.clauses() == clauses.size());
  for (const std::string& clause : clauses) {
    const runel::Result<std::string> line = runel::clauseLine(clause);
    require(line.ok() && *line == clause + "\r\n");
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input = zell::fuzz::toString(data, size);
  std::vector<std::string_view> packets;
  std::string all;
  std::string_view rest = input;
  while (!rest.empty()) {
    const std::size_t end = rest.find(kSeparator);
    packets.push_back(rest.substr(0, end));
    all += packets.back();
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  }
  run(packets, all);
  if (const runel::Result<std::string> line = runel::clauseLine(input); line.ok()) {
    require(clausesIn(*line).size() == 1);
  }
  return 0;
}
