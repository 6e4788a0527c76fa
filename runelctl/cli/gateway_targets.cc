// SPDX-License-Identifier: Apache-2.0
#include "cli/gateway_targets.h"

#include <algorithm>
#include <cstdlib>
#include <unordered_set>
#include <utility>

#include "inventory/name_pattern.h"
#include "inventory/parse_inventory.h"

namespace runelctl {
namespace {

runel::Error selectionError(const std::string& why) {
  return {runel::Kind::local, runel::Cause::other, why};
}

// The names in @p query if it is a list of names and ranges, and nothing else.
std::vector<std::string> plainNames(const std::string& query) {
  runel::Result<std::vector<std::string>> names = expandList(query);
  return names && std::all_of(names->begin(), names->end(),
                              [](const std::string& name) { return isInventoryName(name); })
             ? *std::move(names)
             : std::vector<std::string>();
}

std::string withTags(const std::string& query, const std::vector<std::string>& tags) {
  std::string whole = tags.empty() ? query : "(" + query + ")";
  for (const std::string& tag : tags) {
    whole += " " + tag;
  }
  return whole;
}

runel::Result<std::vector<std::string>> ask(GatewayClient& gateway, const std::string& query,
                                            const std::vector<std::string>& tags,
                                            runel::Milliseconds limit) {
  const auto listed = gateway.list(withTags(query, tags), limit);
  if (!listed) {
    return listed.error();
  }
  std::vector<std::string> names;
  std::unordered_set<std::string> known;
  for (const ListedDevice& device : *listed) {
    names.push_back(device.name);
    known.insert(device.name);
  }
  for (const std::string& name : tags.empty() ? plainNames(query) : std::vector<std::string>()) {
    if (known.count(name) == 0) {
      return selectionError("no device '" + name + "' at " + gateway.url());
    }
  }
  return names;
}

std::string chosenUrl(const Settings& settings) {
  if (settings.given.gateway) {
    return settings.gatewayOptions.url;
  }
  const char* url = std::getenv("RUNELCTL_GATEWAY");
  if (url != nullptr && *url != '\0') {
    return url;
  }
  return settings.inventory ? settings.inventory->defaults().gateway : "";
}

}  // namespace

runel::Result<std::vector<std::string>> selectAtGateway(GatewayClient& gateway,
                                                        const GatewaySelection& selection,
                                                        runel::Milliseconds limit) {
  std::vector<std::string> selected;
  std::unordered_set<std::string> known;
  for (const std::string& query : selection.queries) {
    const auto names = ask(gateway, query, selection.tags, limit);
    if (!names) {
      return names.error();
    }
    std::copy_if(names->begin(), names->end(), std::back_inserter(selected),
                 [&](const std::string& name) { return known.insert(name).second; });
  }
  std::copy_if(selection.names.begin(), selection.names.end(), std::back_inserter(selected),
               [&](const std::string& name) { return known.insert(name).second; });
  std::unordered_set<std::string> removed;
  for (const std::string& query : selection.except) {
    const auto names = ask(gateway, query, {}, limit);
    if (!names) {
      return names.error();
    }
    removed.insert(names->begin(), names->end());
  }
  selected.erase(std::remove_if(selected.begin(), selected.end(),
                                [&](const std::string& name) { return removed.count(name) > 0; }),
                 selected.end());
  return selected;
}

runel::Result<void> chooseGateway(Settings& settings) {
  GatewayOptions options = settings.gatewayOptions;
  options.url = chosenUrl(settings);
  if (options.url.empty()) {
    settings.gateway.reset();
    return {};
  }
  if (settings.gateway && settings.gateway->uses(options)) {
    return {};  // the connection of the shell
  }
  auto gateway = GatewayClient::create(options, settings.limits().connectTimeout(),
                                       settings.limits().ioTimeout());
  if (!gateway) {
    return gateway.error();
  }
  settings.gateway = *std::move(gateway);
  return {};
}

runel::Milliseconds listLimit(const Settings& settings) {
  const runel::DeviceOptions limits = settings.limits();
  return limits.connectTimeout() + limits.ioTimeout();
}

}  // namespace runelctl
