// SPDX-License-Identifier: Apache-2.0
// Collects the figures of all parts.
#ifndef RUNELGW_APP_FIGURES_H_
#define RUNELGW_APP_FIGURES_H_

#include "gateway/api/api.h"
#include "gateway/auth/auth.h"
#include "gateway/fleet/inventory.h"
#include "gateway/fleet/registry.h"
#include "gateway/http/http.h"
#include "gateway/link/device_link.h"
#include "gateway/metrics/metrics.h"
#include "gateway/store/store.h"

namespace runelgw {

/// The figures of this moment.
[[nodiscard]] Figures figuresOf(Registry& registry, const DeviceLink& link,
                                const Inventory& inventory, const HttpServer& http,
                                const Store& store, const Auth& auth, const Api& api);

}  // namespace runelgw

#endif  // RUNELGW_APP_FIGURES_H_
