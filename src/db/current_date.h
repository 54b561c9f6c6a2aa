// The current time, ready for a statement.
//
// Threads  Any thread may call it.
#pragma once

#include "db/time_text.h"

namespace zelvan {

// One reading of the clock in the two forms that the services need side by side.
struct CurrentDate {
  char text[kDateLiteralLimit + 1] = {};     // time text, to be compared
  char literal[kDateLiteralLimit + 1] = {};  // date literal of the SQL dialect, to be stored
  bool literal_formed = false;               // false: the literal did not fit and `literal` is the plain text
};

// Reads the clock.
[[nodiscard]] CurrentDate current_date();

}  // namespace zelvan
