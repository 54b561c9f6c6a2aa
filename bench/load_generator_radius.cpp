#include "bench/load_generator_radius.h"

#include <fmt/format.h>
#include <openssl/core_names.h>
#include <openssl/params.h>

#include <algorithm>
#include <stdexcept>

namespace zelvan::bench {
namespace {

constexpr unsigned char kAccessRequest = 1;
constexpr unsigned char kAccessAccept = 2;
constexpr unsigned char kAccessReject = 3;
constexpr unsigned char kNoLengthYet = 0;
constexpr unsigned char kUserName = 1;
constexpr unsigned char kUserPassword = 2;
constexpr std::size_t kMacSize = 20;

Bytes bytes_of(std::string_view text) { return {reinterpret_cast<const unsigned char*>(text.data()), text.size()}; }

void must(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(fmt::format("OpenSSL: {} failed", what));
}

std::array<unsigned char, 8> big_endian(std::uint64_t value) {
  std::array<unsigned char, 8> bytes{};
  for (auto byte = bytes.rbegin(); byte != bytes.rend(); ++byte, value >>= 8) {
    *byte = static_cast<unsigned char>(value & 0xff);
  }
  return bytes;
}

// RFC 4226 section 5.3: the 31 bits at the offset that the last byte names.
std::uint32_t truncate(std::span<const unsigned char, kMacSize> mac) {
  const std::size_t offset = mac[kMacSize - 1] & 0x0fU;
  return (mac[offset] & 0x7fU) << 24U | std::uint32_t{mac[offset + 1]} << 16U | std::uint32_t{mac[offset + 2]} << 8U |
         std::uint32_t{mac[offset + 3]};
}

std::size_t length_field(Bytes packet) { return std::size_t{packet[2]} << 8U | packet[3]; }

void set_length_field(std::vector<unsigned char>& packet) {
  packet[2] = static_cast<unsigned char>(packet.size() >> 8U);
  packet[3] = static_cast<unsigned char>(packet.size() & 0xffU);
}

}  // namespace

RadiusClient::RadiusClient(std::string secret)
    : secret_(std::move(secret)),
      md5_(EVP_MD_fetch(nullptr, "MD5", nullptr)),
      md5_context_(EVP_MD_CTX_new()),
      hmac_(EVP_MAC_fetch(nullptr, "HMAC", nullptr)),
      hmac_context_(hmac_ ? EVP_MAC_CTX_new(hmac_.get()) : nullptr) {
  must(md5_ && md5_context_ && hmac_context_, "fetching MD5 and HMAC");
  std::string digest = "SHA1";
  const std::array<OSSL_PARAM, 2> params{OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest.data(), 0),
                                         OSSL_PARAM_construct_end()};
  must(EVP_MAC_CTX_set_params(hmac_context_.get(), params.data()) == 1, "choosing SHA-1");
}

Authenticator RadiusClient::md5(std::initializer_list<Bytes> parts) const {
  Authenticator digest{};
  must(EVP_DigestInit_ex2(md5_context_.get(), md5_.get(), nullptr) == 1, "MD5");
  for (const Bytes part : parts) must(EVP_DigestUpdate(md5_context_.get(), part.data(), part.size()) == 1, "MD5");
  must(EVP_DigestFinal_ex(md5_context_.get(), digest.data(), nullptr) == 1, "MD5");
  return digest;
}

std::string RadiusClient::hotp_code(std::string_view key, std::uint64_t counter) const {
  const Bytes key_bytes = bytes_of(key);
  const auto message = big_endian(counter);
  std::array<unsigned char, kMacSize> mac{};
  std::size_t size = 0;
  must(EVP_MAC_init(hmac_context_.get(), key_bytes.data(), key_bytes.size(), nullptr) == 1, "HMAC");
  must(EVP_MAC_update(hmac_context_.get(), message.data(), message.size()) == 1, "HMAC");
  must(EVP_MAC_final(hmac_context_.get(), mac.data(), &size, mac.size()) == 1 && size == kMacSize, "HMAC");
  return fmt::format("{:06}", truncate(mac) % 1'000'000);
}

// RFC 2865 section 5.2: each block of 16 bytes is hidden by MD5(secret, previous block), the request authenticator
// standing before the first.
void RadiusClient::append_password(std::vector<unsigned char>& packet, std::string_view password) const {
  const std::size_t padded =
      std::max<std::size_t>(1, (password.size() + kAuthenticatorSize - 1) / kAuthenticatorSize) * kAuthenticatorSize;
  packet.push_back(kUserPassword);
  packet.push_back(static_cast<unsigned char>(padded + 2));

  Authenticator previous{};
  std::copy_n(packet.begin() + 4, kAuthenticatorSize, previous.begin());
  for (std::size_t start = 0; start < padded; start += kAuthenticatorSize) {
    previous = md5({bytes_of(secret_), previous});
    for (std::size_t i = 0; i < kAuthenticatorSize && start + i < password.size(); ++i) {
      previous[i] = static_cast<unsigned char>(previous[i] ^ static_cast<unsigned char>(password[start + i]));
    }
    packet.insert(packet.end(), previous.begin(), previous.end());
  }
}

std::vector<unsigned char> RadiusClient::access_request(std::uint8_t identifier, const Authenticator& authenticator,
                                                        std::string_view name, std::string_view password) const {
  std::vector<unsigned char> packet;
  packet.reserve(kLongestPacket);
  for (const unsigned char byte : {kAccessRequest, identifier, kNoLengthYet, kNoLengthYet}) packet.push_back(byte);
  packet.insert(packet.end(), authenticator.begin(), authenticator.end());
  packet.push_back(kUserName);
  packet.push_back(static_cast<unsigned char>(name.size() + 2));
  packet.insert(packet.end(), name.begin(), name.end());
  append_password(packet, password);
  set_length_field(packet);
  return packet;
}

Verdict RadiusClient::judge(Bytes answer, std::uint8_t identifier, const Authenticator& authenticator) const {
  if (answer.size() < kHeaderSize || length_field(answer) != answer.size() || answer[1] != identifier) {
    return Verdict::kNotOurs;
  }
  const Authenticator expected = md5({answer.first(4), authenticator, answer.subspan(kHeaderSize), bytes_of(secret_)});
  if (!std::ranges::equal(expected, answer.subspan(4, kAuthenticatorSize))) return Verdict::kBadSignature;
  if (answer[0] == kAccessAccept) return Verdict::kAccept;
  return answer[0] == kAccessReject ? Verdict::kReject : Verdict::kOther;
}

}  // namespace zelvan::bench
