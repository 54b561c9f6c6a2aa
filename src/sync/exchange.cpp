#include "sync/exchange.h"

#include "base/clock.h"
#include "config/ConfigFile.h"
#include "db/account_lock.h"
#include "sync/verification.h"

namespace zelvan {
namespace {

// Sends what `result` says; every failure looks the same to the client.
void build_reply(sync_result result, SyncToken& token, CSynpkg& reply) {
  switch (result) {
    case SYNC_ACCEPTED:
      token.clock = static_cast<std::uint32_t>(now_seconds());
      return build_sync_acceptance(reply, token);
    case SYNC_CHALLENGED:
      return build_sync_challenge(reply, static_cast<std::uint32_t>(token.low_counter));
    default:
      return build_sync_refusal(reply);
  }
}

}  // namespace

bool find_shared_secret(const char* address, std::span<char, kSyncSecretLimit + 1> secret) {
  secret[0] = '\0';
  for (const char* const key : {address, kShareCatchAllKey}) {
    // A secret that is too long leaves the text empty.
    (void)configfile.getvalstr(kShareSection, key, secret.data(), kShareSyncLimit, "");
    if (secret[0] != '\0') return true;
  }
  return false;
}

sync_result synchronise(CQENTDatabase& database, const SyncRequest& request, SyncAccount& account) {
  const AccountLock lock(request.user_name.data());
  const sync_result loaded = load_account(database, request.user_name.data(), account);
  if (loaded != SYNC_ACCEPTED) return loaded;
  return verify(database, account, request.password.data());
}

bool answer_datagram(CQENTDatabase& database, const char* address, Bytes datagram, CSynpkg& reply) {
  SyncAccount account;
  // Deliberate: a sender without a secret is refused before the datagram is looked at, so even noise is answered.
  if (!find_shared_secret(address, account.token.secret)) {
    build_reply(SYNC_NO_SECRET, account.token, reply);
    return true;
  }
  const auto request = parse_sync_request(datagram);
  if (!request) return false;
  build_reply(synchronise(database, *request, account), account.token, reply);
  return true;
}

}  // namespace zelvan
