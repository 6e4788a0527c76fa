// SPDX-License-Identifier: Apache-2.0
// The agent server with several sockets, compared with a model of its tables. The input selects the
// events and the bytes that the sockets send.
#include <algorithm>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "fuzz.h"
#include "unit/agent/walk.h"

namespace {

class Input : public zell::test::Choices {
 public:
  explicit Input(std::string_view bytes) : rest_(bytes) {}

  std::size_t below(std::size_t limit) override { return next() % limit; }
  bool more() override { return !rest_.empty(); }
  std::string text() override {
    const std::size_t length = next() % 64;
    const std::string text(rest_.substr(0, length));
    rest_.remove_prefix(text.size());
    return text;
  }

 private:
  std::size_t next() {
    if (rest_.empty()) {
      return 0;
    }
    const auto byte = static_cast<unsigned char>(rest_.front());
    rest_.remove_prefix(1);
    return byte;
  }

  std::string_view rest_;
};

class World : public zell::test::AgentCase {
 public:
  void TestBody() override {}
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool kInWorld = (World::SetUpTestSuite(), true);
  (void)kInWorld;
  World world;
  zell::test::LogCapture log;
  Input input(std::string_view(reinterpret_cast<const char*>(data), size));
  const auto verbosity = static_cast<int>(input.below(3));
  zell::test::Visits visits;
  zell::fuzz::require(zell::test::Walk(input, verbosity, log).run(visits));
  zell::fuzz::require(zell::test::FakeProxy::living().empty());
  return 0;
}
