// The stand-in's bounded FIFO queues embedded in their owner.
#include <gtest/gtest.h>
#include <kro/queue.h>

#include <vector>

namespace {

struct Node {
  kro_queue_link_t link;
  int value;
};

std::vector<int> contents(const kro_queue_t &q) {
  std::vector<int> out;
  for (void *e = kro_queue_peek_head(&q); e != nullptr; e = kro_queue_get_next(e)) {
    out.push_back(static_cast<Node *>(e)->value);
  }
  return out;
}

TEST(KroQueue, AllZeroQueueIsEmptyAndRefusesEnqueues) {
  kro_queue_t q{};
  Node a{{}, 1};
  EXPECT_NE(kro_queue_empty(&q), 0);
  EXPECT_EQ(kro_queue_size(&q), 0u);
  EXPECT_EQ(kro_queue_dequeue(&q), nullptr);
  EXPECT_EQ(kro_queue_peek_head(&q), nullptr);
  EXPECT_EQ(kro_queue_unqueue(&q, &a), 0);
  EXPECT_EQ(kro_queue_enqueue(&q, &a), 0);  // bound 0
  EXPECT_NE(kro_queue_empty(&q), 0);
}

TEST(KroQueue, FifoOrderWithinTheBound) {
  kro_queue_t q;
  kro_queue_init(&q, 3);
  Node n[4] = {{{}, 1}, {{}, 2}, {{}, 3}, {{}, 4}};
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(kro_queue_enqueue(&q, &n[i]), 1);
  }
  EXPECT_EQ(kro_queue_enqueue(&q, &n[3]), 0);
  EXPECT_EQ(kro_queue_size(&q), 3u);
  EXPECT_EQ(contents(q), (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(kro_queue_dequeue(&q), &n[0]);
  ASSERT_EQ(kro_queue_enqueue(&q, &n[3]), 1);  // room again
  EXPECT_EQ(contents(q), (std::vector<int>{2, 3, 4}));
  EXPECT_EQ(kro_queue_dequeue(&q), &n[1]);
  EXPECT_EQ(kro_queue_dequeue(&q), &n[2]);
  EXPECT_EQ(kro_queue_dequeue(&q), &n[3]);
  EXPECT_EQ(kro_queue_dequeue(&q), nullptr);
  EXPECT_NE(kro_queue_empty(&q), 0);
  ASSERT_EQ(kro_queue_enqueue(&q, &n[0]), 1);  // head and tail reset properly
  EXPECT_EQ(contents(q), (std::vector<int>{1}));
}

// Unqueue from each position; the queue stays a proper queue (appending after a removed tail
// lands behind the new tail).
TEST(KroQueue, UnqueueHeadMiddleTail) {
  struct Row {
    const char *label;
    int victim;
    std::vector<int> after;
  } rows[] = {
      {"head", 0, {2, 3, 9}},
      {"middle", 1, {1, 3, 9}},
      {"tail", 2, {1, 2, 9}},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.label);
    kro_queue_t q;
    kro_queue_init(&q, 8);
    Node n[3] = {{{}, 1}, {{}, 2}, {{}, 3}};
    Node extra{{}, 9}, stranger{{}, 7};
    for (Node &e : n) {
      ASSERT_EQ(kro_queue_enqueue(&q, &e), 1);
    }
    EXPECT_EQ(kro_queue_unqueue(&q, &stranger), 0);
    EXPECT_EQ(kro_queue_unqueue(&q, &n[row.victim]), 1);
    EXPECT_EQ(kro_queue_unqueue(&q, &n[row.victim]), 0);
    EXPECT_EQ(kro_queue_size(&q), 2u);
    ASSERT_EQ(kro_queue_enqueue(&q, &extra), 1);
    EXPECT_EQ(contents(q), row.after);
    EXPECT_EQ(kro_queue_size(&q), 3u);
  }
}

TEST(KroQueue, NullArguments) {
  Node a{{}, 1};
  kro_queue_t q;
  kro_queue_init(&q, 2);
  kro_queue_init(nullptr, 2);
  EXPECT_EQ(kro_queue_enqueue(nullptr, &a), 0);
  EXPECT_EQ(kro_queue_enqueue(&q, nullptr), 0);
  EXPECT_EQ(kro_queue_dequeue(nullptr), nullptr);
  EXPECT_EQ(kro_queue_peek_head(nullptr), nullptr);
  EXPECT_EQ(kro_queue_get_next(nullptr), nullptr);
  EXPECT_EQ(kro_queue_size(nullptr), 0u);
  EXPECT_EQ(kro_queue_unqueue(nullptr, &a), 0);
  EXPECT_EQ(kro_queue_unqueue(&q, nullptr), 0);
  EXPECT_NE(kro_queue_empty(nullptr), 0);
  EXPECT_EQ(kro_queue_size(&q), 0u);
}

}  // namespace
