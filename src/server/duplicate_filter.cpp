#include "server/duplicate_filter.h"

#include <algorithm>

std::vector<_pack_info> pack_list;
pthread_mutex_t pack_mutex;

namespace {

bool same_request(const _pack_info& a, const _pack_info& b) {
  return a.port == b.port && std::ranges::equal(a.address, b.address) && a.identifier == b.identifier;
}

// In 32 bits, so that an interval runs on when the seconds wrap in 2038.
std::int32_t seconds_between(std::int32_t from, std::int32_t to) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(to) - static_cast<std::uint32_t>(from));
}

}  // namespace

int check(std::vector<_pack_info>& list, const _pack_info& record, int interval) {
  bool found = false;
  int result = CHECK_SERVE;
  const auto age = [&](const _pack_info& entry) { return seconds_between(entry.time, record.time); };

  auto kept = list.begin();
  for (_pack_info& entry : list) {
    bool keep = false;
    if (!found && same_request(entry, record)) {
      found = true;
      if (age(entry) < interval) {
        result = CHECK_DUPLICATE;
        keep = true;  // whatever its age: a duplicate leaves its record alone
      } else {
        entry.time = record.time;
      }
    }
    if (keep || age(entry) < interval) *kept++ = entry;
  }
  list.erase(kept, list.end());

  if (!found) list.push_back(record);
  return result;
}
