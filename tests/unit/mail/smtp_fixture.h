// What the tests of this room share.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <iterator>
#include <string>

namespace zelvan::test {

inline std::string host_name() {
  std::array<char, 100> name{};
  (void)gethostname(name.data(), name.size() - 1);
  return name.data();
}

// Descriptors open in this process, the one of the counting included.
inline auto open_descriptors() {
  const std::filesystem::directory_iterator entries("/proc/self/fd");
  return std::distance(begin(entries), end(entries));
}

// A loopback port that nobody answers at: bound, but not listening, so that no one else gets it.
class ClosedPort {
 public:
  ClosedPort() : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    (void)bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    (void)getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &size);
    port_ = ntohs(address.sin_port);
  }
  ~ClosedPort() { (void)close(socket_); }
  ClosedPort(const ClosedPort&) = delete;
  ClosedPort& operator=(const ClosedPort&) = delete;

  // Starts to listen without ever accepting.
  void listen_only() const { (void)listen(socket_, 0); }

  [[nodiscard]] int port() const { return port_; }

 private:
  int socket_;
  int port_ = 0;
};

}  // namespace zelvan::test
