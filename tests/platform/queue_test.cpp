// The stand-in's bounded FIFO queues embedded in their owner.
#include <gtest/gtest.h>
#include <kro/queue.h>

namespace {

struct Node {
  kro_queue_link_t link;
  int value;
};

// FIFO within the bound; unqueue from each position keeps a proper queue (appending after a
// removed tail lands behind the new tail, emptying resets head and tail).
TEST(KroQueue, FifoBoundAndUnqueueEachPosition) {
  for (int victim = 0; victim < 3; ++victim) {
    kro_queue_t q{};
    Node n[4] = {{{}, 0}, {{}, 1}, {{}, 2}, {{}, 3}};
    EXPECT_EQ(kro_queue_enqueue(&q, &n[3]), 0);  // never initialised: bound 0
    kro_queue_init(&q, 3);
    for (Node &e : n) {
      EXPECT_EQ(kro_queue_enqueue(&q, &e), e.value < 3 ? 1 : 0) << victim;  // the bound
    }
    EXPECT_EQ(kro_queue_unqueue(&q, &n[3]) + kro_queue_unqueue(&q, &n[victim]), 1);
    ASSERT_EQ(kro_queue_enqueue(&q, &n[3]), 1);
    for (int v = 0; v < 4; ++v) {
      if (v != victim) {
        EXPECT_EQ(kro_queue_dequeue(&q), &n[v]) << victim;
      }
    }
    EXPECT_TRUE(kro_queue_empty(&q) && kro_queue_dequeue(&q) == nullptr);
    ASSERT_EQ(kro_queue_enqueue(&q, &n[0]), 1);
    EXPECT_EQ(kro_queue_peek_head(&q), &n[0]);
  }
}

}  // namespace
