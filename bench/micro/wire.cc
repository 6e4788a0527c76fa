// SPDX-License-Identifier: Apache-2.0
// Benchmarks of the codec, the record and the formatters.
#include <sstream>
#include <string>
#include <vector>

#include <sys/stat.h>

#include <zell/byte_count_protocol.h>
#include <zell/slave_task.h>
#include <zell/string_helpers.h>

#include "counted.h"
#include "support/task_wire.h"

namespace zell::bench {
namespace {

constexpr std::size_t kPacket = 4096;

// Splits bytes into packets as the loop receives them.
std::vector<std::string> packetsOf(const std::string& bytes) {
  std::vector<std::string> packets;
  for (std::size_t at = 0; at < bytes.size(); at += kPacket) {
    packets.push_back(bytes.substr(at, kPacket));
  }
  return packets;
}

std::string request(std::size_t size) {
  return "SlaveTask 3 5:write 4:/tmp " + std::to_string(size) + ':' + std::string(size, 'x') +
         " 0 0: 0 0 0 0 0";
}

// Range: the payload size, and the number of consecutive frames.
void codec(benchmark::State& state) {
  const auto count = static_cast<std::size_t>(state.range(1));
  std::string stream;
  for (std::size_t i = 0; i < count; ++i) {
    stream += test::frame(std::string(static_cast<std::size_t>(state.range(0)), 'x'));
  }
  const std::vector<std::string> packets = packetsOf(stream);
  ByteCountProtocol codec(ByteCountProtocol::kNoSocket);
  std::string message;
  measure(state, count, stream.size(), [&] {
    for (const std::string& packet : packets) {
      codec.acceptBytes(packet);
      while (codec.recvMessage(message)) {
        benchmark::DoNotOptimize(message.data());
      }
    }
  });
}
BENCHMARK(codec)->Args({60, 1})->Args({60, 64})->Args({1 << 20, 1})->Args({1 << 24, 1});

void recordRead(benchmark::State& state) {
  const std::string message = request(static_cast<std::size_t>(state.range(0)));
  SlaveTask task;
  measure(state, 1, message.size(), [&] {
    (void)task.parse(message);
    benchmark::DoNotOptimize(task.args().data());
  });
}
BENCHMARK(recordRead)->Arg(20)->Arg(1 << 20);

void recordWrite(benchmark::State& state) {
  const SlaveTask task(std::string(static_cast<std::size_t>(state.range(0)), 'x'), nullptr);
  std::ostringstream text;
  task.serialize(text);
  measure(state, 1, text.str().size(), [&] {
    const SlaveTask::Parts parts = task.parts();
    benchmark::DoNotOptimize(parts.output.data());
  });
}
BENCHMARK(recordWrite)->Arg(0)->Arg(1 << 20);

void formatStat(benchmark::State& state) {
  struct stat st {};
  if (stat("/", &st) != 0) {
    state.SkipWithError("stat");
    return;
  }
  std::ostringstream first;
  printStat(first, st);
  measure(state, 1, first.str().size(), [&] {
    std::ostringstream text;
    printStat(text, st);
    benchmark::DoNotOptimize(text.rdbuf());
  });
}
BENCHMARK(formatStat);

// Range: the number of names.
void formatStringVec(benchmark::State& state) {
  const std::vector<std::string> names(static_cast<std::size_t>(state.range(0)), "entry-00000");
  std::ostringstream first;
  printStringVec(first, "StringVec", names);
  measure(state, 1, first.str().size(), [&] {
    std::ostringstream text;
    printStringVec(text, "StringVec", names);
    benchmark::DoNotOptimize(text.rdbuf());
  });
}
BENCHMARK(formatStringVec)->Arg(10)->Arg(10000);

void formatLogText(benchmark::State& state) {
  const std::string packet(kPacket, 'x');
  constexpr int kShown = 60;
  measure(state, 1, kShown,
          [&] { benchmark::DoNotOptimize(trimOutput(packet.substr(0, kShown + 1), kShown)); });
}
BENCHMARK(formatLogText);

}  // namespace
}  // namespace zell::bench

BENCHMARK_MAIN();
