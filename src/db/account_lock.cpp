#include "db/account_lock.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace zelvan {
namespace {

constexpr std::size_t kStripes = 64;

std::array<std::mutex, kStripes> stripes;

unsigned char fold_case(char c) { return static_cast<unsigned char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c); }

// 64-bit FNV-1a over the name as a collation that ignores case and pads with blanks sees it.
std::uint64_t hash_of(std::string_view name) {
  while (!name.empty() && name.back() == ' ') name.remove_suffix(1);
  std::uint64_t hash = 14695981039346656037U;
  for (const char c : name) {
    hash ^= fold_case(c);
    hash *= 1099511628211U;
  }
  return hash;
}

}  // namespace

void AccountLock::lock(std::string_view user_name) {
  unlock();
  held_ = std::unique_lock(stripes[hash_of(user_name) % kStripes]);
}

void AccountLock::unlock() {
  if (held_.owns_lock()) held_.unlock();
}

}  // namespace zelvan
