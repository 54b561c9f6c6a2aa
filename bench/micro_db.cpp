// How long the text work around one statement takes; no database is touched.
#include <benchmark/benchmark.h>

#include <array>

#include "db/statements.h"

namespace {

void build_select_user(benchmark::State& state) {
  zelvan::SqlText sql{};
  for ([[maybe_unused]] auto _ : state) {
    benchmark::DoNotOptimize(zelvan::build_statement(sql, zelvan::Statement::select_user, {"preusedate", "user00042"}));
    benchmark::DoNotOptimize(sql);
  }
}
BENCHMARK(build_select_user);

void build_update_token(benchmark::State& state) {
  zelvan::SqlText sql{};
  std::uint32_t counter = 0;
  for ([[maybe_unused]] auto _ : state) {
    benchmark::DoNotOptimize(zelvan::build_statement(sql, zelvan::Statement::update_token,
                                                     {0U, ++counter, "'2024-03-05 17:04:09'", "token00042"}));
    benchmark::DoNotOptimize(sql);
  }
}
BENCHMARK(build_update_token);

// A name full of quotes: every byte is doubled.
void build_with_quotes(benchmark::State& state) {
  zelvan::SqlText sql{};
  for ([[maybe_unused]] auto _ : state) {
    benchmark::DoNotOptimize(zelvan::build_statement(sql, zelvan::Statement::audit_success,
                                                     {"'2024-03-05 17:04:09'", "'''''''''''''''''''", "127.0.0.1"}));
    benchmark::DoNotOptimize(sql);
  }
}
BENCHMARK(build_with_quotes);

}  // namespace

BENCHMARK_MAIN();
