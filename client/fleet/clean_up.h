// SPDX-License-Identifier: Apache-2.0
// The request that removes what a failed job left on its device.
#ifndef RUNEL_FLEET_CLEAN_UP_H_
#define RUNEL_FLEET_CLEAN_UP_H_

#include <functional>

#include <runel/address.h>
#include <runel/async_device.h>
#include <runel/loop.h>
#include <runel/request.h>

namespace runel {

/// Sends one request on a separate connection: the requests that are queued on the old one must not
/// delay it.
class CleanUp {
 public:
  /// Calls @p done once, at the end, unless this object is destroyed before.
  CleanUp(Loop& loop, const Address& address, const DeviceOptions& options, Request request,
          std::function<void()> done);
  ~CleanUp();
  CleanUp(const CleanUp&) = delete;
  CleanUp& operator=(const CleanUp&) = delete;

 private:
  void ask();
  void answered(const Reply& reply);

  Loop& loop_;
  Request request_;
  AsyncDevice device_;
  std::function<void()> done_;
  Timer pause_;
  int looks_ = 0;
  int withoutFile_ = 0;  // looks in a row
};

}  // namespace runel

#endif  // RUNEL_FLEET_CLEAN_UP_H_
