// SPDX-License-Identifier: Apache-2.0
// Random queries over random devices, compared with a second evaluator, which knows what was meant
// and parses nothing.
#include <algorithm>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "gateway/fleet/query.h"

namespace {

using runelgw::Device;
using runelgw::DeviceState;
using runelgw::Query;
using runelgw::QueryError;

constexpr std::int64_t kDay = 86'400'000;
constexpr std::int64_t kModelNow = 1'700'000'000'000;

// A query as text, and what it means.
struct Meant {
  std::string text;
  std::function<bool(const Device&)> holds;
  int binds = 2;  // 2: a single term, 1: terms with blanks, 0: with commas
};

class QueryWriter {
 public:
  explicit QueryWriter(unsigned seed) : random_(seed) {}

  Meant query(int depth) {
    const int kind = depth == 0 ? 0 : below(6);
    switch (kind) {
      case 1:
      case 2:
        return list(depth, below(2) == 0);
      case 3:
        return negation(depth);
      case 4: {
        Meant inner = query(depth - 1);
        return {"(" + blanks() + inner.text + blanks() + ")", inner.holds};
      }
      default:
        return term();
    }
  }

  Device device() {
    Device device;
    device.name = "gw-" + number();
    device.state = static_cast<DeviceState>(below(5));
    device.address = "10." + std::to_string(below(3)) + ".0." + std::to_string(below(3));
    device.lastSeen = kModelNow - below(12) * kDay - 1;
    device.deviceType = below(2) == 0 ? "controller" : "server";
    device.kernel = below(2) == 0 ? "5.10.1" : "6.1.0";
    if (below(3) > 0) {
      device.freeBytes = static_cast<std::uint64_t>(below(200)) << 20;
    }
    device.agent = below(2) == 0;
    for (const char* tag : {"a", "b", "gw-7"}) {
      if (below(2) == 0) {
        device.tags[tag] = value();
      }
    }
    return device;
  }

 private:
  int below(int limit) { return static_cast<int>(random_() % static_cast<unsigned>(limit)); }
  std::string blanks() { return std::string(static_cast<std::size_t>(below(3)), ' '); }
  std::string number() {
    const int digits = below(30);
    return (below(3) == 0 && digits < 10 ? "0" : "") + std::to_string(digits);
  }
  std::string value() { return std::string("x") + static_cast<char>('0' + below(4)); }
  std::string bracketed(const Meant& meant, int least) {
    return meant.binds < least ? "(" + meant.text + ")" : meant.text;
  }

  Meant list(int depth, bool both) {
    Meant all{"", nullptr, both ? 1 : 0};
    std::vector<std::function<bool(const Device&)>> parts;
    const int count = 2 + below(2);
    for (int at = 0; at < count; ++at) {
      const Meant one = query(depth - 1);
      const std::string between = both ? " " + blanks() : blanks() + "," + blanks();
      all.text += (at == 0 ? "" : between) + bracketed(one, both ? 2 : 1);
      parts.push_back(one.holds);
    }
    all.holds = [parts, both](const Device& device) {
      int holding = 0;
      for (const auto& part : parts) {
        holding += part(device) ? 1 : 0;
      }
      return both ? holding == static_cast<int>(parts.size()) : holding > 0;
    };
    return all;
  }

  Meant negation(int depth) {
    const Meant inner = query(depth - 1);
    return {"!" + blanks() + bracketed(inner, 2),
            [inner](const Device& device) { return !inner.holds(device); }};
  }

  Meant term() {
    switch (below(9)) {
      case 0:
        return name();
      case 1:
        return range();
      case 2:
        return tag();
      case 3:
        return state();
      case 4:
        return seen();
      case 5:
        return free();
      case 6:
        return network();
      case 7:
        return agent();
      default:
        return kernel();
    }
  }

  Meant name() {
    const std::string name = "gw-" + number();
    const bool quoted = below(4) == 0;
    return {quoted ? "\"" + name + "\"" : name, [name](const Device& device) {
              return device.name == name || device.tags.count(name) > 0;
            }};
  }

