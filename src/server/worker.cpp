#include "server/worker.h"

#include <algorithm>

#include "auth/AnalyseAuthData.h"
#include "auth/work_item.h"
#include "base/clock.h"
#include "base/locks.h"
#include "config/settings.h"
#include "server/duplicate_filter.h"
#include "server/sender.h"

namespace {

bool is_duplicate(const zelvan::WorkItemView& item) {
  _pack_info record{};
  record.port = item.port_key();
  std::ranges::copy(item.address(), record.address);
  record.identifier = item.identifier();
  record.time = static_cast<std::int32_t>(zelvan::now_seconds());

  const zelvan::ScopedLock lock(pack_mutex);
  return check(pack_list, record, ng_packetchecktime) == CHECK_DUPLICATE;
}

void queue_reply(zelvan::WorkItem item) {
  const zelvan::ScopedLock lock(sendqueue_mutex);
  // Without memory for a queue node the item is freed here, and the client gets no reply.
  if (send_queue.queue_add(item.get()) != 0) (void)item.release();
}

}  // namespace

void work_deal(void* item) {
  zelvan::WorkItem owned(static_cast<unsigned char*>(item));
  if (is_duplicate(zelvan::WorkItemView(owned.get()))) return;

  CAnalyseAuthData analyser;
  if (analyser.Resolve(owned.get()) != RESOLVE_NO_REPLY) queue_reply(std::move(owned));
}
