// RADIUS client side of the load generator: Access-Requests with the next code of an event token, and the check of the
// answer.  Written against OpenSSL, so that a measurement is also a second opinion on the server's own digests.
//
// Source   RFC 2865 sections 3 and 5.2 (packet, User-Password), RFC 4226 section 5 (codes of six digits).
// Threads  An object belongs to one thread.
#pragma once

#include <openssl/evp.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace zelvan::bench {

inline constexpr std::size_t kHeaderSize = 20;         // code, identifier, length, authenticator
inline constexpr std::size_t kAuthenticatorSize = 16;  // also the size of an MD5 digest
inline constexpr std::size_t kLongestPacket = 4096;

using Bytes = std::span<const unsigned char>;
using Authenticator = std::array<unsigned char, kAuthenticatorSize>;

enum class Verdict { kAccept, kReject, kOther, kBadSignature, kNotOurs };

// Builds requests and judges answers for one shared secret.
class RadiusClient {
 public:
  // `secret` is the shared secret of this host.  Throws std::runtime_error when OpenSSL lacks a digest.
  explicit RadiusClient(std::string secret);

  // The code of six digits that an event token with `key` shows for `counter`.
  std::string hotp_code(std::string_view key, std::uint64_t counter) const;

  // An Access-Request with User-Name and User-Password.
  //   name      at most 253 bytes
  //   password  at most 128 bytes
  std::vector<unsigned char> access_request(std::uint8_t identifier, const Authenticator& authenticator,
                                            std::string_view name, std::string_view password) const;

  // Judges `answer` to the request that carried `identifier` and `authenticator`.
  // kNotOurs: too short, wrong Length field or another identifier; kBadSignature: the response authenticator is wrong.
  Verdict judge(Bytes answer, std::uint8_t identifier, const Authenticator& authenticator) const;

 private:
  template <auto Free>
  struct Deleter {
    template <typename T>
    void operator()(T* object) const {
      Free(object);
    }
  };

  Authenticator md5(std::initializer_list<Bytes> parts) const;
  void append_password(std::vector<unsigned char>& packet, std::string_view password) const;

  std::string secret_;
  std::unique_ptr<EVP_MD, Deleter<EVP_MD_free>> md5_;
  std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX_free>> md5_context_;
  std::unique_ptr<EVP_MAC, Deleter<EVP_MAC_free>> hmac_;
  std::unique_ptr<EVP_MAC_CTX, Deleter<EVP_MAC_CTX_free>> hmac_context_;
};

}  // namespace zelvan::bench
