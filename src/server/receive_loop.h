// The RADIUS socket and the loop that reads it.
//
// Threads  servicemain runs on the main thread and starts all others.
#pragma once

// The RADIUS socket.  The receive loop reads from it, the sender sends on it; no lock is needed for that.
extern int socksrv;

// Sets up what the network needs.  Returns 1: on this platform that is nothing.
int sockinit();

// Creates the operation log (when ng_logmode is 1), the worker pool, the socket and the threads, then reads datagrams
// and hands each well-formed one to the pool, until nexit is set; then stops in order: the pool finishes what is
// queued, up to 60 s are left to the mails, the log is written out.
// Returns early, without a word, when the log path is too long or the socket cannot be created or bound.
void servicemain();
