// The RADIUS side of a request: who asks, what was sent, and the reply that answers it.
#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "auth/AnalyseAuthData.h"
#include "base/text.h"
#include "config/ConfigFile.h"
#include "config/settings.h"

namespace {

constexpr std::string_view kUnknownUser = "USER NOT EXIST";

}  // namespace

std::string_view CAnalyseAuthData::secret() const {
  return {shared_secret, static_cast<std::size_t>(shared_secret_length)};
}

int CAnalyseAuthData::GetShareSecret() {
  // Cannot fail: 16 bytes hold every dotted address.
  (void)inet_ntop(AF_INET, client_address, client_text, sizeof client_text);

  static_assert(sizeof shared_secret == zelvan::kShareLimit + 1);
  for (const char* key : {static_cast<const char*>(client_text), zelvan::kShareCatchAllKey}) {
    if (configfile.getvalstr(zelvan::kShareSection, key, shared_secret, zelvan::kShareLimit, nullptr) == 0) {
      shared_secret_length = static_cast<int>(std::strlen(shared_secret));
      return 1;
    }
  }
  return 0;
}

void CAnalyseAuthData::keep_attributes(const zelvan::RequestAttributes& request) {
  // parse_attributes lets no name pass that is longer than 19 bytes.
  std::ranges::copy(request.user_name, user_name);
  user_name[request.user_name.size()] = '\0';
  user_name_length = static_cast<int>(request.user_name.size());
  password_seen = request.password_seen ? 1 : 0;
  zelvan::reveal_user_password(digest_engine, request.user_password, secret(),
                               zelvan::Authenticator(request_authenticator), std::span(password_field));
}

int CAnalyseAuthData::build_answer(unsigned char* reply, int& replyLength, const zelvan::ReplyPlan& plan) {
  const std::span<unsigned char, zelvan::kReplyCapacity> buffer(reply, zelvan::kReplyCapacity);
  const std::size_t length =
      zelvan::build_reply(digest_engine, buffer, plan, zelvan::Authenticator(request_authenticator), secret());
  if (length == 0) return AUTHDATA_NO_REPLY;
  replyLength = static_cast<int>(length);
  return plan.code;
}

int CAnalyseAuthData::authdatacheck(unsigned char* request, unsigned char* reply, int& replyLength) {
  using zelvan::ReplyDigest;
  if (request == nullptr || reply == nullptr) return AUTHDATA_NO_REPLY;

  packet_code = request[0];
  packet_identifier = request[1];
  packet_length = request[2] * 256 + request[3];
  std::copy_n(request + zelvan::kAuthenticatorOffset, zelvan::kAuthenticatorSize, request_authenticator);

  // The secret comes first: a client without one gets no answer whatever it sent.
  if (GetShareSecret() != 1) return AUTHDATA_NO_SECRET;
  if (packet_code != zelvan::ACCESS_REQUEST) return AUTHDATA_NO_REPLY;

  constexpr int kHeaderSize = zelvan::kRadiusHeaderSize;
  const int verdict = requestcheck(request + kHeaderSize, packet_length - kHeaderSize);
  if (verdict == REQUEST_RIGHT) {
    return build_answer(reply, replyLength, {zelvan::ACCESS_ACCEPT, packet_identifier, {}});
  }
  if (verdict == REQUEST_CHALLENGE) {
    std::array<char, 64> message{};
    if (!issue_challenge() ||
        !zelvan::format_text(message, "Challenge %u , it will timeout in ten minutes.", low_counter)) {
      return AUTHDATA_NO_REPLY;
    }
    return build_answer(reply, replyLength, {zelvan::ACCESS_CHALLENGE, packet_identifier, message.data()});
  }
  if (user_exists == 0) {
    // Deliberate: the digest of this reply does not grow by the 16 bytes of its attribute, so that it covers only the
    // beginning of what a client expects.
    return build_answer(reply, replyLength,
                        {zelvan::ACCESS_REJECT, packet_identifier, kUnknownUser, ReplyDigest::header_span});
  }
  return build_answer(reply, replyLength, {zelvan::ACCESS_REJECT, packet_identifier, {}});
}
