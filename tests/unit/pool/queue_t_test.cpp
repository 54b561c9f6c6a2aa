#include "pool/queue_t.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <limits>
#include <type_traits>
#include <vector>

#include "unit/pool/faults.h"

using zelvan::test::faults;

static_assert(std::has_virtual_destructor_v<queue_t>);

TEST(Queue, AddWithoutMemoryIsRefusedAndChangesNothing) {
  queue_t queue;
  int first = 1;
  ASSERT_EQ(queue.queue_add(&first), 1);
  faults.allocate.arm(ENOMEM);
  EXPECT_EQ(queue.queue_add(&first), 0);
  EXPECT_EQ(queue.head, queue.tail);
  EXPECT_EQ(queue.count, 1);
  EXPECT_EQ(queue.queue_pop(), &first);
  EXPECT_EQ(queue.queue_pop(), nullptr);
}

TEST(Queue, NewQueueIsEmpty) {
  queue_t queue;
  EXPECT_EQ(queue.head, nullptr);
  EXPECT_EQ(queue.tail, nullptr);
  EXPECT_EQ(queue.count, 0);
  EXPECT_EQ(queue.queue_pop(), nullptr);
}

TEST(Queue, ItemsComeOutInTheOrderTheyWentIn) {
  queue_t queue;
  std::vector<int> items(1000);
  for (auto& item : items) ASSERT_EQ(queue.queue_add(&item), 1);
  for (auto& item : items) ASSERT_EQ(queue.queue_pop(), &item);
  EXPECT_EQ(queue.queue_pop(), nullptr);
}

TEST(Queue, EmptiedQueueTakesItemsAgain) {
  queue_t queue;
  int item = 0;
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(queue.queue_add(&item), 1);
    EXPECT_EQ(queue.queue_pop(), &item);
    EXPECT_EQ(queue.head, nullptr);
    EXPECT_EQ(queue.tail, nullptr);
  }
}

TEST(Queue, NullItemLooksLikeAnEmptyQueueButIsRemoved) {
  queue_t queue;
  int item = 0;
  ASSERT_EQ(queue.queue_add(nullptr), 1);
  ASSERT_EQ(queue.queue_add(&item), 1);
  EXPECT_EQ(queue.queue_pop(), nullptr);
  EXPECT_EQ(queue.queue_pop(), &item);
}

TEST(Queue, CountStaysAfterPops) {
  queue_t queue;
  int item = 0;
  for (int i = 0; i < 3; ++i) ASSERT_EQ(queue.queue_add(&item), 1);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(queue.queue_pop(), &item);
  EXPECT_EQ(queue.head, nullptr);
  EXPECT_EQ(queue.count, 3);
}

TEST(Queue, AddToAnEmptyQueueStartsTheCountAtOne) {
  queue_t queue;
  int item = 0;
  for (int i = 0; i < 3; ++i) ASSERT_EQ(queue.queue_add(&item), 1);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(queue.queue_pop(), &item);
  ASSERT_EQ(queue.queue_add(&item), 1);
  EXPECT_EQ(queue.count, 1);
  EXPECT_EQ(queue.queue_pop(), &item);
}

TEST(Queue, CountWrapsInsteadOfOverflowing) {
  queue_t queue;
  int item = 0;
  ASSERT_EQ(queue.queue_add(&item), 1);
  queue.count = std::numeric_limits<std::int32_t>::max();
  ASSERT_EQ(queue.queue_add(&item), 1);
  EXPECT_EQ(queue.count, std::numeric_limits<std::int32_t>::min());
  EXPECT_EQ(queue.queue_pop(), &item);
  EXPECT_EQ(queue.queue_pop(), &item);
}

TEST(Queue, EntryRemembersWhenItWasQueued) {
  queue_t queue;
  int item = 0;
  timeval before{};
  timeval after{};
  ASSERT_EQ(gettimeofday(&before, nullptr), 0);
  ASSERT_EQ(queue.queue_add(&item), 1);
  ASSERT_EQ(gettimeofday(&after, nullptr), 0);
  const timeval queued = queue.head->queued_time;
  EXPECT_FALSE(timercmp(&queued, &before, <));
  EXPECT_FALSE(timercmp(&queued, &after, >));
  EXPECT_EQ(queue.queue_pop(), &item);
}

TEST(Queue, DestructorForgetsTheEntriesWithoutFreeingThem) {
  int item = 0;
  queue_t::node* entry = nullptr;
  {
    queue_t queue;
    ASSERT_EQ(queue.queue_add(&item), 1);
    entry = queue.head;
  }
  EXPECT_EQ(entry->data, &item);  // a freed node would be reported by the address sanitizer
  std::free(entry);
}

TEST(Queue, FieldsStandInTheirOrder) {
  const queue_t queue;
  const std::less<const void*> before;
  EXPECT_TRUE(before(&queue.head, &queue.tail));
  EXPECT_TRUE(before(&queue.tail, &queue.count));
}
