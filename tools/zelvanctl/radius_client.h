// The client's side of RADIUS: requests, and what a reply says.
//
// Source   RFC 2865 sections 3, 5.2 and 5.3.
// Threads  Pure functions.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "zelvanctl/secret.h"

namespace zelvan::ctl {

using RadiusBytes = std::span<const unsigned char>;

// What makes one request differ from all others; random.
struct RequestMark {
  std::uint8_t identifier = 0;
  std::array<unsigned char, 16> authenticator{};
  std::array<unsigned char, 16> chap_challenge{};
};

// Who logs in, and how.
struct RadiusLogin {
  std::string name;  // 1 to 253 bytes
  Secret password;   // at most 128 bytes
  bool chap = false;
};

enum class ReplyCode : std::uint8_t { accept = 2, reject = 3, challenge = 11 };

// What the signature of a reply (Response Authenticator) proves.
enum class Signature {
  right,      // the sender knows the secret, and the reply came as it was sent
  beginning,  // the same for the beginning only: how the server signs its reject of an unknown user
  wrong,      // another secret, or not what was sent
};

struct RadiusReply {
  ReplyCode code = ReplyCode::reject;
  std::string message;  // of all Reply-Message attributes; empty: none
  Signature signature = Signature::wrong;
};

// Returns an Access-Request with the password as User-Password, or as CHAP-Password with CHAP-Challenge.
std::vector<unsigned char> access_request(const RequestMark& mark, const RadiusLogin& login, const Secret& secret);

// Reads a datagram as the reply to the request with that mark; nothing when it is no such reply.
std::optional<RadiusReply> read_reply(RadiusBytes datagram, const RequestMark& mark, const Secret& secret);

// True for the reject that the server sends when it has no active user of that name.
bool is_unknown_user(const RadiusReply& reply);

}  // namespace zelvan::ctl
