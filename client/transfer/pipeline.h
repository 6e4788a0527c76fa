// SPDX-License-Identifier: Apache-2.0
// Keeps a limited number of requests in flight to one device.
#ifndef RUNEL_TRANSFER_PIPELINE_H_
#define RUNEL_TRANSFER_PIPELINE_H_

#include <cstddef>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

#include <runel/request.h>

namespace runel {

/// A device executes one task at a time. A pipeline saves the round trips between tasks.
class Pipeline {
 public:
  struct Item {
    Request request;
    /// Bytes that it occupies in memory, on either side.
    std::size_t weight = 0;
    /// Returns false to stop after the requests in flight.
    std::function<bool(const Reply& reply)> handle;
  };
  /// Returns the next item, or nothing at the end.
  using Source = std::function<std::optional<Item>()>;
  /// Returns the weight to keep in flight.
  using Window = std::function<std::size_t()>;
  /// Sends a request. Never calls its second argument before it returns.
  using Ask = std::function<void(const Request&, std::function<void(const Reply&)>)>;

  /// Calls @p end once, when the source is exhausted or an item has stopped the pipeline, and all
  /// requests in flight are answered. @p end may destroy the pipeline. Keeps about @p mostBytes of
  /// weight in flight.
  Pipeline(Ask ask, Source source, std::size_t mostBytes, std::function<void()> end);
  /// The same with about as many bytes as @p window returns.
  Pipeline(Ask ask, Source source, Window window, std::function<void()> end);
  Pipeline(const Pipeline&) = delete;
  Pipeline& operator=(const Pipeline&) = delete;

  void start() { fill(); }

 private:
  void fill();
  void answered(std::size_t weight, bool more);

  const Ask ask_;
  const Source source_;
  const Window window_;
  std::function<void()> end_;
  std::size_t count_ = 0;
  std::size_t weight_ = 0;
  bool dry_ = false;
};

/// One request for each of @p things, which outlive the pipeline. @p handle gets each reply.
template <typename Thing>
[[nodiscard]] Pipeline::Source oneForEach(
    std::vector<Thing*> things, std::function<Request(const Thing&)> request,
    std::function<void(Thing& thing, const Reply& reply)> handle) {
  return [things = std::move(things), request = std::move(request), handle = std::move(handle),
          at = std::size_t{0}]() mutable -> std::optional<Pipeline::Item> {
    if (at == things.size()) {
      return std::nullopt;
    }
    Thing& thing = *things[at++];
    return Pipeline::Item{request(thing), 0, [&thing, handle](const Reply& reply) {
                            handle(thing, reply);
                            return true;
                          }};
  };
}

}  // namespace runel

#endif  // RUNEL_TRANSFER_PIPELINE_H_
