// SPDX-License-Identifier: Apache-2.0
// The outcome of requests whose connection ends at any byte.
#include "client/master/slave_link.h"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <runel/loop.h>
#include <runel/request.h>

#include "base/unique_fd.h"

namespace runel {
namespace {

// Two sockets of which the first holds little, so that frames are sent in parts.
struct Pair {
  Pair() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
    here.reset(ends[0]);
    there.reset(ends[1]);
    const int least = 1;  // the system raises it to its minimum
    EXPECT_EQ(setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &least, sizeof least), 0);
  }
  /// Takes at most @p count bytes.
  std::size_t take(std::size_t count) const {
    std::string bytes(count, '\0');
    const ssize_t got = recv(there.get(), bytes.data(), count, MSG_DONTWAIT);
    return got < 0 ? 0 : static_cast<std::size_t>(got);
  }

  zell::UniqueFd here;
  zell::UniqueFd there;
};

// Three requests of which the last is @p size bytes. The peer takes @p taken bytes and leaves. Each
// outcome must be that of the bytes that the system had accepted by then.
void loseAt(std::size_t size, std::size_t taken) {
  Loop loop;
  Pair pair;
  bool lost = false;
  const int socket = pair.here.get();
  SlaveLink link(loop, std::move(pair.here), Milliseconds(30000),
                 {[&](const Error&) { lost = true; }, nullptr});
  std::vector<std::size_t> ends;
  std::vector<std::optional<Outcome>> outcomes(3);
  std::vector<bool> told(3, false);
  for (std::size_t i = 0; i < 3; ++i) {
    const std::string payload =
        Request({"append", "/a"}, std::string(i == 2 ? size : 300, 'x')).encode();
    const std::size_t length = payload.size() + std::to_string(payload.size()).size() + 2;
    ends.push_back(length + (ends.empty() ? 0 : ends.back()));
    (void)link.forward(payload, [](std::string&&) { FAIL(); },
                       {[&outcomes, i](const Error& error) { outcomes[i] = error.outcome(); },
                        [&told, i] { told[i] = true; }},
                       {});
  }
  std::size_t received = 0;
  for (int idle = 0; idle < 2;) {
    loop.turn(Milliseconds(0));
    const std::size_t more = pair.take(std::min<std::size_t>(taken - received, 100));
    received += more;
    idle = more == 0 ? idle + 1 : 0;
  }
  loop.turn(Milliseconds(0));
  std::size_t accepted = received;
  for (std::size_t more = pair.take(100000); more > 0; more = pair.take(100000)) {
    accepted += more;
  }
  pair.there.reset();
  for (int step = 0; step < 100 && !lost; ++step) {
    loop.turn(Milliseconds(1));
  }
  ASSERT_TRUE(lost) << socket;
  for (std::size_t i = 0; i < 3; ++i) {
    const bool whole = accepted >= ends[i];
    ASSERT_EQ(outcomes[i], whole ? Outcome::unknown : Outcome::notSent)
        << "request " << i << " of " << ends[i] << " bytes, accepted " << accepted;
    ASSERT_EQ(told[i], whole);
  }
}

TEST(SlaveLinkTest, ALossAtAnyByteGivesTheOutcomeOfWhatWasSent) {
  for (std::size_t taken = 0; taken < 1200; ++taken) {
    loseAt(6000, taken);
  }
  for (std::size_t size = 1; size < 6000; ++size) {
    loseAt(size, 0);
  }
}

}  // namespace
}  // namespace runel
