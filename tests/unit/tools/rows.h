// Rows for tests of what is told about rows.
#pragma once

#include "zelvanctl/fields.h"
#include "zelvanctl/records.h"

namespace zelvan::ctl::test {

inline User good_user() {
  User user;
  user.name = "alice";
  user.serial = "T1";
  user.locked = Number{0};
  user.failures = Number{0};
  user.mail = "alice@example.com";
  user.auth_type = Number{1};
  user.deleted = Number{0};
  return user;
}

inline Token good_token(int type = kEventToken) {
  Token token;
  token.serial = "T1";
  token.key = Secret("12345678901234567890");
  token.type = Number{type};
  token.high = Number{0};
  token.low = Number{0};
  token.date = "2026-01-01 00:00:00";
  token.digits = Number{6};
  token.window = Number{10};
  token.step = Number{type == kTimeToken ? 30 : 0};
  return token;
}

}  // namespace zelvan::ctl::test
