// Channels over a process's whole life: handlers and closing threads that race the clean-up of
// records and managers, names that go with their last channel, ids that never run out,
// connection events that are never dropped, handles that were never handed out, and messages
// that can always be given back.
//
// Two races are made deterministic by link-time wraps (see CMakeLists.txt): the channel mutex's
// unlock can run a hook on the unlocking thread, and the dispatch manager's wake-up of a
// sleeping owner can be held until the owner has destroyed its manager.
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "lib/itc_test_util.h"
#include "support/fault.h"

// ---- Link-time wraps ------------------------------------------------------------------------

namespace {
// Run once, on this thread, right after its next mutex unlock.
thread_local std::function<void()> *g_after_unlock = nullptr;
// The manager whose owner-wake is to be held, and whether its owner has destroyed it.
std::atomic<kro_dm_t *> g_hold_wake_of{nullptr};
std::atomic<bool> g_owner_destroyed{false};
}  // namespace

extern "C" int __real_pthread_mutex_unlock(pthread_mutex_t *m);
extern "C" int __wrap_pthread_mutex_unlock(pthread_mutex_t *m) {
  const int rc = __real_pthread_mutex_unlock(m);
  if (std::function<void()> *hook = g_after_unlock) {
    g_after_unlock = nullptr;
    (*hook)();
  }
  return rc;
}

// kro_dm_wake_sleeper(kro_dm *), the stand-in's internal wake-up of a sleeping owner.
extern "C" void __real__Z19kro_dm_wake_sleeperP6kro_dm(kro_dm_t *dm);
extern "C" void __wrap__Z19kro_dm_wake_sleeperP6kro_dm(kro_dm_t *dm) {
  if (dm == g_hold_wake_of.load()) {
    g_hold_wake_of = nullptr;
    // Give the owner every chance to destroy the manager before the wake-up goes on; where the
    // owner can't get that far (the arming still holds what it needs), this just times out.
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
    while (!g_owner_destroyed.load() && std::chrono::steady_clock::now() < until) {
      std::this_thread::yield();
    }
  }
  __real__Z19kro_dm_wake_sleeperP6kro_dm(dm);
}

