// How long the duplicate filter takes, which every request passes under one lock.
#include <benchmark/benchmark.h>

#include <vector>

#include "server/duplicate_filter.h"

namespace {

constexpr int kInterval = 30;  // seconds
constexpr std::int32_t kNow = 1'700'000'000;

_pack_info record(std::uint32_t number, std::int32_t time) {
  const auto byte = [number](unsigned shift) { return static_cast<unsigned char>(number >> shift & 0xffU); };
  return {1812, {127, byte(16), byte(8), byte(0)}, 7, time};
}

std::vector<_pack_info> fresh_entries(std::uint32_t count) {
  std::vector<_pack_info> list;
  list.reserve(count + 1);
  for (std::uint32_t i = 0; i < count; ++i) list.push_back(record(i, kNow));
  return list;
}

// A request seen for the first time, against a list of fresh entries: the whole list is swept and nothing erased.
void sweep_of_fresh_entries(benchmark::State& state) {
  const auto count = static_cast<std::uint32_t>(state.range(0));
  auto list = fresh_entries(count);
  for ([[maybe_unused]] auto _ : state) {
    benchmark::DoNotOptimize(check(list, record(count, kNow + 1), kInterval));
    list.pop_back();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(sweep_of_fresh_entries)->Arg(100)->Arg(100'000);

// A sweep that finds every entry stale and erases it.
void sweep_of_stale_entries(benchmark::State& state) {
  const auto count = static_cast<std::uint32_t>(state.range(0));
  for ([[maybe_unused]] auto _ : state) {
    state.PauseTiming();
    auto list = fresh_entries(count);
    state.ResumeTiming();
    benchmark::DoNotOptimize(check(list, record(count, kNow + kInterval), kInterval));
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(sweep_of_stale_entries)->Arg(100)->Arg(100'000)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
