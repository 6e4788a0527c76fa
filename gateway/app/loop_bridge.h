// SPDX-License-Identifier: Apache-2.0
// Runs the event loop of the client library within an io_context, in one thread.
#ifndef RUNELGW_APP_LOOP_BRIDGE_H_
#define RUNELGW_APP_LOOP_BRIDGE_H_

#include <memory>

#include <runel/loop.h>

namespace boost::asio {
class io_context;
}  // namespace boost::asio

namespace runelgw {

/// Handles the events of both in the thread that calls `run`.
class LoopBridge {
 public:
  /// Both must outlive the bridge.
  LoopBridge(boost::asio::io_context& context, runel::Loop& loop);
  ~LoopBridge();
  LoopBridge(const LoopBridge&) = delete;
  LoopBridge& operator=(const LoopBridge&) = delete;

  /// Handles events until `stop`. Any handler may change when the loop is due: run the io_context
  /// through this function only.
  void run();
  /// Makes `run` return after the current handler. May be called before `run`.
  void stop();

 private:
  struct Data;
  std::unique_ptr<Data> data_;
};

}  // namespace runelgw

#endif  // RUNELGW_APP_LOOP_BRIDGE_H_