namespace {

using namespace itc_test;  // NOLINT(google-build-using-namespace): the suite's own helpers
using zel_test::fault_live_blocks;

// Opens a server and a client of `name` on `dm`, neither taking anything.
void open_pair(uint32_t *server, uint32_t *client, const char *name, kro_dm_t *dm) {
  ASSERT_EQ(open(server, name, LIB_ITC_SERVER, dm), 0u);
  ASSERT_EQ(open(client, name, LIB_ITC_CLIENT, dm), 0u);
}

void close_all(std::initializer_list<uint32_t *> handles) {
  for (uint32_t *h : handles) {
    EXPECT_EQ(lib_itc_close(h), 0);
  }
}

// The handler of a closed client whose handle a newer client has taken meanwhile, and which
// that newer client's own thread closes and frees right after the handler's lookup: the handler
// must decide from the lookup alone and never read the newer record.
TEST(ItcLifetime, HandlerOfAClosedChannelNeverReadsTheRecordThatTookItsHandle) {
  Dm a, b, d;  // a: server side; b: the old client and the channel whose callback acts; d: new
  Events old_client, new_client;
  uint32_t server = 0, c1 = 0, c2 = 0, x = 0, y = 0;
  ASSERT_EQ(open(&server, "uaf", LIB_ITC_SERVER, a.dm), 0u);
  ASSERT_EQ(open(&c1, "uaf", LIB_ITC_CLIENT, b.dm, record, &old_client), 0u);
  std::function<void()> close_c2 = [&] {
    ASSERT_EQ(lib_itc_close(&c2), 0);
    pump(d.dm);  // c2's clean-up on its own manager: its record is freed here
  };
  Fn on_x = [&](uint32_t h, uint32_t type) {
    if (take_event(h, type).type != LIB_ITC_MSG_DATA) {
      return;
    }
    ASSERT_EQ(lib_itc_close(&c1), 0);  // c1's handler is next in this dispatch step
    ASSERT_EQ(open(&c2, "uaf", LIB_ITC_CLIENT, d.dm, record, &new_client), 0u);
    ASSERT_EQ(c2, (id_of(server) << 16) | 1u);  // the newer client took the freed slot
    g_after_unlock = &close_c2;
  };
  ASSERT_EQ(open(&x, "x", LIB_ITC_SERVER, b.dm, run_fn, &on_x), 0u);
  ASSERT_EQ(open(&y, "x", LIB_ITC_CLIENT, a.dm), 0u);
  pump(a.dm);
  pump(b.dm);
  // x's queue becomes ready before c1's, so x's callback runs first in b's next step.
  ASSERT_EQ(send_text(y, 0, "go"), 0);
  ASSERT_EQ(send_text(server, c1, "to the old client"), 0);
  pump(b.dm);
  EXPECT_EQ(g_after_unlock, nullptr);  // the hook ran
  EXPECT_EQ(c2, 0u);
  // The old client's message went with its queue (it heard of its server only), and nothing
  // reached the newer client, whose clean-up ran before any delivery.
  EXPECT_TRUE(new_client.empty());
  EXPECT_EQ(old_client, Events{connected});
  close_all({&x, &y, &server});
}

// A close on a foreign thread arms the clean-up on the owner's manager; the owner runs it and
// destroys its manager at once. The closing thread must not touch the manager after the point
// where that became possible.
TEST(ItcLifetime, OwnerMayDestroyItsManagerRightAfterACloseFromAnotherThread) {
  for (int round = 0; round < 3; ++round) {
    kro_dm_t *dm = nullptr;
    ASSERT_EQ(kro_dm_create(&dm), KRO_DM_OK);
    uint32_t h = 0;
    ASSERT_EQ(open(&h, "owned", LIB_ITC_SERVER, dm), 0u);
    g_owner_destroyed = false;
    std::atomic<bool> go{false};
    std::thread owner([&] {
      while (!go.load()) {
        std::this_thread::yield();
      }
      // Never asleep: the clean-up is found by polling, without the closing thread's wake-up.
      while (kro_dm_destroy(&dm) == KRO_DM_EBUSY) {
        ASSERT_EQ(kro_dm_dispatch(dm), KRO_DM_OK);
      }
      g_owner_destroyed = true;
    });
    g_hold_wake_of = dm;
    go = true;
    EXPECT_EQ(lib_itc_close(&h), 0);
    owner.join();
    g_hold_wake_of = nullptr;
    EXPECT_EQ(dm, nullptr);
  }
}

// A name goes with its last channel whatever the roles, and a caller may free its string as
// soon as the close of its own channel has returned: the entry then names itself with the
// string of a channel that stays.
TEST(ItcLifetime, NameStringsNeedLiveOnlyUntilTheirChannelIsClosed) {
  Dm dm;
  warm(dm.dm);
  const long base = fault_live_blocks();
  // Per-request client names: nothing stays once each is closed, and the freed string is never
  // read again by the next open of the same text.
  for (int i = 0; i < 3; ++i) {
    char *name = strdup("request-7");
    uint32_t h = 0;
    ASSERT_EQ(open(&h, name, LIB_ITC_CLIENT, dm.dm), 0u);
    ASSERT_EQ(lib_itc_close(&h), 0);
    free(name);
    pump(dm.dm);
    EXPECT_EQ(fault_live_blocks(), base) << "round " << i;
  }
  // Three clients of one name with strings of their own; the string of the one that made the
  // entry goes first, then the next one's, while a third client and a server come. Each string
  // is scribbled over before it is freed, so that a name still pointing at it is missed by the
  // next open of the same text even where freed memory is not checked.
  char *s1 = strdup("shared"), *s2 = strdup("shared"), *s3 = strdup("shared");
  auto scrap = [](char *s) {
    memset(s, '#', strlen(s));
    free(s);
  };
  uint32_t c1 = 0, c2 = 0, c3 = 0, srv = 0;
  ASSERT_EQ(open(&c1, s1, LIB_ITC_CLIENT, dm.dm), 0u);
  ASSERT_EQ(open(&c2, s2, LIB_ITC_CLIENT, dm.dm), 0u);
  ASSERT_EQ(lib_itc_close(&c1), 0);
  scrap(s1);
  ASSERT_EQ(open(&c3, s3, LIB_ITC_CLIENT, dm.dm), 0u);
  EXPECT_EQ(id_of(c3), id_of(c2));
  ASSERT_EQ(lib_itc_close(&c2), 0);
  scrap(s2);
  ASSERT_EQ(open(&srv, "shared", LIB_ITC_SERVER, dm.dm), 0u);
  EXPECT_EQ(id_of(srv), id_of(c3));
  ASSERT_EQ(lib_itc_close(&c3), 0);
  scrap(s3);
  ASSERT_EQ(lib_itc_close(&srv), 0);
  pump(dm.dm);
  EXPECT_EQ(fault_live_blocks(), base);
}

// Restarting one server more often than a handle can number ids: every open succeeds, and the
// ids come round again, oldest freed first, never one just released.
TEST(ItcLifetime, IdsAreRecycledSoThatOpensNeverRunOut) {
  Dm dm;
  uint32_t keep = 0, last = 0, wraps = 0;
  ASSERT_EQ(open(&keep, "keep", LIB_ITC_SERVER, dm.dm), 0u);
  for (uint32_t i = 0; i < 70000; ++i) {
    uint32_t h = 0;
    ASSERT_EQ(open(&h, "restarted", LIB_ITC_SERVER, dm.dm), 0u) << "round " << i;
    ASSERT_NE(id_of(h), id_of(last)) << "round " << i;
    ASSERT_NE(id_of(h), id_of(keep));
    wraps += id_of(h) < id_of(last) ? 1 : 0;
    last = h;
    ASSERT_EQ(lib_itc_close(&h), 0);
    pump(dm.dm);
  }
  EXPECT_GE(wraps, 1u);
  EXPECT_EQ(lib_itc_close(&keep), 0);
}

// 255 clients waiting for a server with default attributes (a queue of 50): the server hears of
// every one and every client is told; a client whose queue is full of data still hears its
// server leave.
TEST(ItcLifetime, ConnectionEventsAreNeverDroppedForWantOfQueueRoom) {
  Dm clients_dm, server_dm;
  std::vector<uint32_t> clients(255);
  Events crec, srec;
  for (uint32_t &c : clients) {
    ASSERT_EQ(open(&c, "crowd", LIB_ITC_CLIENT, clients_dm.dm, record, &crec), 0u);
  }
  uint32_t server = 0;
  ASSERT_EQ(open(&server, "crowd", LIB_ITC_SERVER, server_dm.dm, record, &srec), 0u);
  pump(server_dm.dm);
  pump(clients_dm.dm);
  EXPECT_EQ(srec.size(), 255u);
  EXPECT_EQ(crec.size(), 255u);
  for (uint32_t i = 0; i < LIB_ITC_DEFAULT_QUEUE_LEN; ++i) {
    ASSERT_EQ(send_text(server, clients[0], "x"), 0);
  }
  EXPECT_EQ(send_text(server, clients[0], "x"), KRO_DM_EAGAIN);  // data still bounded
  ASSERT_EQ(lib_itc_close(&server), 0);
  pump(clients_dm.dm);
  ASSERT_EQ(crec.size(), 255u + 255u + LIB_ITC_DEFAULT_QUEUE_LEN);
  EXPECT_EQ(crec.back(), disconnect);
  for (uint32_t &c : clients) {
    EXPECT_EQ(lib_itc_close(&c), 0);
  }
}

// Bits 8 to 15 of a handle are never set in a handle handed out; such a handle names nothing,
// even where its low 8 bits name a live channel (the other operations' refusals are rows of the
// bad-input table).
TEST(ItcLifetime, HandlesWithSlotBits8To15NameNothing) {
  Dm dm;
  uint32_t server = 0, client = 0;
  open_pair(&server, &client, "bits", dm.dm);
  uint32_t forged = server | 0x100u;
  EXPECT_EQ(lib_itc_close(&forged), LIB_ITC_EINVAL);
  EXPECT_EQ(send_text(server, client | 0x100u, "m"), LIB_ITC_EINVAL);
  EXPECT_EQ(send_text(client, 0, "m"), 0);  // the server is still open
  pump(dm.dm);
  close_all({&client, &server});
}

// A message taken by a receive stays the taker's to free, whatever has been closed since: by the
// callback itself (the name's last channel), or by another thread.
TEST(ItcLifetime, HeldMessagesCanBeFreedAfterTheirNameIsReleased) {
  Dm dm;
  uint32_t server = 0, client = 0, from = 0, len = 0;
  void *held = nullptr;
  int free_rc = -1;
  Fn on_server = [&](uint32_t h, uint32_t type) {
    if (type != LIB_ITC_MSG_DATA) {
      take_event(h, type);
      return;
    }
    ASSERT_EQ(lib_itc_receive(h, &from, &held, &len), 0);
    close_all({&client, &server});  // the server is the name's last binding
    free_rc = lib_itc_free(h, held);
  };
  ASSERT_EQ(open(&server, "held", LIB_ITC_SERVER, dm.dm, run_fn, &on_server), 0u);
  ASSERT_EQ(open(&client, "held", LIB_ITC_CLIENT, dm.dm), 0u);
  ASSERT_EQ(send_text(client, 0, "kept"), 0);
  pump(dm.dm);
  EXPECT_EQ(free_rc, 0);
  // Held on this thread while another thread closes the last channel of the name.
  open_pair(&server, &client, "held2", dm.dm);
  pump(dm.dm);
  ASSERT_EQ(send_text(server, client, "kept"), 0);
  ASSERT_EQ(lib_itc_receive(client, &from, &held, &len), 0);
  std::thread([&] { close_all({&server, &client}); }).join();
  EXPECT_EQ(lib_itc_free(from, held), 0);
}

// A send that starts after its destination's close has returned is refused as for an unknown
// handle, also from a thread that has just sent there (and so holds that destination).
TEST(ItcLifetime, SendAfterTheDestinationClosedIsRefused) {
  Dm dm;
  uint32_t server = 0, client = 0;
  open_pair(&server, &client, "gone", dm.dm);
  ASSERT_EQ(send_text(client, 0, "first"), 0);
  std::thread([&server] { EXPECT_EQ(lib_itc_close(&server), 0); }).join();
  EXPECT_EQ(send_text(client, 0, "late"), LIB_ITC_EINVAL);
  pump(dm.dm);
  EXPECT_EQ(lib_itc_close(&client), 0);
}

// A channel still opening is nobody's peer: a server that opens while a client of its name is
// between its binding and its queue hears of that client once, from the client's own open.
TEST(ItcLifetime, ChannelIsNobodysPeerUntilItsOpenHasSetItUp) {
  Dm dm;
  Events srec;
  uint32_t server = 0, client = 0;
  std::function<void()> open_server = [&] {
    ASSERT_EQ(open(&server, "opening", LIB_ITC_SERVER, dm.dm, record, &srec), 0u);
  };
  warm(dm.dm);                    // the name service first: its creation unlocks a mutex of its own
  g_after_unlock = &open_server;  // right after the client's binding
  ASSERT_EQ(open(&client, "opening", LIB_ITC_CLIENT, dm.dm), 0u);
  ASSERT_EQ(g_after_unlock, nullptr);
  ASSERT_NE(server, 0u);
  pump(dm.dm);
  EXPECT_EQ(srec, Events{came(client)});
  close_all({&client, &server});
}

// A server restarted, and a client on a name of its own per request (the string freed right
// after the close), ZEL_LIFETIME_ROUNDS times each (a million; fewer under valgrind): no open is
// refused, and once the ids have come round the live blocks stay exactly where they were.
TEST(ItcLifetime, OpenCloseRoundsRunForeverInConstantMemory) {
  Dm dm;
  for (const bool per_request : {false, true}) {
    SCOPED_TRACE(per_request ? "per-request client names" : "a server restarted");
    long settled = -1;
    for (uint32_t i = 0; i < ZEL_LIFETIME_ROUNDS; ++i) {
      char *name = strdup(per_request ? std::to_string(i).c_str() : "restarted");
      ASSERT_NE(name, nullptr);
      uint32_t h = 0;
      ASSERT_EQ(open(&h, name, per_request ? LIB_ITC_CLIENT : LIB_ITC_SERVER, dm.dm), 0u) << i;
      ASSERT_EQ(lib_itc_close(&h), 0);
      free(name);
      ASSERT_EQ(kro_dm_dispatch(dm.dm), KRO_DM_OK);  // the clean-up
      if (i == 70000) {
        settled = fault_live_blocks();  // past 65535: every id has been handed out once
      }
    }
    EXPECT_EQ(fault_live_blocks(), settled);
  }
}

}  // namespace
