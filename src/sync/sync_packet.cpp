#include "sync/sync_packet.h"

#include <string.h>

#include <algorithm>
#include <charconv>
#include <initializer_list>

#include "base/byte_reader.h"
#include "base/text.h"
#include "otp/big_endian.h"

namespace zelvan {
namespace {

constexpr std::size_t kAttributeHeaderSize = 2;
constexpr std::size_t kLongestRequestAttribute = 127;  // the server reads the length byte as a signed char
constexpr std::size_t kLongestAttribute = 255;
constexpr std::string_view kChallengeText = "Challenge code:";

// Hands each attribute of `area` to `take(type, value)`, which may refuse it.
// Returns false when an attribute is malformed or refused.
template <typename Take>
bool walk_attributes(Bytes area, std::size_t longest, Take take) {
  ByteReader reader(area);
  while (reader.left() > 0) {
    const std::uint8_t type = reader.u8();
    const std::size_t length = reader.u8();
    if (length < kAttributeHeaderSize || length > longest) return false;  // also when there was no length byte at all
    const Bytes value = reader.take(length - kAttributeHeaderSize);
    if (!reader.ok() || !take(type, value)) return false;
  }
  return true;
}

std::string_view as_text(Bytes value) { return {reinterpret_cast<const char*>(value.data()), value.size()}; }

// The text up to its first NUL.
std::string_view text_in(std::span<const char> field) { return {field.data(), strnlen(field.data(), field.size())}; }

bool keep_text(std::span<char> field, Bytes value) {
  std::ranges::fill(field, '\0');
  return copy_text(field, as_text(value));
}

bool keep_byte(std::uint8_t& field, Bytes value) {
  if (value.size() != 1) return false;
  field = value[0];
  return true;
}

template <typename Number>
bool keep_number(Number& field, Bytes value) {
  if (value.size() != 4) return false;
  field = load_u32(value.data());
  return true;
}

bool keep_time_step(SyncToken& token, Bytes value) {
  if (value.size() != token.time_step.size()) return false;
  std::ranges::copy(as_text(value), token.time_step.begin());
  return true;
}

// Returns the length that a request declares; 0, which no datagram has, for one that is never answered.
// Deliberate: both bytes count as signed, so a length with a byte of 0x80 or more is negative and matches no datagram.
std::size_t declared_length(Bytes header) {
  if (header[1] >= 0x80 || header[2] >= 0x80) return 0;
  return static_cast<std::size_t>(header[1] << 8 | header[2]);
}

std::size_t put_attribute(std::span<unsigned char> out, SyncAttribute type, std::string_view value) {
  out[0] = type;
  out[1] = static_cast<unsigned char>(value.size() + kAttributeHeaderSize);
  std::ranges::copy(value, out.begin() + kAttributeHeaderSize);
  return value.size() + kAttributeHeaderSize;
}

bool fits_request(std::string_view text) {
  return text.size() <= kSyncFieldLimit && text.find('\0') == std::string_view::npos;
}

void add_bytes(CSynpkg& reply, SyncAttribute type, std::span<const char> value) {
  // addattr only reads the value.
  auto* bytes = reinterpret_cast<unsigned char*>(const_cast<char*>(value.data()));
  reply.addattr(type, static_cast<unsigned char>(value.size()), bytes);
}

void add_text(CSynpkg& reply, SyncAttribute type, std::span<const char> field) {
  add_bytes(reply, type, text_in(field));
}

void add_byte(CSynpkg& reply, SyncAttribute type, std::uint8_t value) { reply.addattr(type, 1, &value); }

void add_number(CSynpkg& reply, SyncAttribute type, unsigned long value) {
  std::array<unsigned char, 4> bytes;
  store_u32(bytes.data(), static_cast<std::uint32_t>(value));
  reply.addattr(type, bytes.size(), bytes.data());
}

bool take_token_attribute(SyncToken& token, std::uint8_t type, Bytes value) {
  switch (type) {
    case SYNATTR_CODE_DIGITS:
      return keep_byte(token.code_digits, value);
    case SYNATTR_TOKEN_TYPE:
      return keep_byte(token.token_type, value);
    case SYNATTR_AUTH_TYPE:
      return keep_byte(token.auth_type, value);
    case SYNATTR_HIGH_COUNTER:
      return keep_number(token.high_counter, value);
    case SYNATTR_LOW_COUNTER:
      return keep_number(token.low_counter, value);
    case SYNATTR_KEY:
      return keep_text(token.key, value);
    case SYNATTR_PIN:
      return keep_text(token.pin, value);
    case SYNATTR_CLOCK:
      return keep_number(token.clock, value);
    case SYNATTR_SHARED_SECRET:
      return keep_text(token.secret, value);
    case SYNATTR_TIME_STEP:
      return keep_time_step(token, value);
    default:
      return true;
  }
}

bool read_token(Bytes area, SyncToken& token) {
  unsigned int seen = 0;  // a bit for each type from 4 to 13
  const bool well_formed = walk_attributes(area, kLongestAttribute, [&](std::uint8_t type, Bytes value) {
    if (type >= SYNATTR_CODE_DIGITS && type <= SYNATTR_TIME_STEP) seen |= 1U << (type - SYNATTR_CODE_DIGITS);
    return take_token_attribute(token, type, value);
  });
  constexpr unsigned int kAll = (1U << (SYNATTR_TIME_STEP - SYNATTR_CODE_DIGITS + 1)) - 1;
  return well_formed && seen == kAll;
}

bool read_challenge_text(std::string_view text, std::uint32_t& challenge) {
  if (!text.starts_with(kChallengeText)) return false;
  text.remove_prefix(kChallengeText.size());
  const char* const end = text.data() + text.size();
  const auto [stopped_at, error] = std::from_chars(text.data(), end, challenge);
  return error == std::errc{} && stopped_at == end;
}

bool read_challenge(Bytes area, std::uint32_t& challenge) {
  bool seen = false;
  const bool well_formed = walk_attributes(area, kLongestAttribute, [&](std::uint8_t type, Bytes value) {
    if (type != SYNATTR_CHALLENGE) return true;
    seen = true;
    return read_challenge_text(as_text(value), challenge);
  });
  return well_formed && seen;
}

bool read_refusal(Bytes area) {
  return walk_attributes(area, kLongestAttribute, [](std::uint8_t, Bytes) { return true; });
}

}  // namespace

SyncRequest::~SyncRequest() { explicit_bzero(password.data(), password.size()); }

SyncToken::~SyncToken() {
  explicit_bzero(pin.data(), pin.size());
  explicit_bzero(key.data(), key.size());
  explicit_bzero(secret.data(), secret.size());
}

std::size_t build_sync_request(std::span<unsigned char, kSyncRequestCapacity> out, std::string_view user_name,
                               std::string_view password) {
  if (!fits_request(user_name) || !fits_request(password)) return 0;
  std::size_t length = kSyncHeaderSize;
  length += put_attribute(out.subspan(length), SYNATTR_USER_NAME, user_name);
  length += put_attribute(out.subspan(length), SYNATTR_PASSWORD, password);
  out[0] = SYNPKG_REQUEST;
  out[1] = 0;
  out[2] = static_cast<unsigned char>(length);
  static_assert(kSyncRequestCapacity < 0x80, "the server never answers a length with a low byte of 0x80 or more");
  return length;
}

std::optional<SyncRequest> parse_sync_request(Bytes datagram) {
  if (datagram.size() < kSyncHeaderSize || datagram[0] != SYNPKG_REQUEST) return std::nullopt;
  if (declared_length(datagram) != datagram.size()) return std::nullopt;

  SyncRequest request;
  const Bytes area = datagram.subspan(kSyncHeaderSize);
  const bool well_formed = walk_attributes(area, kLongestRequestAttribute, [&](std::uint8_t type, Bytes value) {
    if (type == SYNATTR_USER_NAME) return keep_text(request.user_name, value);
    if (type == SYNATTR_PASSWORD) return keep_text(request.password, value);
    return true;
  });
  if (!well_formed) return std::nullopt;
  return request;
}

void build_sync_acceptance(CSynpkg& reply, const SyncToken& token) {
  reply.initpkg(SYNPKG_ACCEPTED);
  add_byte(reply, SYNATTR_CODE_DIGITS, token.code_digits);
  add_byte(reply, SYNATTR_TOKEN_TYPE, token.token_type);
  add_byte(reply, SYNATTR_AUTH_TYPE, token.auth_type);
  add_number(reply, SYNATTR_HIGH_COUNTER, token.high_counter);
  add_number(reply, SYNATTR_LOW_COUNTER, token.low_counter);
  add_text(reply, SYNATTR_PIN, token.pin);
  add_text(reply, SYNATTR_KEY, token.key);
  add_text(reply, SYNATTR_SHARED_SECRET, token.secret);
  add_number(reply, SYNATTR_CLOCK, token.clock);
  add_bytes(reply, SYNATTR_TIME_STEP, token.time_step);
}

void build_sync_challenge(CSynpkg& reply, std::uint32_t challenge) {
  std::array<char, 32> text{};
  // Cannot fail: 15 characters, 10 digits at most and a NUL.
  (void)format_text(text, "%s%u", kChallengeText.data(), challenge);
  reply.initpkg(SYNPKG_CHALLENGE);
  add_text(reply, SYNATTR_CHALLENGE, text);
}

void build_sync_refusal(CSynpkg& reply) { reply.initpkg(SYNPKG_REFUSED); }

Bytes packet_bytes(const CSynpkg& package) {
  if (package.packet == nullptr) return {};
  return {package.packet, static_cast<std::size_t>(package.packet[1] << 8 | package.packet[2])};
}

std::optional<SyncReply> parse_sync_reply(Bytes datagram) {
  ByteReader header(datagram);
  const std::uint8_t code = header.u8();
  const std::size_t length = header.u16();
  if (!header.ok() || length != datagram.size()) return std::nullopt;

  const Bytes area = datagram.subspan(kSyncHeaderSize);
  std::optional<SyncReply> reply(std::in_place);
  bool readable = false;
  switch (code) {
    case SYNPKG_ACCEPTED:
      reply->answer = SyncAnswer::accepted;
      readable = read_token(area, reply->token);
      break;
    case SYNPKG_REFUSED:
      readable = read_refusal(area);
      break;
    case SYNPKG_CHALLENGE:
      reply->answer = SyncAnswer::challenged;
      readable = read_challenge(area, reply->challenge);
      break;
    default:
      break;
  }
  if (!readable) reply.reset();
  return reply;
}

int time_step_seconds(const SyncToken& token) {
  const std::string_view text = text_in(token.time_step);
  int seconds = 0;
  if (std::from_chars(text.data(), text.data() + text.size(), seconds).ec != std::errc{}) return 0;
  return seconds;
}

}  // namespace zelvan
