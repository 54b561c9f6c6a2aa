#include "log/server_log.h"

#include <array>
#include <cstdio>

#include "db/time_text.h"

void srv_log(const char* text) {
  if (text == nullptr) return;
  std::FILE* const file = std::fopen("./srvlog.txt", "a+");
  if (file == nullptr) return;
  std::array<char, zelvan::kTimeTextSize> date{};
  (void)otp_getcurdate(date.data());
  (void)std::fputs(date.data(), file);
  (void)std::fputs(" ", file);
  (void)std::fputs(text, file);
  (void)std::fputs("\n", file);
  (void)std::fclose(file);
}
