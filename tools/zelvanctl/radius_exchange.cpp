#include "zelvanctl/radius_exchange.h"

#include <arpa/inet.h>
#include <fmt/core.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <memory>

#include "config/settings.h"
#include "zelvanctl/failure.h"
#include "zelvanctl/key_maker.h"

namespace zelvan::ctl {
namespace {

using Clock = std::chrono::steady_clock;

RequestMark random_mark() {
  RequestMark mark;
  fill_random({&mark.identifier, 1});
  fill_random(mark.authenticator);
  fill_random(mark.chap_challenge);
  return mark;
}

struct FreeAddresses {
  void operator()(addrinfo* list) const { freeaddrinfo(list); }
};

std::unique_ptr<addrinfo, FreeAddresses> resolve(const ServerAddress& address) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* list = nullptr;
  const int result = getaddrinfo(address.host.c_str(), fmt::format("{}", address.port).c_str(), &hints, &list);
  if (result != 0) {
    throw Failure(kUnreachable, fmt::format("cannot find the server {}: {}", address.host, gai_strerror(result)));
  }
  return std::unique_ptr<addrinfo, FreeAddresses>(list);
}

// Waits for the reply; datagrams that are none are passed over.
Exchange wait_for_reply(int fd, const RequestMark& mark, const Secret& secret, Clock::time_point deadline) {
  std::array<unsigned char, 4096> buffer{};
  while (true) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd wait{fd, POLLIN, 0};
    if (left <= 0 || poll(&wait, 1, static_cast<int>(left)) == 0) return {};
    const ssize_t got = recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (got < 0 && errno == ECONNREFUSED) return {Exchange::End::refused, {}, 0};
    if (got < 0) continue;
    auto reply = read_reply(RadiusBytes(buffer).first(static_cast<std::size_t>(got)), mark, secret);
    if (reply) return {Exchange::End::reply, *std::move(reply), 0};
  }
}

}  // namespace

std::optional<ServerAddress> parse_server(std::string_view text, const ServerAddress& fallback) {
  ServerAddress address = fallback;
  const std::size_t colon = text.find(':');
  if (colon > 0) address.host = text.substr(0, colon);
  if (colon == std::string_view::npos) return text.empty() ? std::nullopt : std::optional(address);
  const std::string_view port = text.substr(colon + 1);
  const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), address.port);
  if (error != std::errc{} || end != port.data() + port.size() || address.port == 0) return {};
  return address;
}

std::optional<Secret> client_secret(const CConfigFile& file, const std::string& address) {
  std::array<char, kShareLimit + 1> value{};
  std::optional<Secret> secret;
  for (const char* key : {address.c_str(), kShareCatchAllKey}) {
    if (file.getvalstr(kShareSection, key, value.data(), kShareLimit, nullptr) != GETVAL_OK) continue;
    secret = Secret(value.data());
    break;
  }
  explicit_bzero(value.data(), value.size());
  return secret;
}

RadiusServer::RadiusServer(const ServerAddress& address) {
  const auto found = resolve(address);
  fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
  if (fd_ < 0 || connect(fd_, found->ai_addr, found->ai_addrlen) != 0) {
    const int reason = errno;
    if (fd_ >= 0) (void)close(fd_);
    throw Failure(kUnreachable, fmt::format("no road to the server {}: {}", address.host, std::strerror(reason)));
  }
}

RadiusServer::~RadiusServer() { (void)close(fd_); }

std::string RadiusServer::local_address() const {
  sockaddr_in own{};
  socklen_t size = sizeof own;
  std::array<char, INET_ADDRSTRLEN> text{};
  if (getsockname(fd_, reinterpret_cast<sockaddr*>(&own), &size) != 0) return "";
  return inet_ntop(AF_INET, &own.sin_addr, text.data(), text.size()) != nullptr ? text.data() : "";
}

Exchange RadiusServer::ask(const RadiusLogin& login, const Secret& secret, int seconds) {
  const RequestMark mark = random_mark();
  const auto packet = access_request(mark, login, secret);
  const auto start = Clock::now();
  Exchange exchange;
  if (send(fd_, packet.data(), packet.size(), 0) != static_cast<ssize_t>(packet.size())) {
    if (errno != ECONNREFUSED) throw Failure(kUnreachable, fmt::format("cannot send: {}", std::strerror(errno)));
    exchange.end = Exchange::End::refused;
  } else {
    exchange = wait_for_reply(fd_, mark, secret, start + std::chrono::seconds(seconds));
  }
  exchange.milliseconds = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  return exchange;
}

}  // namespace zelvan::ctl
