// SPDX-License-Identifier: Apache-2.0
#ifndef ZELL_BENCH_MICRO_COUNTED_H_
#define ZELL_BENCH_MICRO_COUNTED_H_

#include <cstddef>

#include <benchmark/benchmark.h>

#include "support/allocation_count.h"

namespace zell::bench {

/// Runs @p work until it is measured. Each run handles @p messages of @p bytes together. Reports
/// messages and bytes per second, and the allocations per message.
template <typename Work>
void measure(benchmark::State& state, std::size_t messages, std::size_t bytes, Work work) {
  const test::AllocationCount memory;
  for ([[maybe_unused]] auto once : state) {
    work();
  }
  const auto calls = static_cast<double>(memory.calls());
  const auto all = static_cast<double>(state.iterations()) * static_cast<double>(messages);
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(messages));
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes));
  state.counters["allocations"] = calls / all;
}

}  // namespace zell::bench

#endif  // ZELL_BENCH_MICRO_COUNTED_H_