  Meant range() {
    const int first = below(20);
    const int last = first + below(15);
    const bool padded = below(2) == 0;
    const auto text = [padded](int value) {
      return (padded && value < 10 ? "0" : "") + std::to_string(value);
    };
    std::vector<std::string> names;
    for (int value = first; value <= last; ++value) {
      // The width is that of the first number if it has a leading zero.
      const bool wide = padded && first < 10 && value < 10;
      names.push_back("gw-" + std::string(wide ? "0" : "") + std::to_string(value));
    }
    const std::string to = padded && first >= 10 ? std::to_string(last) : text(last);
    return {"gw-[" + text(first) + "-" + to + "]", [names](const Device& device) {
              return std::find(names.begin(), names.end(), device.name) != names.end();
            }};
  }

  Meant tag() {
    const std::string name(1, static_cast<char>('a' + below(3)));
    const std::string wanted = value();
    const int form = below(4);
    const auto equals = [name, wanted](const Device& device) {
      const auto found = device.tags.find(name);
      return found != device.tags.end() && found->second == wanted;
    };
    if (form == 0) {
      return {name + "=" + wanted, equals};
    }
    if (form == 1) {
      return {name + "!=" + wanted, [equals](const Device& device) { return !equals(device); }};
    }
    const auto has = [name](const Device& device) { return device.tags.count(name) > 0; };
    return {form == 2 ? "tag:" + name : name + "=x?", has};
  }

  Meant state() {
    const auto wanted = static_cast<DeviceState>(below(5));
    return {std::string("state:") + nameOf(wanted),
            [wanted](const Device& device) { return device.state == wanted; }};
  }

  Meant seen() {
    const int days = below(12);
    const bool more = below(2) == 0;
    const std::string text =
        below(2) == 0 ? std::to_string(days) + "d" : std::to_string(days * 24) + "h";
    return {std::string("seen") + (more ? ">" : "<") + text, [days, more](const Device& device) {
              const std::int64_t age =
                  device.state == DeviceState::online ? 0 : kModelNow - device.lastSeen;
              return more ? age > days * kDay : age < days * kDay;
            }};
  }

  Meant free() {
    const int size = below(200);
    const bool more = below(2) == 0;
    return {std::string("free") + (more ? ">" : "<") + std::to_string(size) + "M",
            [size, more](const Device& device) {
              if (!device.freeBytes) {
                return false;
              }
              const std::uint64_t limit = static_cast<std::uint64_t>(size) * 1024 * 1024;
              return more ? *device.freeBytes > limit : *device.freeBytes < limit;
            }};
  }

  Meant network() {
    const std::string second = std::to_string(below(3));
    return {"address:10." + second + (below(2) == 0 ? ".9.9/16" : ".*"),
            [second](const Device& device) {
              return device.address.rfind("10." + second + ".", 0) == 0;
            }};
  }

  Meant agent() {
    const bool wanted = below(2) == 0;
    return {wanted ? "agent:yes" : "agent:no",
            [wanted](const Device& device) { return device.agent == wanted; }};
  }

  Meant kernel() {
    return {"kernel:5.*", [](const Device& device) { return device.kernel.rfind("5.", 0) == 0; }};
  }

  std::mt19937 random_;
};

TEST(GatewayQueryProperty, RandomQueriesMeanTheSameAsTheirModel) {
  int selected = 0;
  int all = 0;
  for (unsigned seed = 1; seed <= 3000; ++seed) {
    QueryWriter writer(seed);
    const Meant meant = writer.query(4);
    QueryError error;
    const auto query = Query::parse(meant.text, error);
    if (!query) {
      // Only the limits may refuse what the model writes.
      ASSERT_NE(std::string::npos, error.text.find("more than")) << meant.text << error.sentence();
      continue;
    }
    for (int count = 0; count < 20; ++count) {
      const Device device = writer.device();
      const bool expected = meant.holds(device);
      ASSERT_EQ(expected, query->matches(device, {kModelNow, {}, true}))
          << "seed " << seed << ": " << meant.text << " for " << device.name;
      selected += expected ? 1 : 0;
      ++all;
    }
  }
  // The comparison is worth something only if both results are frequent.
  EXPECT_GT(selected, all / 5);
  EXPECT_LT(selected, all * 4 / 5);
}

}  // namespace
