// The closed loop of the load generator: a fixed number of requests is outstanding at any time, and each answer (or
// time-out) makes room for the next request.
//
// Threads  One thread; a socket and a disjoint share of the users for each outstanding request, so that no token has
//          two codes on the way at once.
#pragma once

#include <netinet/in.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "bench/bench_users.h"

namespace zelvan::bench {

// What to send, and for how long.
struct LoadPlan {
  sockaddr_in target{};                        // a loopback address
  std::string secret;                          // shared secret
  std::size_t outstanding = 16;                // requests on the way at once; at most the number of users
  std::uint64_t count = 0;                     // requests to send; 0 = as many as the time allows
  std::chrono::milliseconds duration{10'000};  // no request is begun after it
  std::chrono::milliseconds timeout{2'000};    // a request without an answer after it counts as timed out
};

// What came back.
struct LoadResult {
  std::uint64_t accepts = 0;
  std::uint64_t rejects = 0;
  std::uint64_t others = 0;          // signed answers of another code, an Access-Challenge say
  std::uint64_t bad_signatures = 0;  // answers whose response authenticator is wrong
  std::uint64_t timeouts = 0;
  double seconds = 0;                    // from the first request to the last answer or time-out
  std::vector<std::uint32_t> latencies;  // microseconds, one for each answer, in order of arrival

  // Answers of any kind.
  [[nodiscard]] std::uint64_t answers() const { return latencies.size(); }
};

// Runs `plan` with `users`, whose counters move on with each request.
// Throws std::runtime_error when the target is not on loopback, the users are too few, or nobody listens there.
LoadResult run_load(const LoadPlan& plan, std::vector<User>& users);

}  // namespace zelvan::bench
