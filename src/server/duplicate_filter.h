// Requests seen a short time ago, so that a client's repeat is not taken for a new request.
//
// Deliberate: a new request that reuses an Identifier from the same port and address within the interval is dropped
// like a repeat (RFC 2865 section 2.5 asks clients to change the Identifier).
//
// Threads  pack_list is shared by all workers; check is called with pack_mutex held.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <vector>

// One request that was taken.  Port, address and identifier are the key.
struct _pack_info {          // NOLINT(bugprone-reserved-identifier): a given name
  std::uint16_t port;        // client's UDP port, as WorkItemView::port_key
  unsigned char address[4];  // client's IPv4 address, network order
  std::uint8_t identifier;   // RADIUS Identifier
  std::int32_t time;         // when a worker took it, seconds since 1970-01-01 UTC, low 32 bits
};

extern std::vector<_pack_info> pack_list;
extern pthread_mutex_t pack_mutex;  // guards pack_list; never held together with another mutex

// Result of check.
enum check_result : int { CHECK_DUPLICATE = 0, CHECK_SERVE = 1 };

// Tells whether `record` is to be served, and brings `list` up to date in one pass over it.
//   list      at most one record a key, in order of insertion; records of `interval` seconds and older are removed
//   record    the request just taken
//   interval  seconds; 0 or less lets every request pass
// A duplicate does not renew the interval; the first repeat after it does.
// Returns a check_result.
int check(std::vector<_pack_info>& list, const _pack_info& record, int interval);
