// SPDX-License-Identifier: Apache-2.0
#include "gateway/app/loop_bridge.h"

#include <optional>

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>

namespace runelgw {

namespace asio = boost::asio;

struct LoopBridge::Data {
  Data(asio::io_context& ioContext, runel::Loop& runelLoop)
      : context(ioContext),
        loop(runelLoop),
        descriptor(ioContext, runelLoop.descriptor()),
        timer(ioContext) {}
  // The loop keeps its descriptor.
  ~Data() { descriptor.release(); }

  void waitForEvents() {
    descriptor.async_wait(asio::posix::stream_descriptor::wait_read,
                          [this](const boost::system::error_code& error) {
                            if (!error) {
                              loop.step();
                              waitForEvents();
                            }
                          });
  }

  // A timer that expires too early does no harm, so a later deadline leaves it as it is.
  void waitForDeadline() {
    const auto deadline = loop.deadline();
    if (!deadline || (armed && *armed <= *deadline)) {
      return;
    }
    armed = deadline;
    timer.expires_at(*deadline);
    timer.async_wait([this](const boost::system::error_code& error) {
      if (!error) {
        armed.reset();
        loop.step();
      }
    });
  }

  asio::io_context& context;
  runel::Loop& loop;
  asio::posix::stream_descriptor descriptor;
  asio::steady_timer timer;
  std::optional<runel::Clock::time_point> armed;
  bool stopped = false;
};

LoopBridge::LoopBridge(asio::io_context& context, runel::Loop& loop)
    : data_(std::make_unique<Data>(context, loop)) {
  data_->waitForEvents();
}

LoopBridge::~LoopBridge() = default;

void LoopBridge::run() {
  do {
    data_->waitForDeadline();
  } while (!data_->stopped && data_->context.run_one() != 0);
}

void LoopBridge::stop() {
  data_->stopped = true;
  data_->context.stop();
}

}  // namespace runelgw
