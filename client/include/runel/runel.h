// SPDX-License-Identifier: Apache-2.0
// The client library for runeld devices, all of it.
#ifndef RUNEL_RUNEL_H_
#define RUNEL_RUNEL_H_

#include <runel/address.h>
#include <runel/agent.h>
#include <runel/async_device.h>
#include <runel/async_master.h>
#include <runel/device.h>
#include <runel/error.h>
#include <runel/events.h>
#include <runel/fleet.h>
#include <runel/loop.h>
#include <runel/master.h>
#include <runel/records.h>
#include <runel/request.h>
#include <runel/result.h>
#include <runel/transfer.h>
#include <runel/version.h>

#endif  // RUNEL_RUNEL_H_
