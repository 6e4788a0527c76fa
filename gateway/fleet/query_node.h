// SPDX-License-Identifier: Apache-2.0
// The parts of a parsed query.
#ifndef RUNELGW_FLEET_QUERY_NODE_H_
#define RUNELGW_FLEET_QUERY_NODE_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "gateway/fleet/device.h"
#include "gateway/fleet/pattern.h"
#include "gateway/fleet/query.h"
#include "gateway/fleet/text.h"

namespace runelgw {

/// One term, or what combines terms.
struct QueryNode {
  enum class Kind {
    both,     // all children
    either,   // one of the children
    negated,  // not its child
    all,
    group,
    plain,  // a name, or a tag's name
    name,
    tag,       // has it
    tagValue,  // has it with a value
    type,
    state,
    kernel,
    address,
    network,
    certificate,
    hostid,
    agent,
    seen,
    free,
  };

  Kind kind = Kind::all;
  std::vector<QueryNode> children;
  std::string key;          // of `group` and `tagValue`
  Pattern pattern;          // of names and values
  Network network;          // of `network`
  DeviceState state{};      // of `state`
  bool yes = false;         // of `agent`: connected; of `seen` and `free`: more than `number`
  std::int64_t number = 0;  // of `seen` in milliseconds, of `free` in bytes
};

struct Query::Data {
  std::string text;
  QueryNode root;
  std::vector<std::string> groups;  // in the order of their first use
  std::map<std::string, std::size_t> uses;
  std::vector<Query::Named> named;
  std::size_t terms = 0;
  bool time = false;
};

}  // namespace runelgw

#endif  // RUNELGW_FLEET_QUERY_NODE_H_
