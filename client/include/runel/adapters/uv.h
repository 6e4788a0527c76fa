// SPDX-License-Identifier: Apache-2.0
// Runs the library's event loop within a libuv loop. Only this header needs libuv: link it to the
// program that includes this file.
#ifndef RUNEL_ADAPTERS_UV_H_
#define RUNEL_ADAPTERS_UV_H_

#include <algorithm>
#include <chrono>
#include <cstdint>

#include <uv.h>

#include <runel/loop.h>
#include <runel/request.h>

namespace runel {
inline namespace v1 {

/// Attaches a `Loop` to a libuv loop, which then handles the events of both in one thread. Keeps
/// `uv_run` from returning until `close`.
class UvAdapter {
 public:
  /// Both loops must outlive the adapter.
  UvAdapter(uv_loop_t* uv, Loop& loop) : handles_(new Handles(loop)) {
    status_ = handles_->open(uv);
  }
  ~UvAdapter() { close(); }
  UvAdapter(const UvAdapter&) = delete;
  UvAdapter& operator=(const UvAdapter&) = delete;

  /// 0, or libuv's error number: then nothing is attached.
  [[nodiscard]] int status() const { return status_; }

  /// Detaches the loop. May be called in any handler. libuv frees the handles in its next
  /// iteration: call `uv_run` after this, before `uv_loop_close`.
  void close() {
    if (handles_ != nullptr) {
      handles_->close();
      handles_ = nullptr;
    }
  }

 private:
  // Lives until libuv has closed the last handle.
  class Handles {
   public:
    explicit Handles(Loop& loop) : loop_(loop) {}

    int open(uv_loop_t* uv) {
      uv_timer_init(uv, &timer_);
      uv_prepare_init(uv, &prepare_);
      const int status = uv_poll_init(uv, &poll_, loop_.descriptor());
      opened_ = status == 0 ? 3 : 2;
      timer_.data = prepare_.data = poll_.data = this;
      if (status == 0) {
        uv_poll_start(&poll_, UV_READABLE, [](uv_poll_t* poll, int, int) { step(poll->data); });
        uv_prepare_start(&prepare_, [](uv_prepare_t* prepare) { setTimer(prepare->data); });
      }
      return status;
    }
    void close() {
      uv_close(generic(&timer_), closed);
      uv_close(generic(&prepare_), closed);
      if (opened_ == 3) {
        uv_close(generic(&poll_), closed);
      }
    }

   private:
    template <typename Handle>
    static uv_handle_t* generic(Handle* handle) {
      return reinterpret_cast<uv_handle_t*>(handle);
    }
    // A handler of the step may close the adapter: nothing may follow it.
    static void step(void* self) { static_cast<Handles*>(self)->loop_.step(); }

    // Before libuv waits: any handler since the last wait may have changed the deadline.
    static void setTimer(void* self) {
      auto& handles = *static_cast<Handles*>(self);
      const auto deadline = handles.loop_.deadline();
      if (!deadline) {
        uv_timer_stop(&handles.timer_);
        return;
      }
      uv_update_time(handles.timer_.loop);  // otherwise the timer counts from before the handlers
      const auto left = std::chrono::ceil<Milliseconds>(*deadline - Clock::now()).count();
      uv_timer_start(
          &handles.timer_, [](uv_timer_t* timer) { step(timer->data); },
          static_cast<std::uint64_t>(std::max<Milliseconds::rep>(left, 0)), 0);
    }
    static void closed(uv_handle_t* handle) {
      auto* handles = static_cast<Handles*>(handle->data);
      if (--handles->opened_ == 0) {
        delete handles;
      }
    }

    Loop& loop_;
    uv_timer_t timer_{};
    uv_prepare_t prepare_{};
    uv_poll_t poll_{};
    int opened_ = 0;
  };

  Handles* handles_;
  int status_ = 0;
};

}  // namespace v1
}  // namespace runel

#endif  // RUNEL_ADAPTERS_UV_H_
