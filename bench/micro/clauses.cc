// SPDX-License-Identifier: Apache-2.0
// Benchmarks of the clause buffer.
#include <string>
#include <vector>

#include "counted.h"
#include "protocol/clause_buffer.h"

namespace zell::bench {
namespace {

constexpr std::size_t kPacket = 4096;

// Range: the size of a clause, and the number of consecutive clauses.
void clauses(benchmark::State& state) {
  const std::string begin = "<report>";
  const std::string end = "</report>";
  const auto size = static_cast<std::size_t>(state.range(0));
  const auto count = static_cast<std::size_t>(state.range(1));
  std::string stream;
  for (std::size_t i = 0; i < count; ++i) {
    stream += begin + std::string(size - begin.size() - end.size(), 'x') + end;
  }
  ClauseBuffer buffer;
  std::string clause;
  measure(state, count, stream.size(), [&] {
    for (std::size_t at = 0; at < stream.size(); at += kPacket) {
      buffer.append(std::string_view(stream).substr(at, kPacket));
      while (buffer.next(clause) == ClauseBuffer::Next::cut) {
        benchmark::DoNotOptimize(clause.data());
      }
    }
  });
}
BENCHMARK(clauses)->Args({200, 1})->Args({200, 1000})->Args({1 << 20, 1})->Args({1 << 24, 1});

}  // namespace
}  // namespace zell::bench
