#include "bench/load_generator_loop.h"

#include <fmt/format.h>
#include <openssl/rand.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "bench/load_generator_radius.h"

namespace zelvan::bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kTimeoutScan = std::chrono::milliseconds(10);  // how often waiting requests are looked over

[[noreturn]] void fail(const char* what) {
  throw std::runtime_error(fmt::format("{}: {}", what, std::strerror(errno)));
}

// Owns a file descriptor.
class Descriptor {
 public:
  Descriptor() = default;
  Descriptor(int fd, const char* what) : fd_(fd) {
    if (fd_ < 0) fail(what);
  }
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (fd_ >= 0) close(fd_);
  }
  [[nodiscard]] int get() const { return fd_; }

 private:
  int fd_ = -1;
};

// One outstanding request.  The users first, first + step, first + 2 step, ... belong to this slot alone.
struct Slot {
  Descriptor socket;
  std::size_t user = 0;         // index of the user whose turn is next
  std::uint8_t identifier = 0;  // of the request on the way
  Authenticator authenticator{};
  Clock::time_point sent;
  bool waiting = false;
};

class Loop {
 public:
  Loop(const LoadPlan& plan, std::vector<User>& users)
      : plan_(plan), users_(users), client_(plan.secret), epoll_(epoll_create1(EPOLL_CLOEXEC), "epoll_create1") {
    for (std::size_t i = 0; i < plan_.outstanding; ++i) add_slot(i);
  }

  LoadResult run() {
    const auto start = Clock::now();
    stop_ = start + plan_.duration;
    last_event_ = next_scan_ = start;
    for (auto& slot : slots_) send_next(slot);
    while (waiting_ > 0) {
      receive_ready();
      expire_late();
    }
    result_.seconds = std::chrono::duration<double>(last_event_ - start).count();
    return std::move(result_);
  }

 private:
  void add_slot(std::size_t index) {
    Slot slot;
    slot.socket = Descriptor(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), "socket");
    slot.user = index;
    const auto* address = reinterpret_cast<const sockaddr*>(&plan_.target);
    if (connect(slot.socket.get(), address, sizeof plan_.target) != 0) fail("connect");
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = index;
    if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, slot.socket.get(), &event) != 0) fail("epoll_ctl");
    slots_.push_back(std::move(slot));
  }

  [[nodiscard]] bool finished() const {
    return Clock::now() >= stop_ || (plan_.count != 0 && requests_ >= plan_.count);
  }

  void send_next(Slot& slot) {
    if (finished()) return;
    User& user = users_[slot.user];
    slot.user =
        slot.user + plan_.outstanding < users_.size() ? slot.user + plan_.outstanding : slot.user % plan_.outstanding;
    ++slot.identifier;
    if (RAND_bytes(slot.authenticator.data(), static_cast<int>(slot.authenticator.size())) != 1) {
      throw std::runtime_error("OpenSSL: no random bytes");
    }
    const auto code = client_.hotp_code(user.key, user.counter++);
    const auto packet = client_.access_request(slot.identifier, slot.authenticator, user.name, code);
    slot.sent = Clock::now();
    if (send(slot.socket.get(), packet.data(), packet.size(), 0) < 0) fail("send");
    slot.waiting = true;
    ++waiting_;
    ++requests_;
  }

  void receive_ready() {
    std::array<epoll_event, 64> events{};
    const int ready = epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()),
                                 static_cast<int>(kTimeoutScan.count()));
    if (ready < 0 && errno != EINTR) fail("epoll_wait");
    for (int i = 0; i < ready; ++i) receive(slots_[events[static_cast<std::size_t>(i)].data.u64]);
  }

  void receive(Slot& slot) {
    std::array<unsigned char, kLongestPacket> buffer{};
    const ssize_t size = recv(slot.socket.get(), buffer.data(), buffer.size(), 0);
    if (size < 0 && errno != EAGAIN) fail("receive (does the server run?)");
    if (size < 0 || !slot.waiting) return;  // a late answer to a request that has timed out is no answer

    const auto now = Clock::now();
    const Bytes answer(buffer.data(), static_cast<std::size_t>(size));
    const Verdict verdict = client_.judge(answer, slot.identifier, slot.authenticator);
    if (verdict == Verdict::kNotOurs) return;
    count(verdict);
    const auto latency = std::chrono::duration_cast<std::chrono::microseconds>(now - slot.sent).count();
    result_.latencies.push_back(static_cast<std::uint32_t>(latency));
    settle(slot, now);
  }

  void count(Verdict verdict) {
    switch (verdict) {
      case Verdict::kAccept:
        ++result_.accepts;
        break;
      case Verdict::kReject:
        ++result_.rejects;
        break;
      case Verdict::kBadSignature:
        ++result_.bad_signatures;
        break;
      case Verdict::kOther:
        ++result_.others;
        break;
      case Verdict::kNotOurs:
        break;
    }
  }

  void expire_late() {
    const auto now = Clock::now();
    if (now < next_scan_) return;
    next_scan_ = now + kTimeoutScan;
    for (auto& slot : slots_) {
      if (!slot.waiting || now - slot.sent < plan_.timeout) continue;
      ++result_.timeouts;
      settle(slot, now);
    }
  }

  // The request of `slot` is over: the next one may go.
  void settle(Slot& slot, Clock::time_point now) {
    slot.waiting = false;
    --waiting_;
    last_event_ = now;
    send_next(slot);
  }

  const LoadPlan& plan_;
  std::vector<User>& users_;
  RadiusClient client_;
  Descriptor epoll_;
  std::vector<Slot> slots_;
  std::size_t waiting_ = 0;
  std::uint64_t requests_ = 0;
  Clock::time_point stop_;
  Clock::time_point last_event_;
  Clock::time_point next_scan_;
  LoadResult result_;
};

void refuse_bad_plan(const LoadPlan& plan, std::size_t users) {
  constexpr unsigned kLoopbackNet = 127;  // RFC 1122 section 3.2.1.3
  if (ntohl(plan.target.sin_addr.s_addr) >> 24U != kLoopbackNet) {
    throw std::runtime_error("the target is not a loopback address");
  }
  if (plan.outstanding == 0 || plan.outstanding > users) {
    throw std::runtime_error("there must be at least one user for each outstanding request");
  }
}

}  // namespace

LoadResult run_load(const LoadPlan& plan, std::vector<User>& users) {
  refuse_bad_plan(plan, users.size());
  return Loop(plan, users).run();
}

}  // namespace zelvan::bench
