// Descriptor registrations: one callback per readiness, re-arming, withdrawal, busy queues.
#include <unistd.h>

#include "dm_test_util.h"

namespace {

// Counts callbacks; with `rearm`, reads one byte and registers again.
struct Reader {
  unsigned calls = 0;
  bool rearm = false;
  static void handler(kro_dm_t *dm, int fd, uint32_t selector, void *cookie) {
    auto *r = static_cast<Reader *>(cookie);
    ++r->calls;
    EXPECT_EQ(selector, KRO_DM_FD_READABLE);
    char c;
    EXPECT_EQ(r->rearm && read(fd, &c, 1) == 1 ? r->arm(dm, fd) : 0, 0);
  }
  int arm(kro_dm_t *dm, int fd, uint32_t sel = KRO_DM_FD_READABLE) {
    return kro_dm_fd_register(dm, fd, sel, handler, this);
  }
};

// A queue whose handler always leaves a message keeps the manager busy.
void requeue(kro_dm_watched_queue_t *q, void *) {
  void *m = nullptr;
  ASSERT_EQ(kro_dm_watched_queue_dequeue(q, &m) + kro_dm_watched_queue_enqueue(q, m), 0);
}

// One callback per readiness until registered again (also from the handler). Readiness already
// collected by the wait is dropped with the registration (by cookie here). A busy queue keeps
// the manager from sleeping, but the busy wait still polls the descriptors.
TEST(DmFd, OneCallbackPerReadinessWithdrawalAndBusyQueues) {
  dm_test::Dm d;
  int p[6];
  ASSERT_EQ(pipe(p) + pipe(p + 2) + pipe(p + 4), 0);
  Reader r, gone;
  ASSERT_EQ(r.arm(d.dm, p[0]), 0);
  ASSERT_EQ(write(p[1], "xxx", 3), 3);
  d.step();
  kro_dm_wake(d.dm);  // the bytes are still unread, but the registrations were used up
  d.step();
  EXPECT_EQ(r.calls, 1u);
  r.rearm = true;  // from now on the handler consumes a byte and re-arms
  ASSERT_EQ(r.arm(d.dm, p[0]), 0);
  for (unsigned n = 2; n <= 4; ++n) {
    d.step();
    EXPECT_EQ(r.calls, n);
  }
  kro_dm_watched_queue_t *q = dm_test::make_queue(8, [](void *, void *) {});
  dm_test::Msg m;
  ASSERT_EQ(kro_dm_watched_queue_register(d.dm, q, requeue, nullptr), 0);
  ASSERT_EQ(kro_dm_watched_queue_enqueue(q, &m), 0);
  ASSERT_EQ(gone.arm(d.dm, p[2]) + gone.arm(d.dm, p[4]), 0);
  d.step();
  ASSERT_EQ(write(p[1], "x", 1) + write(p[3], "x", 1) + write(p[5], "x", 1), 3);
  ASSERT_EQ(kro_dm_wait(d.dm), 0);  // all three collected
  EXPECT_EQ(kro_dm_fd_deregister_cookie(d.dm, &gone), 0);
  ASSERT_EQ(kro_dm_dispatch(d.dm), 0);
  EXPECT_EQ(gone.calls, 0u);
  EXPECT_EQ(r.calls, 5u);
  EXPECT_GE(d.stats().polls, 2u);
  ASSERT_EQ(kro_dm_watched_queue_deregister(d.dm, q) + kro_dm_watched_queue_destroy(&q), 0);
  EXPECT_EQ(kro_dm_destroy(&d.dm), 0);  // drops the registration left
  for (int fd : p) {
    close(fd);
  }
}

}  // namespace
