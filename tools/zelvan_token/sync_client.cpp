#include "zelvan_token/sync_client.h"

#include <fmt/core.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>

#include "zelvan_token/failure.h"

namespace zelvan::token {
namespace {

// Longer than any answer, so that one that was cut cannot pass for a whole one.
constexpr std::size_t kAnswerCapacity = 4096;

using AddressList = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

AddressList resolve(const ServerAddress& server) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  const int error = getaddrinfo(server.host.c_str(), std::to_string(server.port).c_str(), &hints, &found);
  if (error != 0)
    throw Failure(kNoAnswer, fmt::format("cannot find the server {}: {}", server.host, gai_strerror(error)));
  return {found, freeaddrinfo};
}

Failure unreachable(const std::string& server, int error) {
  if (error == ECONNREFUSED) {
    return {kNoAnswer, fmt::format("nobody listens at {}: is the server running, and is that its address?", server)};
  }
  return {kNoAnswer, fmt::format("cannot reach {}: {}", server, std::strerror(error))};
}

Failure silent(const std::string& server, const Patience& patience) {
  return {kNoAnswer,
          fmt::format("no answer from {} to {} requests within {} seconds each. If a request arrived and only "
                      "its answer was lost, the code is used up: try again with the next one.",
                      server, patience.tries, patience.seconds)};
}

}  // namespace

SyncClient::SyncClient(const ServerAddress& server) : name_(server_text(server)) {
  const AddressList address = resolve(server);
  socket_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (socket_ < 0) throw Failure(kFailed, fmt::format("cannot make a socket: {}", std::strerror(errno)));
  if (connect(socket_, address->ai_addr, address->ai_addrlen) != 0) {
    const int error = errno;
    (void)close(socket_);
    throw unreachable(name_, error);
  }
}

SyncClient::~SyncClient() { (void)close(socket_); }

ServerAnswer SyncClient::ask(const std::string& user, const Secret& password, const Patience& patience) {
  std::array<unsigned char, kSyncRequestCapacity> request{};
  const std::size_t length = build_sync_request(request, user, password.reveal());
  if (length == 0) {
    throw Failure(kUsage, fmt::format("the service takes at most {} bytes of password, and no NUL", kSyncFieldLimit));
  }
  const auto bytes = std::span(request).first(length);
  for (int attempt = 1; attempt <= patience.tries; ++attempt) {
    send(bytes);
    if (!wait_for_datagram(patience.seconds)) continue;
    explicit_bzero(request.data(), request.size());
    return {receive(), attempt};
  }
  explicit_bzero(request.data(), request.size());
  throw silent(name_, patience);
}

void SyncClient::send(Bytes request) const {
  if (::send(socket_, request.data(), request.size(), 0) < 0) throw unreachable(name_, errno);
}

bool SyncClient::wait_for_datagram(int seconds) const {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::seconds(seconds);
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) return false;
    pollfd waiting{socket_, POLLIN, 0};
    const int ready = poll(&waiting, 1, static_cast<int>(left.count()));
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) throw Failure(kFailed, fmt::format("cannot wait: {}", std::strerror(errno)));
  }
}

SyncReply SyncClient::receive() const {
  std::array<unsigned char, kAnswerCapacity> buffer{};
  const ssize_t received = recv(socket_, buffer.data(), buffer.size(), 0);
  if (received < 0) throw unreachable(name_, errno);
  const auto reply = parse_sync_reply(std::span(buffer).first(static_cast<std::size_t>(received)));
  explicit_bzero(buffer.data(), buffer.size());
  if (reply) return *reply;
  throw Failure(kMalformed, fmt::format("the answer of {} makes no sense ({} bytes): is that the server? If it is, the "
                                        "code may be used up: try again with the next one.",
                                        name_, received));
}

}  // namespace zelvan::token
