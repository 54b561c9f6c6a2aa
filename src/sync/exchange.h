// One exchange of the synchronisation service, from the datagram to the reply, without sockets.
//
// Threads  Requests for one user name wait for each other and for the RADIUS service (db/account_lock.h).
// Memory   Copies of secrets are wiped before they go.
#pragma once

#include <span>

#include "config/settings.h"
#include "db/QENTDatabase.h"
#include "sync/Synpkg.h"
#include "sync/account.h"
#include "sync/sync_packet.h"

namespace zelvan {

static_assert(kSyncSecretLimit == kShareSyncLimit);

// Looks up the shared secret of a client: its own in the section "share", otherwise that of "0.0.0.0".  A secret of
// more than 24 characters counts as missing.
//   address  dotted IPv4 address, NUL-terminated
//   secret   25 bytes; out: NUL-terminated; empty when there is none
// Returns true when there is one.
[[nodiscard]] bool find_shared_secret(const char* address, std::span<char, kSyncSecretLimit + 1> secret);

// Reads the account of `request`, verifies the password and stores what changes, all under the lock of the account.
//   account  a fresh one
[[nodiscard]] sync_result synchronise(CQENTDatabase& database, const SyncRequest& request, SyncAccount& account);

// Answers a datagram.
//   address   of the sender, dotted IPv4, NUL-terminated
//   datagram  as received, at most 1024 bytes
//   reply     out: the packet to send
// Returns true when there is a reply; false when the datagram is dropped (`reply` is then untouched).
[[nodiscard]] bool answer_datagram(CQENTDatabase& database, const char* address, Bytes datagram, CSynpkg& reply);

}  // namespace zelvan
