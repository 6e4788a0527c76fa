// SPDX-License-Identifier: Apache-2.0
#include "gateway/app/part_settings.h"

#include <chrono>
#include <string>
#include <utility>

namespace runelgw {
namespace {

NewDevices newDevicesOf(AdmissionMode mode) {
  switch (mode) {
    case AdmissionMode::open:
      return NewDevices::welcome;
    case AdmissionMode::approve:
      return NewDevices::wait;
    case AdmissionMode::list:
      break;
  }
  return NewDevices::refused;
}

PinTo pinToOf(PinMode mode) {
  switch (mode) {
    case PinMode::best:
      return PinTo::best;
    case PinMode::certificate:
      return PinTo::certificate;
    case PinMode::nothing:
      break;
  }
  return PinTo::nothing;
}

runel::Result<void> addAll(AccessList& list, const std::vector<std::string>& values, bool allow) {
  for (const std::string& value : values) {
    AccessRecord record;
    record.kind = AccessList::kindOf(value);
    record.value = value;
    record.allow = allow;
    if (runel::Result<void> set = list.set(record); !set) {
      return set;
    }
  }
  return {};
}

}  // namespace

bool usesTls(const Settings& settings) {
  return !settings.http.certificate.empty();
}

bool usesFile(const Settings& settings) {
  return !settings.database.url.empty() && settings.database.url.front() == '/';
}

StoreSettings storeSettings(const Settings& settings) {
  StoreSettings store;
  store.database = settings.database.url;
  store.readers = settings.database.readers;
  return store;
}

AuthSettings authSettings(const Settings& settings) {
  AuthSettings auth;
  auth.tokenRate = {settings.http.requestsPerSecond, settings.http.requestBurst};
  auth.sessionLife = settings.http.session;
  return auth;
}

runel::Result<RegistrySettings> registrySettings(const Settings& settings) {
  RegistrySettings registry;
  registry.newDevices = newDevicesOf(settings.admission.mode);
  registry.pinTo = pinToOf(settings.admission.pin);
  registry.caution = settings.devices.caution;
  runel::Result<void> added = addAll(registry.access, settings.admission.allow, true);
  if (added) {
    added = addAll(registry.access, settings.admission.deny, false);
  }
  if (!added) {
    return added.error();
  }
  return registry;
}

LinkSettings linkSettings(const Settings& settings) {
  LinkSettings link;
  link.listen.clear();
  for (const Endpoint& endpoint : settings.devices.listen) {
    link.listen.push_back({endpoint.host, endpoint.port});
  }
  link.proxies = settings.devices.proxies;
  link.sharedAddresses = settings.devices.sharedAddresses;
  link.sharedSilence = settings.devices.sharedSilence;
  link.identifyPerSecond = settings.devices.identifyPerSecond;
  link.ioTimeout = settings.devices.answerTimeout;
  link.queueLength = settings.queue.length;
  return link;
}

InventoryRules inventoryRules(const Settings& settings) {
  InventoryRules rules;
  rules.interval = settings.inventory.interval;
  rules.timeout = settings.devices.answerTimeout;
  return rules;
}

HttpSettings httpSettings(const Settings& settings) {
  HttpSettings http;
  http.listeners.clear();
  for (const Endpoint& endpoint : settings.http.listen) {
    http.listeners.push_back({endpoint.host, endpoint.port, usesTls(settings)});
  }
  http.certificateFile = settings.http.certificate;
  http.keyFile = settings.http.key;
  http.clientAuthorityFile = settings.http.clientCa;
  http.clientCertificates =
      settings.http.clientCa.empty() ? ClientCertificates::none : ClientCertificates::optional;
  http.names = settings.http.hostNames;
  http.sessionCookie = sessionCookieName(usesTls(settings));
  http.defaultBodyBytes = settings.http.bodyBytes;
  http.maxConnections = settings.http.maxConnections;
  http.headerTimeout = settings.http.headerTimeout;
  http.idleTimeout = settings.http.idleTimeout;
  return http;
}

ApiSettings apiSettings(const Settings& settings) {
  ApiSettings api;
  api.bodyBytes = settings.http.bodyBytes;
  return api;
}

Retention retention(const Settings& settings, const Timeline& timeline) {
  Retention old;
  old.historyBefore = timeline.cutoff(settings.retention.history);
  old.auditBefore = timeline.cutoff(settings.retention.audit);
  old.clausesBefore = timeline.cutoff(settings.retention.clauses);
  old.outputsBefore = timeline.cutoff(settings.retention.outputs);
  // The results without their outputs are as small as the history.
  old.operationsBefore = old.historyBefore;
  return old;
}

}  // namespace runelgw
