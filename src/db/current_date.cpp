#include "db/current_date.h"

#include <algorithm>
#include <iterator>

namespace zelvan {

CurrentDate current_date() {
  static_assert(sizeof(CurrentDate::text) >= kTimeTextSize);
  CurrentDate now;
  (void)otp_getcurdate(now.text);
  std::copy(std::begin(now.text), std::end(now.text), now.literal);
  now.literal_formed = otp_todate(now.literal, kDateLiteralLimit) == TIME_WRAP_OK;
  return now;
}

}  // namespace zelvan
