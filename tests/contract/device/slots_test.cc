// SPDX-License-Identifier: Apache-2.0
// The order of the proxy's virtual operations. Separately compiled code relies on it.
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include <zell/slave_proxy_local.h>

#include "support/slots.h"

namespace zell::test {
namespace {

using Text = const std::string&;

TEST(SlaveProxySlots, StandInTheirOrder) {
  const std::vector<int> slots{
      slotOf(&SlaveProxy::kill),
      slotOf(&SlaveProxy::wait),
      slotOf(&SlaveProxy::hostId),
      slotOf(&SlaveProxy::deviceType),
      slotOf(&SlaveProxy::fileExists),
      slotOf(&SlaveProxy::access),
      slotOf(&SlaveProxy::stat),
      slotOf(&SlaveProxy::lstat),
      slotOf(&SlaveProxy::unlink),
      slotOf(&SlaveProxy::chmodx),
      slotOf(&SlaveProxy::realPath),
      slotOf(&SlaveProxy::rename),
      slotOf(&SlaveProxy::readDir),
      slotOf<bool(Text, std::istringstream&)>(&SlaveProxy::readFile),
      slotOf<bool(Text, const std::ostringstream&)>(&SlaveProxy::writeFile),
      slotOf<bool(Text, const std::ostringstream&)>(&SlaveProxy::appendFile),
      slotOf(&SlaveProxy::processRunning),
      slotOf(&SlaveProxy::reboot),
      slotOf(&SlaveProxy::walkTree),
      slotOf(&SlaveProxy::freeBlocks),
      slotOf(&SlaveProxy::changeLeds),
      slotOf<bool(Text, std::string&)>(&SlaveProxy::readFile),
      slotOf<bool(Text, std::string_view)>(&SlaveProxy::writeFile),
      slotOf<bool(Text, std::string_view)>(&SlaveProxy::appendFile),
  };
  EXPECT_EQ(slots, slotsBehindDestructors(slots.size()));
}

TEST(SlaveProxySlots, HaveNoProgramsAndNoStates) {
  EXPECT_EQ(slotOf<int(const std::vector<std::string>&, int)>(&SlaveProxy::exec), -1);
  EXPECT_EQ(slotOf(&SlaveProxy::output), -1);
  EXPECT_EQ(slotOf(&SlaveProxy::updateUmState), -1);
}

}  // namespace
}  // namespace zell::test
