// SPDX-License-Identifier: Apache-2.0
#include "drivers.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>

#include <poll.h>
#include <runel/adapters/uv.h>

namespace runel::test {
namespace {

constexpr Milliseconds kLimit(60000);  // against a hang

}  // namespace

bool runAlone(Loop& loop, const Done& done) {
  const auto end = Clock::now() + kLimit;
  std::function<void()> check = [&] {
    if (done() || Clock::now() > end) {
      loop.stop();
    } else {
      loop.after(Milliseconds(1), check);
    }
  };
  loop.next(check);
  loop.run();
  return done();
}

// Waits exactly as long as the loop asks for: a deadline that is missing or late is a hang.
bool runInPoll(Loop& loop, const Done& done) {
  const auto end = Clock::now() + kLimit;
  while (!done() && Clock::now() < end) {
    const auto wake = std::min(end, loop.deadline().value_or(end));
    const auto left = std::chrono::ceil<Milliseconds>(wake - Clock::now()).count();
    pollfd source{loop.descriptor(), POLLIN, 0};
    (void)poll(&source, 1, std::max(0, static_cast<int>(left)));
    loop.step();
  }
  return done();
}

bool runInUv(Loop& loop, const Done& done) {
  struct Run {
    const Done& done;
    uv_loop_t uv{};
    uv_prepare_t prepare{};
    uv_timer_t limit{};
  } run{done};
  uv_loop_init(&run.uv);
  uv_timer_init(&run.uv, &run.limit);
  uv_prepare_init(&run.uv, &run.prepare);
  run.limit.data = run.prepare.data = &run;
  uv_timer_start(
      &run.limit, [](uv_timer_t* timer) { uv_stop(timer->loop); },
      static_cast<std::uint64_t>(kLimit.count()), 0);
  // Before each wait: the handlers of timers run after the last one.
  uv_prepare_start(&run.prepare, [](uv_prepare_t* prepare) {
    if (static_cast<Run*>(prepare->data)->done()) {
      uv_stop(prepare->loop);
    }
  });
  UvAdapter adapter(&run.uv, loop);
  uv_run(&run.uv, UV_RUN_DEFAULT);
  adapter.close();
  uv_close(reinterpret_cast<uv_handle_t*>(&run.limit), nullptr);
  uv_close(reinterpret_cast<uv_handle_t*>(&run.prepare), nullptr);
  uv_run(&run.uv, UV_RUN_DEFAULT);
  return uv_loop_close(&run.uv) == 0 && adapter.status() == 0 && done();
}

bool runUntil(Loop& loop, const Done& done) {
  const char* name = std::getenv("RUNEL_DRIVER");
  const std::string driver = name != nullptr ? name : "alone";
  if (driver == "poll") {
    return runInPoll(loop, done);
  }
  return driver == "uv" ? runInUv(loop, done) : driver == "alone" && runAlone(loop, done);
}

}  // namespace runel::test
