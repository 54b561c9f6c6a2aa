// The one thread that sends replies.
//
// Threads  Workers put work items on send_queue; the sender takes them off.  The RADIUS socket is shared with the
//          receive loop.
#pragma once

#include <pthread.h>

#include "pool/queue_t.h"

extern queue_t send_queue;               // work items that hold a reply; owned by the queue
extern pthread_mutex_t sendqueue_mutex;  // guards send_queue; never held while sending

// Thread body: sends the queued replies to the port and address that the requests came from, each with up to three
// retries 100 ms apart, until nexit is set.  What is queued by then is neither sent nor freed.
// The argument is ignored.  Returns null.
void* senddata(void* unused);
