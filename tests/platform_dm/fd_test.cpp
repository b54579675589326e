// Descriptor registrations: one callback per readiness, re-arming, withdrawal, errors.
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "dm_test_util.h"

using dm_test::Dm;
using dm_test::Msg;

namespace {

struct Pipe {
  int fd[2] = {-1, -1};
  Pipe() { EXPECT_EQ(pipe(fd), 0); }
  ~Pipe() {
    close(fd[0]);
    close(fd[1]);
  }
  void put(const char *s) { EXPECT_EQ(write(fd[1], s, 1), 1); }
};

// Counts callbacks; optionally reads one byte and re-arms, or drops another descriptor.
struct Reader {
  unsigned calls = 0;
  uint32_t selector = 0;
  bool rearm = false;
  int victim = -1;
  static void handler(kro_dm_t *dm, int fd, uint32_t selector, void *cookie) {
    auto *r = static_cast<Reader *>(cookie);
    ++r->calls;
    r->selector = selector;
    if (r->victim >= 0) {
      EXPECT_EQ(kro_dm_fd_deregister(dm, r->victim), 0);
    }
    if (r->rearm) {
      char c;
      EXPECT_EQ(read(fd, &c, 1), 1);
      EXPECT_EQ(kro_dm_fd_register(dm, fd, KRO_DM_FD_READABLE, handler, cookie), 0);
    }
  }
};

void step(kro_dm_t *dm) {
  ASSERT_EQ(kro_dm_wait(dm), 0);
  ASSERT_EQ(kro_dm_dispatch(dm), 0);
}

TEST(DmFd, OneCallbackPerReadinessUntilRegisteredAgain) {
  Dm d;
  Pipe p;
  Reader r;
  ASSERT_EQ(kro_dm_fd_register(d.dm, p.fd[0], KRO_DM_FD_READABLE, Reader::handler, &r), 0);
  p.put("x");
  step(d.dm);
  EXPECT_EQ(r.calls, 1u);
  EXPECT_EQ(r.selector, KRO_DM_FD_READABLE);
  kro_dm_wake(d.dm);  // the byte is still unread, but the registration was used up
  step(d.dm);
  EXPECT_EQ(r.calls, 1u);
  ASSERT_EQ(kro_dm_fd_register(d.dm, p.fd[0], KRO_DM_FD_READABLE, Reader::handler, &r), 0);
  step(d.dm);
  EXPECT_EQ(r.calls, 2u);
  EXPECT_EQ(kro_dm_fd_deregister(d.dm, p.fd[0]), 0);
}

TEST(DmFd, RearmFromHandlerSeesEveryByte) {
  Dm d;
  Pipe p;
  Reader r;
  r.rearm = true;
  ASSERT_EQ(kro_dm_fd_register(d.dm, p.fd[0], KRO_DM_FD_READABLE, Reader::handler, &r), 0);
  p.put("a");
  p.put("b");
  p.put("c");
  for (unsigned n = 1; n <= 3; ++n) {
    step(d.dm);
    EXPECT_EQ(r.calls, n);
  }
  EXPECT_EQ(dm_test::stats(d.dm).fd_runs, 3u);
}  // destroying the manager drops the armed registration

TEST(DmFd, WritableSelector) {
  Dm d;
  Pipe p;
  Reader r;
  ASSERT_EQ(kro_dm_fd_register(d.dm, p.fd[1], KRO_DM_FD_WRITABLE, Reader::handler, &r), 0);
  step(d.dm);
  EXPECT_EQ(r.calls, 1u);
  EXPECT_EQ(r.selector, KRO_DM_FD_WRITABLE);
}

TEST(DmFd, DeregisterDropsReadinessAlreadyCollected) {
  Dm d;
  Pipe a;
  Pipe b;
  Pipe c;
  Reader gone;
  Reader kept;
  ASSERT_EQ(kro_dm_fd_register(d.dm, a.fd[0], KRO_DM_FD_READABLE, Reader::handler, &gone), 0);
  ASSERT_EQ(kro_dm_fd_register(d.dm, b.fd[0], KRO_DM_FD_READABLE, Reader::handler, &gone), 0);
  ASSERT_EQ(kro_dm_fd_register(d.dm, c.fd[0], KRO_DM_FD_READABLE, Reader::handler, &kept), 0);
  a.put("x");
  b.put("x");
  c.put("x");
  ASSERT_EQ(kro_dm_wait(d.dm), 0);  // all three collected
  EXPECT_EQ(kro_dm_fd_deregister_cookie(d.dm, &gone), 0);
  EXPECT_EQ(kro_dm_fd_deregister_cookie(d.dm, &gone), KRO_DM_ENOENT);
  ASSERT_EQ(kro_dm_dispatch(d.dm), 0);
  EXPECT_EQ(gone.calls, 0u);
  EXPECT_EQ(kept.calls, 1u);
  EXPECT_EQ(kro_dm_fd_deregister(d.dm, c.fd[0]), 0);
  EXPECT_EQ(kro_dm_fd_deregister(d.dm, c.fd[0]), KRO_DM_ENOENT);
}

TEST(DmFd, HandlerDropsOtherReadyDescriptor) {
  Dm d;
  Pipe a;
  Pipe b;
  Reader ra;
  Reader rb;
  ra.victim = b.fd[0];
  rb.victim = a.fd[0];
  ASSERT_EQ(kro_dm_fd_register(d.dm, a.fd[0], KRO_DM_FD_READABLE, Reader::handler, &ra), 0);
  ASSERT_EQ(kro_dm_fd_register(d.dm, b.fd[0], KRO_DM_FD_READABLE, Reader::handler, &rb), 0);
  a.put("x");
  b.put("x");
  ASSERT_EQ(kro_dm_wait(d.dm), 0);
  ASSERT_EQ(kro_dm_dispatch(d.dm), 0);
  EXPECT_EQ(ra.calls + rb.calls, 1u);  // whichever ran first dropped the other
}

// A queue whose handler always leaves a message keeps the manager busy; ready descriptors are
// still served because a busy wait polls them.
void requeue(kro_dm_watched_queue_t *q, void *) {
  void *m = nullptr;
  ASSERT_EQ(kro_dm_watched_queue_dequeue(q, &m), 0);
  ASSERT_EQ(kro_dm_watched_queue_enqueue(q, m), 0);
}

TEST(DmFd, BusyQueuesDoNotStarveDescriptors) {
  Dm d;
  kro_dm_watched_queue_t *q = nullptr;
  ASSERT_EQ(kro_dm_watched_queue_create("busy", 1, nullptr, &q), 0);
  ASSERT_EQ(kro_dm_watched_queue_register(d.dm, q, requeue, nullptr), 0);
  Msg m{};
  ASSERT_EQ(kro_dm_watched_queue_enqueue(q, &m), 0);
  Pipe p;
  Reader r;
  ASSERT_EQ(kro_dm_fd_register(d.dm, p.fd[0], KRO_DM_FD_READABLE, Reader::handler, &r), 0);
  step(d.dm);
  p.put("x");
  step(d.dm);
  EXPECT_EQ(r.calls, 1u);
  EXPECT_GE(dm_test::stats(d.dm).polls, 1u);
  ASSERT_EQ(kro_dm_watched_queue_deregister(d.dm, q), 0);
  void *out = nullptr;
  ASSERT_EQ(kro_dm_watched_queue_dequeue(q, &out), 0);
  ASSERT_EQ(kro_dm_watched_queue_destroy(&q), 0);
}

TEST(DmFd, RefusedRegistrations) {
  Dm d;
  Reader r;
  FILE *file = tmpfile();
  ASSERT_NE(file, nullptr);
  int closed = dup(0);
  close(closed);
  struct Row {
    const char *what;
    int fd;
    uint32_t selector;
    kro_dm_fd_fn handler;
    int rc;
  } rows[] = {
      {"negative descriptor", -1, KRO_DM_FD_READABLE, Reader::handler, KRO_DM_EINVAL},
      {"no selector", 0, 0, Reader::handler, KRO_DM_EINVAL},
      {"unknown selector bit", 0, 4, Reader::handler, KRO_DM_EINVAL},
      {"no handler", 0, KRO_DM_FD_READABLE, nullptr, KRO_DM_EINVAL},
      {"regular file", fileno(file), KRO_DM_FD_READABLE, Reader::handler, EPERM},
      {"closed descriptor", closed, KRO_DM_FD_READABLE, Reader::handler, EBADF},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.what);
    EXPECT_EQ(kro_dm_fd_register(d.dm, row.fd, row.selector, row.handler, &r), row.rc);
    EXPECT_EQ(kro_dm_fd_deregister(d.dm, row.fd), KRO_DM_ENOENT);  // nothing registered
  }
  EXPECT_EQ(kro_dm_fd_register(nullptr, 0, 1, Reader::handler, &r), KRO_DM_EINVAL);
  EXPECT_EQ(kro_dm_fd_deregister(nullptr, 0), KRO_DM_EINVAL);
  EXPECT_EQ(kro_dm_fd_deregister_cookie(nullptr, &r), KRO_DM_EINVAL);
  fclose(file);
}

TEST(DmFd, FirstRegistrationFailsCleanlyRearmDoesNotAllocate) {
  Dm d;
  Pipe p;
  Reader r;
  auto reg = [&] {
    return kro_dm_fd_register(d.dm, p.fd[0], KRO_DM_FD_READABLE, Reader::handler, &r);
  };
  EXPECT_EQ(dm_test::sweep(reg, [&] { EXPECT_EQ(kro_dm_fd_deregister(d.dm, p.fd[0]), 0); }),
            1u);  // the record
  ASSERT_EQ(reg(), 0);
  EXPECT_EQ(dm_test::sweep(reg, [] {}), 0u);  // re-arming allocates nothing
}

}  // namespace
