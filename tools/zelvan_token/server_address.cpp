#include "zelvan_token/server_address.h"

#include <fmt/core.h>

#include <charconv>

#include "sync/sync_packet.h"
#include "zelvan_token/failure.h"

namespace zelvan::token {

ServerAddress parse_server(const std::string& text) {
  const std::size_t colon = text.rfind(':');
  ServerAddress server{text.substr(0, colon), kSyncPort};
  if (server.host.empty()) throw Failure(kUsage, "the server is given as HOST or HOST:PORT");
  if (server.host.find(':') != std::string::npos) {
    throw Failure(kUsage, "the service is reached over IPv4: give a name or an IPv4 address");
  }
  if (colon == std::string::npos) return server;

  const char* const begin = text.data() + colon + 1;
  const char* const end = text.data() + text.size();
  const auto [stopped_at, error] = std::from_chars(begin, end, server.port);
  if (error != std::errc{} || stopped_at != end || server.port == 0) {
    throw Failure(kUsage, fmt::format("\"{}\" is no port from 1 to 65535", begin));
  }
  return server;
}

std::string server_text(const ServerAddress& server) { return fmt::format("{}:{}", server.host, server.port); }

}  // namespace zelvan::token
