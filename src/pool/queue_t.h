// A first-in first-out list of untyped pointers: the work queue of the pool, and on its own the reply queue.
//
// Threads  None: every caller holds a lock around each call.
// Memory   One heap node an entry.  The items belong to the callers; the queue never touches what they point to.
#pragma once

#include <sys/time.h>

#include <cstdint>

class queue_t {
 public:
  // One entry, from malloc(3) and given back to free(3).
  struct node {
    node* next;           // the next younger entry; null in the newest
    void* data;           // the item
    timeval queued_time;  // wall clock at the add; for a debugger, nothing reads it
  };

  queue_t() = default;

  // Forgets the entries.  Deliberate: neither the nodes nor their items are freed; whoever wants them pops them first.
  virtual ~queue_t();

  queue_t(const queue_t&) = delete;
  queue_t& operator=(const queue_t&) = delete;

  // Appends `data`, which should not be null: queue_pop could not tell it from an empty queue.
  // Returns 1, or 0 (the queue is as before) when there is no memory for a node.
  int queue_add(void* data);

  // Removes the oldest item and returns it; null when the queue is empty.
  void* queue_pop();

  node* head = nullptr;    // oldest entry; null when empty
  node* tail = nullptr;    // newest entry; null when empty
  std::int32_t count = 0;  // entries added since the queue was last empty; a pop never lowers it
};
