// The server as the user names it: HOST[:PORT].
#pragma once

#include <cstdint>
#include <string>

namespace zelvan::token {

struct ServerAddress {
  std::string host;        // a name or a dotted IPv4 address
  std::uint16_t port = 0;  // UDP, 1 to 65535
};

// Reads HOST[:PORT]; without a port it is the one of the service.
// Throws Failure (kUsage) when the host is empty or the port is no number from 1 to 65535.
ServerAddress parse_server(const std::string& text);

// Returns HOST:PORT.
std::string server_text(const ServerAddress& server);

}  // namespace zelvan::token
