// SPDX-License-Identifier: Apache-2.0
// Looks up host names without blocking the loop: a name service that does not answer must not keep
// a probe from ending in time.
#ifndef RUNELCTL_PROBE_BACKGROUND_RESOLVER_H_
#define RUNELCTL_PROBE_BACKGROUND_RESOLVER_H_

#include <map>
#include <memory>
#include <string>

#include <runel/loop.h>

namespace runelctl {

/// Each look-up has a thread, which touches nothing of the loop. A look-up that has not ended is
/// left behind with its thread: the process may end meanwhile.
class BackgroundResolver {
 public:
  /// Sets itself as the resolver of @p loop, which must outlive it.
  explicit BackgroundResolver(runel::Loop& loop);
  /// Calls nothing for the remaining look-ups. The loop must not look up names any more.
  ~BackgroundResolver();
  BackgroundResolver(const BackgroundResolver&) = delete;
  BackgroundResolver& operator=(const BackgroundResolver&) = delete;

 private:
  struct LookUp;

  void start(const std::string& host, runel::Loop::Resolved resolved);
  void finish(int descriptor);

  runel::Loop& loop_;
  std::map<int, std::shared_ptr<LookUp>> lookUps_;  // by descriptor
};

}  // namespace runelctl

#endif  // RUNELCTL_PROBE_BACKGROUND_RESOLVER_H_
