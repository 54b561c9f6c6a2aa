// The thread of the synchronisation service: a client that proves possession of its token gets the token.
//
// UDP port 8801 on all local IPv4 addresses; nothing in the settings moves it.  One datagram at a time, with half a
// second between two, so about two requests a second: guessing is slow.
//
// Differs  Nothing is ever logged, not even that the port is taken: the thread then ends and RADIUS goes on.
// Threads  Started once by the receive loop, which does not wait for it at shutdown.
// Memory   The statement object lives as long as the thread and keeps the connection it was made with; after a
//          reconnect the service may refuse every request until the server is restarted.
#pragma once

#include "sync/token_state.h"  // countadd, getcurtime

// Runs the service until the exit flag is set.
//   exit_flag  a std::atomic<int>; not 0 means stop; looked at once a pass, at least every 2.5 s
// Returns null in every case.
void* synsecretinfo(void* exit_flag);

namespace zelvan {

// Lets the service begin nothing any more: to be called when the process is about to end, since nobody waits for the
// thread and what it uses is destroyed then.  Waits for a datagram that is being served, `patience_s` seconds at most.
// Returns true when the service is at rest, for good; false when it is still busy.  Only the first call counts; later
// ones return its result.
[[nodiscard]] bool stop_synchronisation(int patience_s);

}  // namespace zelvan

// Sets up what the network needs.  Returns true: on this platform that is nothing.
bool initnetenv();

// Undoes initnetenv.  Returns true.
bool cleannetenv();

// Closes a descriptor.
// Deliberate: descriptor 0 is never closed.
void closesock(unsigned int fd);
