// SPDX-License-Identifier: Apache-2.0
#include "gateway/app/figures.h"

#include <cstddef>

namespace runelgw {
namespace {

void addDevices(Figures& figures, const Registry& registry) {
  const auto& counts = registry.counts();
  const auto count = [&counts](DeviceState state) {
    return counts[static_cast<std::size_t>(state)];
  };
  figures.online = count(DeviceState::online);
  figures.offline = count(DeviceState::offline);
  figures.waiting = count(DeviceState::waiting);
  figures.denied = count(DeviceState::denied);
  figures.quarantined = count(DeviceState::quarantined);
}

void addConnections(Figures& figures, const LinkCounters& link) {
  figures.unidentified = link.unidentified;
  figures.identified = link.connected;
  figures.silent = link.silent;
  figures.additional = link.additional;
  figures.queued = link.queued;
  figures.busyDevices = link.busyDevices;
  figures.retries = link.retries;
  figures.bytesToDevices = link.bytesToDevices;
  figures.bytesFromDevices = link.bytesFromDevices;
  figures.spooledBytes = link.spooled;
}

void addHttp(Figures& figures, const HttpState& http) {
  figures.httpConnections = http.connections;
  figures.webSockets = http.webSockets;
  figures.eventStreams = http.eventStreams;
  figures.httpAccepted = http.accepted;
  figures.httpRefused = http.refused;
  figures.httpMalformed = http.malformed;
  figures.httpBytesIn = http.bytesIn;
  figures.httpBytesOut = http.bytesOut;
}

void addStore(Figures& figures, const StoreState& store) {
  figures.databaseConnected = store.connected;
  figures.databaseQueued = store.queued;
  figures.databaseReadsWaiting = store.readsWaiting;
  figures.commits = store.commits;
  figures.changes = store.changes;
  figures.failedWrites = store.failed;
  figures.refusedWrites = store.refused;
  figures.reads = store.reads;
  figures.commitSeconds = store.commitSeconds;
  figures.readSeconds = store.readSeconds;
  figures.lastCommit = store.lastCommit;
}

}  // namespace

Figures figuresOf(Registry& registry, const DeviceLink& link, const Inventory& inventory,
                  const HttpServer& http, const Store& store, const Auth& auth, const Api& api) {
  Figures figures;
  addDevices(figures, registry);
  addConnections(figures, link.counters());
  addHttp(figures, http.state());
  addStore(figures, store.state());
  const InventoryState rounds = inventory.state();
  figures.inventoryRounds = rounds.rounds;
  figures.inventoryFailures = rounds.failed;
  figures.sessions = auth.sessions();
  figures.runningOperations = api.runningOperations();
  figures.eventSubscribers = registry.events().subscribers();
  return figures;
}

}  // namespace runelgw
