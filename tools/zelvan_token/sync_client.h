// Asks the synchronisation service over UDP.
//
// An answer may get lost, and the server may have used up the password before: then the repeated request is refused
// though the password was right.  So the answer says how often the request was sent.
#pragma once

#include <string>

#include "sync/sync_packet.h"
#include "zelvan_token/secret.h"
#include "zelvan_token/server_address.h"

namespace zelvan::token {

struct Patience {
  int tries = 3;     // datagrams sent before giving up
  int seconds = 10;  // for each answer; the server serves about two requests a second, one after the other
};

struct ServerAnswer {
  SyncReply reply;
  int tries = 1;  // requests sent until it came
};

class SyncClient {
 public:
  // Finds the server and makes a socket that hears nobody else.
  // Throws Failure: kNoAnswer when the name cannot be resolved or there is no way to the address.
  explicit SyncClient(const ServerAddress& server);
  ~SyncClient();
  SyncClient(const SyncClient&) = delete;
  SyncClient& operator=(const SyncClient&) = delete;

  // Sends a request and waits for the answer.
  // Throws Failure: kUsage when a text is longer than 30 bytes or holds a NUL, kNoAnswer when none came or nobody
  // listens there, kMalformed when the answer cannot be read.
  ServerAnswer ask(const std::string& user, const Secret& password, const Patience& patience);

 private:
  void send(Bytes request) const;
  // Returns false when `seconds` passed without a datagram.
  bool wait_for_datagram(int seconds) const;
  SyncReply receive() const;

  std::string name_;  // HOST:PORT, for messages
  int socket_ = -1;
};

}  // namespace zelvan::token
