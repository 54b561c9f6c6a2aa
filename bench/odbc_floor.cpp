// zelvan-odbc-floor: how many times a second the statements of a right code run over plain ODBC on a data source.
#include <fmt/format.h>
#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <exception>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "bench/odbc_floor_session.h"

namespace zelvan::bench {
namespace {

using Clock = std::chrono::steady_clock;

struct Options {
  std::string dsn;
  std::string user;
  std::string password;
  std::string users_file;
  std::size_t pattern = 1000;
  std::size_t threads = 1;
  double seconds = 5;
  bool connection_per_thread = false;
  bool fresh_handles = false;
  bool json = false;
};

void declare(CLI::App& app, Options& options) {
  app.add_option("--dsn", options.dsn, "ODBC data source name")->required();
  app.add_option("--uid", options.user, "database user");
  app.add_option("--pwd", options.password, "database password");
  auto* file = app.add_option("--users", options.users_file, "users file: name, key and next counter a line");
  app.add_option("--pattern", options.pattern, "users user00000, user00001, ... instead of a file")
      ->excludes(file)
      ->check(CLI::Range(1, 100'000))
      ->capture_default_str();
  app.add_option("--threads", options.threads, "threads")->check(CLI::Range(1, 200))->capture_default_str();
  app.add_option("--seconds", options.seconds, "how long to run")->check(CLI::Range(0.1, 60.0))->capture_default_str();
  app.add_flag("--connection-per-thread", options.connection_per_thread, "a connection a thread, not one for all");
  app.add_flag("--fresh-handles", options.fresh_handles, "a statement handle a statement, not one a thread");
  app.add_flag("--json", options.json, "print one JSON object");
}

// What the threads share: the end of the run, the sum of sequences, and the first error.
struct Run {
  Clock::time_point stop;
  std::atomic<std::uint64_t> sequences = 0;
  std::mutex error_lock;
  std::exception_ptr error;
};

// The users first, first + step, ... over and over, so that no two threads work on one row.
void repeat(const Connection& connection, const Options& options, const std::vector<User>& users, std::size_t first,
            Run& run) try {
  Session session(connection, options.fresh_handles);
  std::uint64_t done = 0;
  for (std::size_t i = first; Clock::now() < run.stop; ++done) {
    session.run_sequence(users[i]);
    i = i + options.threads < users.size() ? i + options.threads : first;
  }
  run.sequences += done;
} catch (...) {
  const std::scoped_lock lock(run.error_lock);
  if (!run.error) run.error = std::current_exception();
}

using Connections = std::vector<std::unique_ptr<Connection>>;

Connections connect_all(const Options& options) {
  Connections connections;
  const std::size_t wanted = options.connection_per_thread ? options.threads : 1;
  while (connections.size() < wanted) {
    connections.push_back(std::make_unique<Connection>(options.dsn, options.user, options.password));
  }
  return connections;
}

// User and system time of this process so far, in microseconds.
double cpu_microseconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto microseconds = [](const timeval& time) {
    return 1e6 * static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec);
  };
  return microseconds(usage.ru_utime) + microseconds(usage.ru_stime);
}

struct Rates {
  double sequences_per_second;
  double cpu_us;  // processor time of one sequence, microseconds
};

Rates measure(const Options& options, const std::vector<User>& users) {
  const Connections connections = connect_all(options);
  Run run;
  const double cpu_before = cpu_microseconds();
  const auto start = Clock::now();
  run.stop = start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(options.seconds));
  {
    std::vector<std::jthread> threads;
    for (std::size_t i = 0; i < options.threads; ++i) {
      const Connection& connection = *connections[i % connections.size()];
      threads.emplace_back([&, i] { repeat(connection, options, users, i, run); });
    }
  }
  if (run.error) std::rethrow_exception(run.error);
  const auto done = static_cast<double>(run.sequences);
  return {done / std::chrono::duration<double>(Clock::now() - start).count(), (cpu_microseconds() - cpu_before) / done};
}

int run_floor(const Options& options) {
  const auto users = options.users_file.empty() ? pattern_users(options.pattern) : read_users(options.users_file);
  if (users.size() < options.threads) throw std::runtime_error("there must be at least one user for each thread");
  const Rates rates = measure(options, users);
  fmt::print(fmt::runtime(options.json ? "{{\"sequences_per_second\": {:.1f}, \"cpu_us\": {:.1f}, \"threads\": {}}}\n"
                                       : "sequences/s  {:.1f}  (processor time {:.1f} us a sequence, {} threads)\n"),
             rates.sequences_per_second, rates.cpu_us, options.threads);
  return 0;
}

}  // namespace
}  // namespace zelvan::bench

int main(int argc, char** argv) try {
  zelvan::bench::Options options;
  CLI::App app("The statements of a right code over plain ODBC");
  zelvan::bench::declare(app, options);
  CLI11_PARSE(app, argc, argv);
  return zelvan::bench::run_floor(options);
} catch (const std::exception& error) {
  fmt::print(stderr, "zelvan-odbc-floor: {}\n", error.what());
  return 2;
}
