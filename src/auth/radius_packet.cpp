#include "auth/radius_packet.h"

#include <string.h>

#include <algorithm>
#include <array>

#include "base/byte_reader.h"

namespace zelvan {
namespace {

constexpr std::size_t kMd5Size = 16;
constexpr std::size_t kLongestSecret = 56;
constexpr std::size_t kLongestCandidate = 48;  // three password blocks
constexpr std::size_t kLongestChapChallenge = 126;
constexpr std::size_t kAttributeHeaderSize = 2;
constexpr std::size_t kLongestAttributeValue = 253;

// Attribute types of RFC 2865 section 5 that the server acts on.
enum AttributeType : std::uint8_t {
  USER_NAME = 1,
  USER_PASSWORD = 2,
  CHAP_PASSWORD = 3,
  REPLY_MESSAGE = 18,
  CHAP_CHALLENGE = 60,
};

// The lengths, header included, that an attribute may have; others refuse the request.
struct LengthRule {
  AttributeType type;
  std::size_t least;
  std::size_t most;
};
constexpr std::array kLengthRules{
    LengthRule{USER_NAME, 3, 21},  // the name field holds 19 characters
    LengthRule{CHAP_PASSWORD, 19, 19},
    LengthRule{CHAP_CHALLENGE, 7, kLongestChapChallenge + kAttributeHeaderSize},
};

bool length_allowed(std::uint8_t type, std::size_t length) {
  const auto* rule = std::ranges::find(kLengthRules, type, &LengthRule::type);
  return rule == kLengthRules.end() || (rule->least <= length && length <= rule->most);
}

void keep_attribute(std::uint8_t type, Bytes value, RequestAttributes& request) {
  switch (type) {
    case USER_NAME:
      request.user_name = value;
      break;
    case USER_PASSWORD:
      request.kind = PasswordKind::user_password;
      request.password_seen = true;
      request.user_password = value;
      break;
    case CHAP_PASSWORD:
      request.kind = PasswordKind::chap_password;
      request.chap_identifier = value[0];
      request.chap_response = value.subspan(1);
      break;
    case CHAP_CHALLENGE:
      request.chap_challenge = value;
      break;
    default:
      break;
  }
}

// Compares without an early end: how long it takes tells nothing about the password.
bool equal_bytes(Bytes a, Bytes b) {
  if (a.size() != b.size()) return false;
  unsigned int difference = 0;
  for (std::size_t i = 0; i < a.size(); ++i) difference |= static_cast<unsigned int>(a[i] ^ b[i]);
  return difference == 0;
}

// Bytes put together for one digest, in a buffer whose size its users prove; wiped when done.
template <std::size_t Capacity>
class DigestInput {
 public:
  DigestInput() = default;
  ~DigestInput() { explicit_bzero(bytes_.data(), bytes_.size()); }
  DigestInput(const DigestInput&) = delete;
  DigestInput& operator=(const DigestInput&) = delete;

  void add(Bytes bytes) {
    std::ranges::copy(bytes, bytes_.begin() + static_cast<std::ptrdiff_t>(size_));
    size_ += bytes.size();
  }

  bool digest(CMd5& md5, std::span<unsigned char, kMd5Size> out) {
    return md5.MDString(bytes_.data(), static_cast<unsigned int>(size_), out.data()) == 1;
  }

