// How long the digests and codes of one request take.
#include <benchmark/benchmark.h>

#include <array>
#include <vector>

#include "otp/HOTP.h"
#include "otp/Md5.h"

namespace {

using Counter = std::array<unsigned char, 8>;

constexpr const char* kKey = "12345678901234567890";  // the test key of RFC 4226 appendix D

// One candidate code of a verification.
void one_code(benchmark::State& state) {
  Counter counter{};
  std::array<char, 11> code{};
  for ([[maybe_unused]] auto _ : state) {
    QENT_HOTP hotp;
    hotp.hotp_generate(kKey, 20, counter.data(), 6, code.data());
    hotp.textadd(counter.data());
    benchmark::DoNotOptimize(code);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(one_code);

// All candidates of a wrong code: the argument is the window.
void a_window_of_codes(benchmark::State& state) {
  Counter counter{};
  std::array<char, 11> code{};
  for ([[maybe_unused]] auto _ : state) {
    for (auto i = state.range(0); i > 0; --i) {
      QENT_HOTP hotp;
      hotp.hotp_generate(kKey, 20, counter.data(), 6, code.data());
      hotp.textadd(counter.data());
      benchmark::DoNotOptimize(code);
    }
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(a_window_of_codes)->Arg(10)->Arg(30);

// The argument is the number of bytes: 27 hides a password block under a secret of 11 bytes, 31 signs an Access-Accept.
void md5(benchmark::State& state) {
  const std::vector<unsigned char> data(static_cast<std::size_t>(state.range(0)), 0x5a);
  std::array<unsigned char, 16> digest{};
  for ([[maybe_unused]] auto _ : state) {
    CMd5::MDString(data.data(), static_cast<unsigned int>(data.size()), digest.data());
    benchmark::DoNotOptimize(digest);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(md5)->Arg(27)->Arg(31)->Arg(4096);

}  // namespace

BENCHMARK_MAIN();
