// zelvan-load: keeps a RADIUS server on this host busy with right one-time codes and reports how fast it answers.
//
// Exit status: 0 every request was accepted, 1 some were not, 2 the run could not be made.
#include <arpa/inet.h>
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>

#include "bench/load_generator_loop.h"

namespace zelvan::bench {
namespace {

struct Options {
  std::string host = "127.0.0.1";
  std::uint16_t port = 1812;
  std::string secret = "benchsecret";
  std::string users_file;
  std::size_t pattern = 1000;
  std::size_t outstanding = 16;
  double seconds = 10;
  double timeout = 2;
  std::uint64_t count = 0;
  bool json = false;
};

void declare(CLI::App& app, Options& options) {
  app.add_option("--host", options.host, "IPv4 loopback address of the server")->capture_default_str();
  app.add_option("--port", options.port, "UDP port of the server")->capture_default_str();
  app.add_option("--secret", options.secret, "shared secret")->capture_default_str();
  auto* file = app.add_option("--users", options.users_file, "users file: name, key and next counter a line");
  app.add_option("--pattern", options.pattern, "users user00000, user00001, ... instead of a file")
      ->excludes(file)
      ->check(CLI::Range(1, 100'000))
      ->capture_default_str();
  app.add_option("--outstanding", options.outstanding, "requests on the way at once")
      ->check(CLI::Range(1, 1000))
      ->capture_default_str();
  app.add_option("--seconds", options.seconds, "how long to send")->check(CLI::Range(0.1, 60.0))->capture_default_str();
  app.add_option("--timeout", options.timeout, "seconds to wait for an answer")
      ->check(CLI::Range(0.05, 60.0))
      ->capture_default_str();
  app.add_option("--count", options.count, "requests to send, 0 = as many as the time allows")->capture_default_str();
  app.add_flag("--json", options.json, "print one JSON object");
}

std::chrono::milliseconds milliseconds(double seconds) {
  return std::chrono::round<std::chrono::milliseconds>(std::chrono::duration<double>(seconds));
}

LoadPlan plan_from(const Options& options) {
  LoadPlan plan;
  plan.target.sin_family = AF_INET;
  plan.target.sin_port = htons(options.port);
  if (inet_pton(AF_INET, options.host.c_str(), &plan.target.sin_addr) != 1) {
    throw std::runtime_error(fmt::format("{} is not an IPv4 address", options.host));
  }
  plan.secret = options.secret;
  plan.outstanding = options.outstanding;
  plan.count = options.count;
  plan.duration = milliseconds(options.seconds);
  plan.timeout = milliseconds(options.timeout);
  return plan;
}

// The smallest latency that `percent` of the answers do not exceed (nearest rank); 0 without answers.
std::uint32_t percentile(const std::vector<std::uint32_t>& sorted, std::size_t percent) {
  if (sorted.empty()) return 0;
  const std::size_t rank = (sorted.size() * percent + 99) / 100;
  return sorted[std::max<std::size_t>(rank, 1) - 1];
}

void report(const LoadResult& result, bool json) {
  auto sorted = result.latencies;
  std::ranges::sort(sorted);
  const double rate = result.seconds > 0 ? static_cast<double>(result.answers()) / result.seconds : 0;
  const char* layout = json ? "{{\"requests_per_second\": {:.1f}, \"p50_us\": {}, \"p95_us\": {}, \"p99_us\": {}, "
                              "\"max_us\": {}, \"accepts\": {}, \"rejects\": {}, \"others\": {}, "
                              "\"bad_signatures\": {}, \"timeouts\": {}, \"seconds\": {:.3f}}}\n"
                            : "requests/s      {:.1f}\np50 us          {}\np95 us          {}\np99 us          {}\n"
                              "max us          {}\naccepts         {}\nrejects         {}\nother answers   {}\n"
                              "bad signatures  {}\ntime-outs       {}\nseconds         {:.3f}\n";
  fmt::print(fmt::runtime(layout), rate, percentile(sorted, 50), percentile(sorted, 95), percentile(sorted, 99),
             percentile(sorted, 100), result.accepts, result.rejects, result.others, result.bad_signatures,
             result.timeouts, result.seconds);
}

bool all_accepted(const LoadResult& result) {
  return result.accepts > 0 && result.accepts == result.answers() && result.timeouts == 0;
}

int run(const Options& options) {
  auto users = options.users_file.empty() ? pattern_users(options.pattern) : read_users(options.users_file);
  const LoadResult result = run_load(plan_from(options), users);
  report(result, options.json);
  return all_accepted(result) ? 0 : 1;
}

}  // namespace
}  // namespace zelvan::bench

int main(int argc, char** argv) try {
  zelvan::bench::Options options;
  CLI::App app("Closed-loop RADIUS load over loopback");
  zelvan::bench::declare(app, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  }
  return zelvan::bench::run(options);
} catch (const std::exception& error) {
  fmt::print(stderr, "zelvan-load: {}\n", error.what());
  return 2;
}
