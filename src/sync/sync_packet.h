// Synchronisation packets as bytes, for both ends: a request is built by the client and read by the server, a reply
// is built by the server and read by the client.
//
//   offset  size  field
//   0       1     code
//   1       2     length, most significant byte first; counts the whole packet
//   3       ...   attributes: type (1), length (1, counts these two bytes), value (length - 2)
//
// Differs  Nothing is hidden or signed: passwords, keys and secrets travel in clear.
// Threads  Pure functions over the caller's bytes: any thread may call them.
// Memory   Works on the caller's buffers.  Structures that hold secrets wipe themselves.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "sync/Synpkg.h"

namespace zelvan {

inline constexpr std::uint16_t kSyncPort = 8801;  // UDP port of the service
inline constexpr std::size_t kSyncHeaderSize = 3;
inline constexpr std::size_t kSyncDatagramSize = 1024;  // longest request looked at
inline constexpr std::size_t kSyncFieldLimit = 30;      // characters of a user name or password, each
inline constexpr std::size_t kSyncRequestCapacity = kSyncHeaderSize + 2 * (2 + kSyncFieldLimit);
inline constexpr std::size_t kSyncPinLimit = 23;     // characters
inline constexpr std::size_t kSyncKeyLimit = 29;     // characters
inline constexpr std::size_t kSyncSecretLimit = 24;  // characters

enum SyncCode : std::uint8_t { SYNPKG_REQUEST = 1, SYNPKG_ACCEPTED = 2, SYNPKG_REFUSED = 3, SYNPKG_CHALLENGE = 4 };

enum SyncAttribute : std::uint8_t {
  SYNATTR_USER_NAME = 1,       // text
  SYNATTR_PASSWORD = 2,        // text: a code, a code and the PIN, or the PIN alone
  SYNATTR_CHALLENGE = 3,       // text "Challenge code:" and the number
  SYNATTR_CODE_DIGITS = 4,     // 1 byte
  SYNATTR_TOKEN_TYPE = 5,      // 1 byte
  SYNATTR_AUTH_TYPE = 6,       // 1 byte
  SYNATTR_HIGH_COUNTER = 7,    // 4 bytes, most significant byte first
  SYNATTR_LOW_COUNTER = 8,     // 4 bytes, most significant byte first
  SYNATTR_KEY = 9,             // text
  SYNATTR_PIN = 10,            // text, may be empty
  SYNATTR_CLOCK = 11,          // 4 bytes, most significant byte first
  SYNATTR_SHARED_SECRET = 12,  // text
  SYNATTR_TIME_STEP = 13,      // 3 bytes: decimal text, padded with zeros
};

enum SyncTokenType : std::uint8_t { SYNC_TIME_STEPPED = 2, SYNC_CHALLENGE_RESPONSE = 3 };  // all others count events

// The authentication type under which a code is followed by the PIN.
inline constexpr std::uint8_t kSyncAuthTypeWithPin = 2;

using Bytes = std::span<const unsigned char>;

// What a client asks for.
struct SyncRequest {
  SyncRequest() = default;
  SyncRequest(const SyncRequest&) = default;
  SyncRequest& operator=(const SyncRequest&) = default;
  ~SyncRequest();

  std::array<char, kSyncFieldLimit + 1> user_name{};  // NUL-terminated
  std::array<char, kSyncFieldLimit + 1> password{};   // NUL-terminated; secret
};

// Everything that it takes to compute a token's codes.
struct SyncToken {
  SyncToken() = default;
  SyncToken(const SyncToken&) = default;
  SyncToken& operator=(const SyncToken&) = default;
  ~SyncToken();

  std::uint8_t code_digits = 0;
  std::uint8_t token_type = 0;                      // SyncTokenType
  std::uint8_t auth_type = 0;                       // kSyncAuthTypeWithPin: the PIN follows the code
  unsigned long high_counter = 0;                   // 0 to 2^32 - 1
  unsigned long low_counter = 0;                    // 0 to 2^32 - 1; the challenge number behind an answered challenge
  std::uint32_t clock = 0;                          // of the server, seconds, UTC
  std::array<char, 3> time_step{};                  // seconds as decimal text, padded with NULs
  std::array<char, kSyncPinLimit + 1> pin{};        // NUL-terminated; secret
  std::array<char, kSyncKeyLimit + 1> key{};        // NUL-terminated; secret
  std::array<char, kSyncSecretLimit + 1> secret{};  // the RADIUS secret of this client, NUL-terminated
};

// Writes a request.
//   out        filled from its first byte
//   user_name  at most 30 characters
//   password   at most 30 characters
// Returns its length in bytes, or 0 (and leaves `out` alone) when one of the texts is longer or holds a NUL, where the
// server would cut it.
[[nodiscard]] std::size_t build_sync_request(std::span<unsigned char, kSyncRequestCapacity> out,
                                             std::string_view user_name, std::string_view password);

// Reads a request.
// An attribute that occurs twice is taken from its last occurrence, a missing one is empty, other types are skipped,
// a NUL ends a text.
// Returns nothing when the code is not 1, the length is not the size of the datagram, an attribute is shorter than its
// own two bytes, longer than 127 bytes or runs past the end, or a user name or password has more than 30 bytes.
[[nodiscard]] std::optional<SyncRequest> parse_sync_request(Bytes datagram);

// Starts `reply` anew as an acceptance that carries `token`.
void build_sync_acceptance(CSynpkg& reply, const SyncToken& token);

// Starts `reply` anew as a challenge.
void build_sync_challenge(CSynpkg& reply, std::uint32_t challenge);

// Starts `reply` anew as a refusal.
void build_sync_refusal(CSynpkg& reply);

// The bytes of a packet that is complete; none before the first initpkg.
[[nodiscard]] Bytes packet_bytes(const CSynpkg& package);

enum class SyncAnswer { refused, accepted, challenged };

// What the server said.
struct SyncReply {
  SyncAnswer answer = SyncAnswer::refused;
  SyncToken token;              // when accepted
  std::uint32_t challenge = 0;  // when challenged
};

// Reads a reply.  Attributes may come in any order; types not known are skipped; of a type that occurs twice the last
// occurrence counts.
// Returns nothing when the code is not 2, 3 or 4, the length is not the size of the datagram, an attribute is shorter
// than its own two bytes or runs past the end, an acceptance lacks one of its ten attributes or has one of another size
// (for the texts: beyond the limits above), or a challenge names no number of 32 bits.
[[nodiscard]] std::optional<SyncReply> parse_sync_reply(Bytes datagram);

// Returns the time step of `token` in seconds; 0 when its text is no number.
[[nodiscard]] int time_step_seconds(const SyncToken& token);

}  // namespace zelvan
