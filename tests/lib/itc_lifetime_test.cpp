// Channels over a process's whole life. Two races are made deterministic by link-time wraps: a
// hook run right after a mutex unlock, and a manager's wake-up of its owner held back.
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "lib/itc_test_util.h"
#include "support/fault.h"

namespace {
thread_local std::function<void()> *g_after_unlock = nullptr;  // run once, then cleared
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
    g_hold_wake_of = nullptr;  // where the owner cannot destroy it meanwhile, this times out
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

void open_pair(uint32_t *server, uint32_t *client, const char *name, kro_dm_t *dm) {
  ASSERT_EQ(open(server, name, LIB_ITC_SERVER, dm), 0u);
  ASSERT_EQ(open(client, name, LIB_ITC_CLIENT, dm), 0u);
}

void close_all(std::initializer_list<uint32_t *> handles) {
  for (uint32_t *h : handles) {
    EXPECT_EQ(lib_itc_close(h), 0);
  }
}

// A closed client's handler, whose handle a newer client took and whose thread frees it right
// after the handler's lookup, must never read the newer record.
TEST(ItcLifetime, HandlerOfAClosedChannelNeverReadsTheRecordThatTookItsHandle) {
  Dm a, b, d;  // b: the old client and x, whose callback acts; d: the newer client
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
  ASSERT_EQ(send_text(y, 0, "go"), 0);
  ASSERT_EQ(send_text(server, c1, "to the old client"), 0);  // queued after x's
  pump(b.dm);
  EXPECT_EQ(g_after_unlock, nullptr);
  EXPECT_EQ(c2, 0u);
  EXPECT_TRUE(new_client.empty());
  EXPECT_EQ(old_client, Events{connected});
  close_all({&x, &y, &server});
}

// A close on a foreign thread must not touch the owner's manager once the owner may have run
// the clean-up and destroyed it.
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

// A name goes with its last channel, and its string may be freed once its channel's close has
// returned: the entry takes the string of a channel that stays.
TEST(ItcLifetime, NameStringsNeedLiveOnlyUntilTheirChannelIsClosed) {
  Dm dm;
  warm(dm.dm);
  const long base = fault_live_blocks();
  for (int i = 0; i < 3; ++i) {
    char *name = strdup("request-7");
    uint32_t h = 0;
    ASSERT_EQ(open(&h, name, LIB_ITC_CLIENT, dm.dm), 0u);
    ASSERT_EQ(lib_itc_close(&h), 0);
    free(name);
    pump(dm.dm);
    EXPECT_EQ(fault_live_blocks(), base) << "round " << i;
  }
  // Each string is scribbled over before it is freed, so that a name still pointing at it
  // is missed even where freed memory is not checked.
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

// 255 clients waiting for a server with a queue of 50: all are told, and a client whose queue
// is full of data still hears its server leave.
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
  EXPECT_EQ(send_text(server, clients[0], "x"), KRO_DM_EAGAIN);
  ASSERT_EQ(lib_itc_close(&server), 0);
  pump(clients_dm.dm);
  ASSERT_EQ(crec.size(), 255u + 255u + LIB_ITC_DEFAULT_QUEUE_LEN);
  EXPECT_EQ(crec.back(), disconnect);
  for (uint32_t &c : clients) {
    EXPECT_EQ(lib_itc_close(&c), 0);
  }
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
  open_pair(&server, &client, "held2", dm.dm);
  pump(dm.dm);
  ASSERT_EQ(send_text(server, client, "kept"), 0);
  ASSERT_EQ(lib_itc_receive(client, &from, &held, &len), 0);
  std::thread([&] { close_all({&server, &client}); }).join();
  EXPECT_EQ(lib_itc_free(from, held), 0);
}

// A handle with any of bits 8 to 15 set names nothing, though its low 8 bits name a channel. A
// send after its destination's close returned is refused, also from a thread that has just sent
// there (and so holds that destination).
TEST(ItcLifetime, ForgedHandlesAndClosedDestinationsAreRefused) {
  Dm dm;
  uint32_t server = 0, client = 0, forged = 0;
  open_pair(&server, &client, "gone", dm.dm);
  EXPECT_EQ(lib_itc_close(&(forged = server | 0x100u)), LIB_ITC_EINVAL);
  EXPECT_EQ(send_text(server, client | 0x100u, "m"), LIB_ITC_EINVAL);
  ASSERT_EQ(send_text(client, 0, "first"), 0);
  std::thread([&server] { EXPECT_EQ(lib_itc_close(&server), 0); }).join();
  EXPECT_EQ(send_text(client, 0, "late"), LIB_ITC_EINVAL);
  pump(dm.dm);
  EXPECT_EQ(lib_itc_close(&client), 0);
}

// A server opening while a client of its name is between its binding and its queue hears of
// that client once, from the client's own open.
TEST(ItcLifetime, ChannelIsNobodysPeerUntilItsOpenHasSetItUp) {
  Dm dm;
  Events srec;
  uint32_t server = 0, client = 0;
  std::function<void()> open_server = [&] {
    ASSERT_EQ(open(&server, "opening", LIB_ITC_SERVER, dm.dm, record, &srec), 0u);
  };
  warm(dm.dm);  // the name service's creation unlocks a mutex of its own
  g_after_unlock = &open_server;
  ASSERT_EQ(open(&client, "opening", LIB_ITC_CLIENT, dm.dm), 0u);
  ASSERT_EQ(g_after_unlock, nullptr);
  ASSERT_NE(server, 0u);
  pump(dm.dm);
  EXPECT_EQ(srec, Events{came(client)});
  close_all({&client, &server});
}

// A server restarted, and a client on a name of its own per request (the string freed after the
// close), ZEL_LIFETIME_ROUNDS times each: no open is refused, an id is never one just released
// nor a live one's, and once the ids have come round the live blocks stay where they were.
TEST(ItcLifetime, OpenCloseRoundsRunForeverInConstantMemory) {
  Dm dm;
  uint32_t keep = 0, last = 0, wraps = 0;
  ASSERT_EQ(open(&keep, "keep", LIB_ITC_SERVER, dm.dm), 0u);
  for (const bool per_request : {false, true}) {
    SCOPED_TRACE(per_request ? "per-request client names" : "a server restarted");
    long settled = -1;
    for (uint32_t i = 0; i < ZEL_LIFETIME_ROUNDS; ++i) {
      char *name = strdup(per_request ? std::to_string(i).c_str() : "restarted");
      uint32_t h = 0;
      ASSERT_EQ(open(&h, name, per_request ? LIB_ITC_CLIENT : LIB_ITC_SERVER, dm.dm), 0u) << i;
      ASSERT_TRUE(id_of(h) != id_of(last) && id_of(h) != id_of(keep)) << i;
      wraps += id_of(h) < id_of(last) ? 1 : 0;
      last = h;
      ASSERT_EQ(lib_itc_close(&h), 0);
      free(name);
      ASSERT_EQ(kro_dm_dispatch(dm.dm), KRO_DM_OK);          // the clean-up
      settled = i == 70000 ? fault_live_blocks() : settled;  // every id handed out once
    }
    EXPECT_EQ(fault_live_blocks(), settled);
  }
  EXPECT_GE(wraps, 1u);
  EXPECT_EQ(lib_itc_close(&keep), 0);
}

}  // namespace
