#include "auth/AnalyseAuthData.h"

#include <string.h>

CAnalyseAuthData::~CAnalyseAuthData() {
  explicit_bzero(shared_secret, sizeof shared_secret);
  explicit_bzero(token_key, sizeof token_key);
  explicit_bzero(pin, sizeof pin);
  explicit_bzero(password_field, sizeof password_field);
}
