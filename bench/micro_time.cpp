// How long the reading and writing of time text takes.
#include <benchmark/benchmark.h>

#include <array>

#include "db/time_text.h"

namespace {

constexpr const char* kFormat = "YYYY-MM-DD hh24:mi:ss";

// The current time as a date literal, as each statement that writes a date needs it.
void date_literal_of_now(benchmark::State& state) {
  std::array<char, 57> text{};
  for ([[maybe_unused]] auto _ : state) {
    otp_getcurdate(text.data());
    benchmark::DoNotOptimize(otp_todate(text.data(), 56));
    benchmark::DoNotOptimize(text);
  }
}
BENCHMARK(date_literal_of_now);

// The age of a stored time: two parses and two conversions through the time zone.
void age_of_a_time(benchmark::State& state) {
  for ([[maybe_unused]] auto _ : state) {
    benchmark::DoNotOptimize(otp_diff_time("2024-03-05 17:04:09", kFormat, "2024-03-05 16:59:01", kFormat));
  }
}
BENCHMARK(age_of_a_time);

}  // namespace

BENCHMARK_MAIN();
