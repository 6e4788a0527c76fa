// SPDX-License-Identifier: Apache-2.0
#include "shell/remote_directory.h"

#include <cstddef>
#include <optional>
#include <utility>

#include <runel/records.h>

#include "cli/signals.h"
#include "client/core/paths.h"

namespace runelctl {
namespace {

constexpr std::size_t kMostMarked = 500;

bool isDirectoryReply(const runel::Reply& reply) {
  const auto st = reply.ok() ? runel::parseStat(reply.output()) : std::nullopt;
  return st && st->isDirectory();
}

// readdir returns only names: get the type of each name with pipelined requests.
void markDirectories(runel::AsyncDevice& device, const std::string& directory,
                     runel::Milliseconds limit, std::vector<DirectoryEntry>& entries) {
  if (entries.empty() || entries.size() > kMostMarked) {
    return;
  }
  for (std::size_t i = 0; i + 1 < entries.size(); ++i) {
    DirectoryEntry* entry = &entries[i];
    device.ask(runel::Request({"stat", runel::joinPath(directory, entry->name)}),
               [entry](const runel::Reply& reply) { entry->directory = isDirectoryReply(reply); });
  }
  // Answers arrive in order: after the last one, all have arrived.
  const runel::Request last({"stat", runel::joinPath(directory, entries.back().name)});
  entries.back().directory = isDirectoryReply(askAndWait(device, last, limit));
}

}  // namespace

runel::Reply askAndWait(runel::AsyncDevice& device, const runel::Request& request,
                        runel::Milliseconds limit) {
  runel::Loop& loop = device.loop();
  std::optional<runel::Reply> reply;
  bool stop = false;
  loop.turn(runel::Milliseconds(0));  // detect a closed connection
  device.ask(request, [&](runel::Reply answer) { reply = std::move(answer); });
  {
    const Signals signals(loop, [&](int) { stop = true; });
    runel::Timer timer = loop.after(limit, [&] { stop = true; });
    while (!reply && !stop) {
      loop.turn(limit);
    }
    loop.cancel(timer);
  }
  if (!reply) {
    device.abandon();  // its answer would arrive after the handler is gone
    reply.emplace(runel::Error(runel::Kind::local, runel::Cause::cancelled,
                               "interrupted, or no answer in time"));
  }
  return std::move(*reply);
}

std::vector<DirectoryEntry> listRemote(runel::AsyncDevice& device, const std::string& directory,
                                       runel::Milliseconds limit) {
  std::vector<DirectoryEntry> entries;
  const runel::Reply reply = askAndWait(device, runel::Request({"readdir", directory}), limit);
  const auto names = reply.ok() ? runel::parseNames(reply.output()) : std::nullopt;
  if (names) {
    for (const std::string& name : *names) {
      entries.push_back({name, false});
    }
    markDirectories(device, directory, limit, entries);
  }
  return entries;
}

}  // namespace runelctl
