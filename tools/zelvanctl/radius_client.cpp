#include "zelvanctl/radius_client.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>

#include "otp/Md5.h"

namespace zelvan::ctl {
namespace {

constexpr std::size_t kHeader = 20;
constexpr std::size_t kDigest = 16;
constexpr unsigned char kAccessRequest = 1;
constexpr unsigned char kUserName = 1;
constexpr unsigned char kUserPassword = 2;
constexpr unsigned char kChapPassword = 3;
constexpr unsigned char kReplyMessage = 18;
constexpr unsigned char kChapChallenge = 60;

using Digest = std::array<unsigned char, kDigest>;

RadiusBytes bytes_of(std::string_view text) {
  return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

Digest md5(std::initializer_list<RadiusBytes> parts) {
  MD5_CTX context{};
  Digest digest{};
  CMd5::MD5Init(&context);
  for (const RadiusBytes part : parts) {
    CMd5::MD5Update(&context, part.data(), static_cast<unsigned int>(part.size()));
  }
  CMd5::MD5Final(digest.data(), &context);
  return digest;
}

void append(std::vector<unsigned char>& packet, unsigned char type, RadiusBytes value) {
  packet.push_back(type);
  packet.push_back(static_cast<unsigned char>(value.size() + 2));
  packet.insert(packet.end(), value.begin(), value.end());
}

// RFC 2865 section 5.2: each block is hidden by MD5(secret, block before), the Request Authenticator before the first.
std::vector<unsigned char> hidden(std::string_view password, const Digest& authenticator, std::string_view secret) {
  const std::size_t blocks = std::max<std::size_t>(1, (password.size() + kDigest - 1) / kDigest);
  std::vector<unsigned char> out;
  Digest block = authenticator;
  for (std::size_t start = 0; start < blocks * kDigest; start += kDigest) {
    block = md5({bytes_of(secret), block});
    const std::string_view part = password.substr(std::min(start, password.size()), kDigest);
    for (std::size_t i = 0; i < part.size(); ++i) {
      block[i] = static_cast<unsigned char>(block[i] ^ static_cast<unsigned char>(part[i]));
    }
    out.insert(out.end(), block.begin(), block.end());
  }
  return out;
}

// RFC 2865 section 5.3: the identifier, and MD5(identifier, password, challenge).
std::vector<unsigned char> chap_response(const RequestMark& mark, std::string_view password) {
  const std::array<unsigned char, 1> identifier{mark.identifier};
  const Digest digest = md5({identifier, bytes_of(password), mark.chap_challenge});
  std::vector<unsigned char> out{mark.identifier};
  out.insert(out.end(), digest.begin(), digest.end());
  return out;
}

// Returns all Reply-Message texts; nothing when the attributes do not fit into the packet.
std::optional<std::string> reply_message(RadiusBytes attributes) {
  std::string message;
  while (!attributes.empty()) {
    if (attributes.size() < 2 || attributes[1] < 2 || attributes[1] > attributes.size()) return {};
    const RadiusBytes value = attributes.subspan(2, attributes[1] - 2U);
    if (attributes[0] == kReplyMessage) message.append(reinterpret_cast<const char*>(value.data()), value.size());
    attributes = attributes.subspan(attributes[1]);
  }
  return message;
}

// The reply is signed over header and attributes with the Request Authenticator in its place, and the secret.
Signature signature_of(RadiusBytes reply, const RequestMark& mark, std::string_view secret) {
  const RadiusBytes signature = reply.subspan(4, kDigest);
  const RadiusBytes attributes = reply.subspan(kHeader);
  const RadiusBytes key = bytes_of(secret);
  const RadiusBytes start = reply.first(4);
  if (std::ranges::equal(md5({start, mark.authenticator, attributes, key}), signature)) return Signature::right;
  // The server's reject of an unknown user: as many bytes as a reply without attributes would have.
  const std::size_t covered = std::min(attributes.size(), secret.size());
  const Digest beginning = md5({start, mark.authenticator, attributes.first(covered), key.first(key.size() - covered)});
  return std::ranges::equal(beginning, signature) ? Signature::beginning : Signature::wrong;
}

}  // namespace

std::vector<unsigned char> access_request(const RequestMark& mark, const RadiusLogin& login, const Secret& secret) {
  std::vector<unsigned char> packet{kAccessRequest, mark.identifier, 0, 0};
  packet.insert(packet.end(), mark.authenticator.begin(), mark.authenticator.end());
  append(packet, kUserName, bytes_of(login.name));
  if (login.chap) {
    append(packet, kChapPassword, chap_response(mark, login.password.reveal()));
    append(packet, kChapChallenge, mark.chap_challenge);
  } else {
    append(packet, kUserPassword, hidden(login.password.reveal(), mark.authenticator, secret.reveal()));
  }
  packet[2] = static_cast<unsigned char>(packet.size() >> 8U);
  packet[3] = static_cast<unsigned char>(packet.size() & 0xFFU);
  return packet;
}

std::optional<RadiusReply> read_reply(RadiusBytes datagram, const RequestMark& mark, const Secret& secret) {
  if (datagram.size() < kHeader || datagram[1] != mark.identifier) return {};
  const std::size_t length = static_cast<std::size_t>(datagram[2]) << 8U | datagram[3];
  if (length < kHeader || length > datagram.size()) return {};
  datagram = datagram.first(length);  // RFC 2865 section 3: what is behind the length is padding
  const auto code = static_cast<ReplyCode>(datagram[0]);
  if (code != ReplyCode::accept && code != ReplyCode::reject && code != ReplyCode::challenge) return {};
  auto message = reply_message(datagram.subspan(kHeader));
  if (!message) return {};
  return RadiusReply{code, *std::move(message), signature_of(datagram, mark, secret.reveal())};
}

bool is_unknown_user(const RadiusReply& reply) {
  return reply.code == ReplyCode::reject && reply.message == "USER NOT EXIST";
}

}  // namespace zelvan::ctl
