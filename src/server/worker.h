// What a pool worker does with a work item.
#pragma once

// Handles one request: drops a duplicate, otherwise resolves the request and queues the reply for the sender.
//   item  a work item (auth/work_item.h); the worker takes ownership and frees it, or hands it on with the reply
// Any number of workers may run it at once.
void work_deal(void* item);
