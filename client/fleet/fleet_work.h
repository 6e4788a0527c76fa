// SPDX-License-Identifier: Apache-2.0
// The work of a fleet: starts jobs in waves, and ends, repeats or cancels them.
#ifndef RUNEL_FLEET_FLEET_WORK_H_
#define RUNEL_FLEET_FLEET_WORK_H_

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "client/fleet/fleet_options.h"

namespace runel {
inline namespace v1 {

/// A device of the list, or the error of its malformed address.
struct FleetEntry {
  std::string name;
  Result<Address> address;
};

class FleetWork {
 public:
  FleetWork(Loop& loop, std::vector<FleetEntry> entries, const FleetOptions& options);
  ~FleetWork();
  FleetWork(const FleetWork&) = delete;
  FleetWork& operator=(const FleetWork&) = delete;

  void lend(AsyncDevice& device) { lent_ = &device; }
  void run(AsyncFleet::MakeJob make, AsyncFleet::Handlers handlers);
  void startNoFurther();
  void cancel();

 private:
  struct Member;

  void endPause(Member& member);
  void later(std::function<void()> call);
  void startSome();
  void start(Member& member);
  void connect(Member& member);
  void arm(Member& member);
  void end(Member& member, Result<Reply> result);
  void endAll(Member& member, const Error& error);
  void settle(Member& member);
  [[nodiscard]] bool safe(const Member& member) const;
  [[nodiscard]] bool again(const Member& member) const;
  void pause(Member& member);
  void drop(Member& member);
  void cleanUp(Member& member, Request request);
  void conclude(Member& member);
  void endWave();
  void endAllIfOver();
  [[nodiscard]] bool stopEarly() const;
  [[nodiscard]] FleetReport report();

  Loop& loop_;
  const FleetOptions::Data options_;
  AsyncDevice* lent_ = nullptr;
  AsyncFleet::MakeJob make_;
  AsyncFleet::Handlers handlers_;
  std::vector<std::unique_ptr<Member>> members_;
  std::vector<std::size_t> waves_;
  std::size_t waveEnd_ = 0;  // only members before this index may start
  std::size_t wave_ = 0;
  std::size_t next_ = 0;
  std::size_t running_ = 0;
  std::size_t failed_ = 0;
  bool stopping_ = false;
  // Shared, so that a handler may destroy this object while it reads its result.
  std::shared_ptr<FleetReport::Data> data_ = std::make_shared<FleetReport::Data>();
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace v1
}  // namespace runel

#endif  // RUNEL_FLEET_FLEET_WORK_H_
