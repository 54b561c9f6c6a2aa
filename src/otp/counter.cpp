#include "otp/counter.h"

#include <cstring>

#include "otp/big_endian.h"

std::uint32_t atou32(const char* text) {
  if (text == nullptr) return 0;
  std::uint32_t value = 0;
  for (; *text != '\0'; ++text) value = value * 10U + static_cast<unsigned char>(*text) - 48U;
  return value;
}

void textadd(unsigned char* counter) {
  // A byte that becomes 0 carries into the one before it.
  for (std::size_t i = zelvan::kCounterSize; i-- > 0;) {
    if (++counter[i] != 0) return;
  }
}

int is_little_endian() {
  const int one = 1;
  unsigned char lowest_addressed = 0;
  std::memcpy(&lowest_addressed, &one, 1);
  return lowest_addressed;
}

namespace zelvan {

void add_to_counter(unsigned char* counter, std::uint64_t steps) {
  std::uint32_t high = 0;
  std::uint32_t low = 0;
  load_counter(counter, high, low);
  const std::uint64_t sum = (std::uint64_t{high} << 32U | low) + steps;
  store_counter(counter, static_cast<std::uint32_t>(sum >> 32U), static_cast<std::uint32_t>(sum));
}

void store_counter(unsigned char* counter, std::uint32_t high, std::uint32_t low) {
  store_u32(counter, high);
  store_u32(counter + 4, low);
}

void load_counter(const unsigned char* counter, std::uint32_t& high, std::uint32_t& low) {
  high = load_u32(counter);
  low = load_u32(counter + 4);
}

void write_decimal(char* out, int digits, std::uint32_t value) {
  const int length = digits > 0 ? digits : 0;
  out[length] = '\0';
  for (int i = length; i-- > 0; value /= 10U) out[i] = static_cast<char>('0' + value % 10U);
}

}  // namespace zelvan
