// One RADIUS server over UDP: a request, its reply, and how long that took.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "config/ConfigFile.h"
#include "zelvanctl/radius_client.h"

namespace zelvan::ctl {

struct ServerAddress {
  std::string host;  // name or IPv4 address
  std::uint16_t port = 0;
};

// Takes "HOST", "HOST:PORT" or ":PORT" apart; nothing when it is none of them.
std::optional<ServerAddress> parse_server(std::string_view text, const ServerAddress& fallback);

// Returns the shared secret as the server looks it up for a client: its own, else that of 0.0.0.0; nothing when there
// is none that can be used.
std::optional<Secret> client_secret(const CConfigFile& file, const std::string& address);

struct Exchange {
  enum class End { reply, silence, refused };
  End end = End::silence;
  RadiusReply reply;        // when there is one
  double milliseconds = 0;  // from the sending of the request to the end
};

class RadiusServer {
 public:
  // Makes a socket for the server.  Throws Failure (kUnreachable) when the name is unknown or no road leads there.
  explicit RadiusServer(const ServerAddress& address);
  ~RadiusServer();
  RadiusServer(const RadiusServer&) = delete;
  RadiusServer& operator=(const RadiusServer&) = delete;

  // Returns the address that the server sees us under, unless something between translates it.
  [[nodiscard]] std::string local_address() const;

  // Sends one request and waits for its reply; it is never sent again, since the server would count that as another
  // attempt.
  Exchange ask(const RadiusLogin& login, const Secret& secret, int seconds);

 private:
  int fd_ = -1;
};

}  // namespace zelvan::ctl