 private:
  std::array<unsigned char, Capacity> bytes_{};
  std::size_t size_ = 0;
};

Bytes as_bytes(std::string_view text) { return {reinterpret_cast<const unsigned char*>(text.data()), text.size()}; }

// XORs `block` with the digest of the secret and `chain`: hides a password block, or reveals it.
// The secret has at most kLongestSecret characters.
bool apply_pad(CMd5& md5, std::string_view secret, Bytes chain, std::span<unsigned char> block) {
  DigestInput<kLongestSecret + kPasswordBlockSize> input;
  input.add(as_bytes(secret));
  input.add(chain);
  std::array<unsigned char, kMd5Size> pad{};
  if (!input.digest(md5, pad)) return false;
  for (std::size_t i = 0; i < kPasswordBlockSize; ++i) block[i] ^= pad[i];
  return true;
}

}  // namespace

std::optional<RequestAttributes> parse_attributes(Bytes area) {
  RequestAttributes request;
  ByteReader reader(area);
  while (reader.left() > 0) {
    const std::uint8_t type = reader.u8();
    const std::size_t length = reader.u8();
    if (length < kAttributeHeaderSize) return std::nullopt;  // also when there was no Length byte at all
    const Bytes value = reader.take(length - kAttributeHeaderSize);
    if (!reader.ok() || !length_allowed(type, length)) return std::nullopt;
    keep_attribute(type, value, request);
  }
  return request;
}

bool user_password_matches(CMd5& md5, std::string_view candidate, Bytes hidden, std::string_view secret,
                           Authenticator request_authenticator) {
  const std::size_t length = padded_password_length(candidate.size());
  if (length != hidden.size() || length > kLongestCandidate || secret.size() > kLongestSecret) return false;

  std::array<unsigned char, kLongestCandidate> expected{};
  std::ranges::copy(as_bytes(candidate), expected.begin());
  Bytes chain = request_authenticator;
  for (std::size_t at = 0; at < length; at += kPasswordBlockSize) {
    const auto block = std::span(expected).subspan(at, kPasswordBlockSize);
    if (!apply_pad(md5, secret, chain, block)) return false;
    chain = block;
  }
  return equal_bytes(Bytes(expected).first(length), hidden);
}

bool chap_password_matches(CMd5& md5, std::string_view candidate, const RequestAttributes& request,
                           Authenticator request_authenticator) {
  const Bytes challenge = request.chap_challenge.value_or(Bytes(request_authenticator));
  if (candidate.size() > kLongestCandidate || challenge.size() > kLongestChapChallenge) return false;

  DigestInput<1 + kLongestCandidate + kLongestChapChallenge> input;
  input.add({&request.chap_identifier, 1});
  input.add(as_bytes(candidate));
  input.add(challenge);
  std::array<unsigned char, kMd5Size> expected{};
  return input.digest(md5, expected) && equal_bytes(expected, request.chap_response);
}

void reveal_user_password(CMd5& md5, Bytes hidden, std::string_view secret, Authenticator request_authenticator,
                          std::span<unsigned char, kPasswordFieldSize> field) {
  if (secret.size() > kLongestSecret) return;
  constexpr std::array<unsigned char, kPasswordBlockSize> kNoChain{};
  const std::size_t blocks = std::min(hidden.size(), field.size()) / kPasswordBlockSize;
  Bytes chain = request_authenticator;
  for (std::size_t i = 0; i < blocks; ++i) {
    const auto block = field.subspan(i * kPasswordBlockSize, kPasswordBlockSize);
    std::ranges::copy(hidden.subspan(i * kPasswordBlockSize, kPasswordBlockSize), block.begin());
    if (!apply_pad(md5, secret, chain, block)) return;
    chain = kNoChain;
  }
}

std::size_t build_reply(CMd5& md5, std::span<unsigned char, kReplyCapacity> reply, const ReplyPlan& plan,
                        Authenticator request_authenticator, std::string_view secret) {
  const std::size_t attribute = plan.message.empty() ? 0 : plan.message.size() + kAttributeHeaderSize;
  const std::size_t length = kRadiusHeaderSize + attribute;
  if (plan.message.size() > kLongestAttributeValue || length + secret.size() > reply.size()) return 0;

  reply[0] = plan.code;
  reply[1] = plan.identifier;
  reply[2] = static_cast<unsigned char>(length / 256);
  reply[3] = static_cast<unsigned char>(length % 256);
  std::ranges::copy(request_authenticator, reply.begin() + kAuthenticatorOffset);
  if (attribute > 0) {
    reply[kRadiusHeaderSize] = REPLY_MESSAGE;
    reply[kRadiusHeaderSize + 1] = static_cast<unsigned char>(attribute);
    std::ranges::copy(as_bytes(plan.message), reply.begin() + kRadiusHeaderSize + kAttributeHeaderSize);
  }

  const auto behind = reply.subspan(length, secret.size());
  std::ranges::copy(as_bytes(secret), behind.begin());
  const std::size_t covered = (plan.digest == ReplyDigest::whole_reply ? length : kRadiusHeaderSize) + secret.size();
  std::array<unsigned char, kMd5Size> digest{};
  const int signed_well = md5.MDString(reply.data(), static_cast<unsigned int>(covered), digest.data());
  explicit_bzero(behind.data(), behind.size());
  if (signed_well != 1) return 0;
  std::ranges::copy(digest, reply.begin() + kAuthenticatorOffset);
  return length;
}

}  // namespace zelvan
