// SPDX-License-Identifier: Apache-2.0
// The settings of each part, made of those of the operator.
#ifndef RUNELGW_APP_PART_SETTINGS_H_
#define RUNELGW_APP_PART_SETTINGS_H_

#include <cstdint>

#include <runel/result.h>

#include "gateway/api/api.h"
#include "gateway/auth/auth.h"
#include "gateway/config/settings.h"
#include "gateway/fleet/inventory.h"
#include "gateway/fleet/registry.h"
#include "gateway/fleet/timeline.h"
#include "gateway/http/http.h"
#include "gateway/link/device_link.h"
#include "gateway/store/sql_store.h"

namespace runelgw {

[[nodiscard]] StoreSettings storeSettings(const Settings& settings);
[[nodiscard]] AuthSettings authSettings(const Settings& settings);
/// Fails with a sentence about an entry of a list that no device can match.
[[nodiscard]] runel::Result<RegistrySettings> registrySettings(const Settings& settings);
[[nodiscard]] LinkSettings linkSettings(const Settings& settings);
[[nodiscard]] InventoryRules inventoryRules(const Settings& settings);
[[nodiscard]] HttpSettings httpSettings(const Settings& settings);
[[nodiscard]] ApiSettings apiSettings(const Settings& settings);
/// What is too old now.
[[nodiscard]] Retention retention(const Settings& settings, const Timeline& timeline);

/// Whether clients use TLS.
[[nodiscard]] bool usesTls(const Settings& settings);
/// Whether the database is a file, which can be replaced.
[[nodiscard]] bool usesFile(const Settings& settings);

}  // namespace runelgw

#endif  // RUNELGW_APP_PART_SETTINGS_H_
