// RADIUS packets as bytes: reading a request's attributes, comparing passwords, building signed replies.
//
//   offset  size  field
//   0       1     Code
//   1       1     Identifier, echoed in the reply
//   2       2     Length, most significant byte first; counts the whole packet
//   4       16    Authenticator
//   20      ...   attributes: Type (1), Length (1, counts these two bytes), Value (Length - 2)
//
// Source   RFC 2865 sections 3 and 5; CHAP with MD5 by RFC 1994.
// Differs  No Message-Authenticator, no Proxy-State; a password is never decrypted to be compared.
// Threads  Pure functions over the caller's bytes: any thread may call them.
// Memory   Works on the caller's buffers; allocates nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "otp/Md5.h"

namespace zelvan {

inline constexpr std::size_t kRadiusHeaderSize = 20;
inline constexpr std::size_t kAuthenticatorOffset = 4;
inline constexpr std::size_t kAuthenticatorSize = 16;
inline constexpr std::size_t kPasswordBlockSize = 16;
inline constexpr std::size_t kPasswordFieldSize = 128;
inline constexpr std::size_t kReplyCapacity = 256;  // room for the longest reply with a secret behind it

// Codes of RFC 2865 section 3 that the server reads or writes.
enum RadiusCode : std::uint8_t { ACCESS_REQUEST = 1, ACCESS_ACCEPT = 2, ACCESS_REJECT = 3, ACCESS_CHALLENGE = 11 };

// How the client sent the password; the numbers are the attribute types.
enum class PasswordKind : std::uint8_t { none = 0, user_password = 2, chap_password = 3 };

using Bytes = std::span<const unsigned char>;
using Authenticator = std::span<const unsigned char, kAuthenticatorSize>;

// What a request's attributes said.  The spans point into the request.
struct RequestAttributes {
  Bytes user_name;                         // 1 to 19 bytes; empty when there was no User-Name
  PasswordKind kind = PasswordKind::none;  // of the password attribute that came last
  bool password_seen = false;              // a User-Password was among the attributes
  Bytes user_password;                     // hidden password, 0 to 253 bytes
  std::uint8_t chap_identifier = 0;        // CHAP Ident
  Bytes chap_response;                     // 16 bytes once a CHAP-Password was read
  std::optional<Bytes> chap_challenge;     // 5 to 126 bytes when a CHAP-Challenge was read
};

// Reads the attribute area of a request (everything behind the 20-byte header).
// A type that occurs twice is taken from its last occurrence; types not known are skipped.
// Returns nothing when the area is malformed (a Length below 2 or past the end) or when a User-Name is not 1 to 19
// bytes, a CHAP-Password not 17 bytes or a CHAP-Challenge not 5 to 126 bytes long.
[[nodiscard]] std::optional<RequestAttributes> parse_attributes(Bytes area);

// Returns `length` rounded up to whole blocks of 16 bytes, the length of a hidden password; 0 stays 0.
[[nodiscard]] constexpr std::size_t padded_password_length(std::size_t length) {
  return (length + kPasswordBlockSize - 1) / kPasswordBlockSize * kPasswordBlockSize;
}

// Tells whether `hidden` is what a client sends for the password `candidate` (RFC 2865 section 5.2): hides the
// candidate the same way and compares in a time that does not depend on where the bytes differ.
//   candidate  at most 48 characters; a longer one never matches
//   secret     at most 56 characters; with a longer one nothing matches
[[nodiscard]] bool user_password_matches(CMd5& md5, std::string_view candidate, Bytes hidden, std::string_view secret,
                                         Authenticator request_authenticator);

// Tells whether the CHAP response of `request` is that of the password `candidate` (RFC 2865 section 5.3): MD5 over
// the CHAP Ident, the password and the CHAP-Challenge, or the Request Authenticator when there was no CHAP-Challenge.
//   candidate  at most 48 characters; a longer one never matches
[[nodiscard]] bool chap_password_matches(CMd5& md5, std::string_view candidate, const RequestAttributes& request,
                                         Authenticator request_authenticator);

// Reveals a hidden password block by block into `field`, eight whole blocks at most; a partial block is left out.
// Deliberate: only the first block is chained as RFC 2865 section 5.2 says; later ones are chained from zeros, so that
// they do not read as the password.  Nothing compares with the result.
//   secret  at most 56 characters; with a longer one nothing is revealed
void reveal_user_password(CMd5& md5, Bytes hidden, std::string_view secret, Authenticator request_authenticator,
                          std::span<unsigned char, kPasswordFieldSize> field);

// What the Response Authenticator of a reply covers.
enum class ReplyDigest {
  whole_reply,  // header, attributes, secret: RFC 2865 section 3
  header_span,  // the first 20 + secret length bytes of the same buffer, whatever lies there
};

// One reply to build.
struct ReplyPlan {
  RadiusCode code;
  std::uint8_t identifier;   // of the request
  std::string_view message;  // Reply-Message; empty: no attribute
  ReplyDigest digest = ReplyDigest::whole_reply;
};

// Builds a reply and signs it: the packet over which the digest runs carries the Request Authenticator, and the
// secret directly behind its last byte.  The secret is wiped from the buffer afterwards.
//   reply   filled from its first byte
//   secret  at most 56 characters
// Returns the reply's length in bytes, or 0 when it would not fit with its secret or the digest failed.
[[nodiscard]] std::size_t build_reply(CMd5& md5, std::span<unsigned char, kReplyCapacity> reply, const ReplyPlan& plan,
                                      Authenticator request_authenticator, std::string_view secret);

}  // namespace zelvan
