// SPDX-License-Identifier: Apache-2.0
// Queries for devices: any text either is an error at a place within it, or obeys the rules of
// negation, parentheses and lists.
#include <optional>
#include <string>

#include "fuzz.h"
#include "gateway/fleet/query.h"

namespace {

using runelgw::Device;
using runelgw::DeviceState;
using runelgw::Query;
using runelgw::QueryError;
using zell::fuzz::require;

Device device(unsigned choice) {
  Device device;
  device.name = choice % 2 == 0 ? "gw-7" : "10.0.0.1:5112";
  device.hostid = std::string("gw\0-7", 5);
  device.state = static_cast<DeviceState>(choice % 5);
  device.address = choice % 3 == 0 ? "" : "10.0.0.1";
  device.lastSeen = choice % 4 == 0 ? 0 : 1000;
  device.kernel = "5.10.0";
  if (choice % 2 == 1) {
    device.freeBytes = choice << 20;
  }
  device.tags = {{"a", "b"}, {"town", "K\xc3\xb6ln"}};
  device.ruleTags = {"a"};
  return device;
}

// Without a value for an error.
std::optional<bool> selects(const std::string& text, const Device& device) {
  QueryError error;
  const auto query = Query::parse(text, error);
  if (!query) {
    require(error.position <= text.size() && !error.text.empty());
    return std::nullopt;
  }
  require(query->text() == text && query->terms() > 0);
  const Query group = *Query::parse("gw-*");
  return query->matches(device, {100000000, [&](const std::string&) { return &group; }, true});
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto [choice, text] = zell::fuzz::firstByteChooses(data, size);
  const Device one = device(choice);
  const auto result = selects(text, one);
  if (!result) {
    return 0;
  }
  // The longer texts may exceed a limit.
  const auto same = selects("(" + text + ")", one);
  require(!same || *same == *result);
  const auto opposite = selects("!(" + text + ")", one);
  require(!opposite || *opposite != *result);
  const auto both = selects("(" + text + ") !(" + text + ")", one);
  require(!both || !*both);
  const auto either = selects(text + "," + "!(" + text + ")", one);
  require(!either || *either);
  return 0;
}
