// Channels over a process's whole life. Two races are made deterministic by link-time wraps: a
// hook run right after a mutex unlock, and a manager's wake-up of its owner held back.
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "lib/itc_test_util.h"
#include "support/fault.h"

static thread_local std::function<void()> *g_after_unlock = nullptr;  // run once, then cleared
static std::atomic<kro_dm_t *> g_hold_wake_of{nullptr};

extern "C" int __real_pthread_mutex_unlock(pthread_mutex_t *m);
extern "C" int __wrap_pthread_mutex_unlock(pthread_mutex_t *m) {
  const int rc = __real_pthread_mutex_unlock(m);
  if (std::function<void()> *hook = std::exchange(g_after_unlock, nullptr)) (*hook)();
  return rc;
}

// kro_dm_wake_sleeper(kro_dm *), the stand-in's internal wake-up of a sleeping owner.
extern "C" void __real__Z19kro_dm_wake_sleeperP6kro_dm(kro_dm_t *dm);
extern "C" void __wrap__Z19kro_dm_wake_sleeperP6kro_dm(kro_dm_t *dm) {
  kro_dm_t *held = dm;  // held back once, long enough for an owner that can to destroy it
  if (g_hold_wake_of.compare_exchange_strong(held, nullptr)) usleep(300 * 1000);
  __real__Z19kro_dm_wake_sleeperP6kro_dm(dm);
}

namespace {

using namespace itc_test;  // NOLINT(google-build-using-namespace): the suite's own helpers

void close_all(std::initializer_list<uint32_t *> handles) {
  for (uint32_t *h : handles) EXPECT_EQ(lib_itc_close(h), 0);
}

// A closed client's handler, whose handle a newer client took and whose thread frees it right
// after the handler's lookup, must never read the newer record.
TEST(ItcLifetime, HandlerOfAClosedChannelNeverReadsTheRecordThatTookItsHandle) {
  Dm a, b, d;  // b: the old client and x, whose callback acts; d: the newer client
  Events old_client, new_client;
  uint32_t server = 0, c1 = 0, c2 = 0, x = 0;
  ASSERT_EQ(open(&server, "uaf", LIB_ITC_SERVER, a.dm), 0u);
  ASSERT_EQ(open(&c1, "uaf", LIB_ITC_CLIENT, b.dm, record, &old_client), 0u);
  std::function<void()> close_c2 = [&] {
    ASSERT_EQ(lib_itc_close(&c2), 0);
    pump(d.dm);  // c2's clean-up on its own manager: its record is freed here
  };
  Fn on_x = [&](uint32_t h, uint32_t type) {
    if (take_event(h, type).type != LIB_ITC_MSG_DATA) return;
    ASSERT_EQ(lib_itc_close(&c1), 0);  // c1's handler is next in this dispatch step
    ASSERT_EQ(open(&c2, "uaf", LIB_ITC_CLIENT, d.dm, record, &new_client), 0u);
    ASSERT_EQ(c2, (id_of(server) << 16) | 1u);  // the newer client took the freed slot
    g_after_unlock = &close_c2;
  };
  ASSERT_EQ(open(&x, "uaf", LIB_ITC_CLIENT, b.dm, run_fn, &on_x), 0u);
  pump(b.dm);
  ASSERT_EQ(send_text(server, x, "go"), 0);
  ASSERT_EQ(send_text(server, c1, "to the old client"), 0);  // queued after x's
  pump(b.dm);
  EXPECT_TRUE(g_after_unlock == nullptr && c2 == 0 && new_client.empty());
  EXPECT_EQ(old_client, Events{connected});
  close_all({&x, &server});
}

// A close on a foreign thread must not touch the owner's manager once the owner may have run
// the clean-up and destroyed it.
TEST(ItcLifetime, OwnerMayDestroyItsManagerRightAfterACloseFromAnotherThread) {
  for (int round = 0; round < 3; ++round) {
    kro_dm_t *dm = nullptr;
    uint32_t h = 0;
    ASSERT_EQ(kro_dm_create(&dm), KRO_DM_OK);
    ASSERT_EQ(open(&h, "owned", LIB_ITC_SERVER, dm), 0u);
    g_hold_wake_of = dm;
    std::thread owner([&] {  // spins until the close has armed the clean-up
      while (kro_dm_destroy(&dm) == KRO_DM_EBUSY) ASSERT_EQ(kro_dm_dispatch(dm), KRO_DM_OK);
    });
    EXPECT_EQ(lib_itc_close(&h), 0);
    owner.join();
    EXPECT_EQ(dm, nullptr);
  }
}

// A name's string may be freed once its channel's close has returned: the entry takes the string
// of a channel that stays (client-only names released: the rounds test below).
TEST(ItcLifetime, NameStringsNeedLiveOnlyUntilTheirChannelIsClosed) {
  Dm dm;
  warm(dm.dm);
  const long base = zel_test::fault_live_blocks();
  uint32_t c1 = 0, c2 = 0, srv = 0;
  char *s1 = strdup("shared"), *s2 = strdup("shared");
  auto scrap = [](char *s) {  // scribbled over: a name still using it is missed in any build
    memset(s, '#', strlen(s));
    free(s);
  };
  ASSERT_EQ(open(&c1, s1, LIB_ITC_CLIENT, dm.dm), 0u);
  ASSERT_EQ(open(&c2, s2, LIB_ITC_CLIENT, dm.dm), 0u);
  ASSERT_EQ(lib_itc_close(&c1), 0);
  scrap(s1);
  ASSERT_EQ(open(&srv, "shared", LIB_ITC_SERVER, dm.dm), 0u);
  EXPECT_EQ(id_of(srv), id_of(c2));
  ASSERT_EQ(lib_itc_close(&c2), 0);
  scrap(s2);
  ASSERT_EQ(lib_itc_close(&srv), 0);
  pump(dm.dm);
  EXPECT_EQ(zel_test::fault_live_blocks(), base);
}

// 255 clients waiting for a server with a queue of 50: all are told, and a client whose queue
// is full of data still hears its server leave.
TEST(ItcLifetime, ConnectionEventsAreNeverDroppedForWantOfQueueRoom) {
  Dm dm;
  std::vector<uint32_t> clients(255);
  Events crec, srec;
  uint32_t server = 0;
  for (uint32_t &c : clients) {
    ASSERT_EQ(open(&c, "crowd", LIB_ITC_CLIENT, dm.dm, record, &crec), 0u);
  }
  ASSERT_EQ(open(&server, "crowd", LIB_ITC_SERVER, dm.dm, record, &srec), 0u);
  pump(dm.dm);
  EXPECT_TRUE(srec.size() == 255u && crec.size() == 255u);
  int sent = 0, rc = 0;
  while ((rc = send_text(server, clients[0], "x")) == 0) ++sent;
  EXPECT_TRUE(sent == LIB_ITC_DEFAULT_QUEUE_LEN && rc == KRO_DM_EAGAIN) << sent << " " << rc;
  ASSERT_EQ(lib_itc_close(&server), 0);
  pump(dm.dm);
  ASSERT_EQ(crec.size(), 255u + 255u + LIB_ITC_DEFAULT_QUEUE_LEN);
  EXPECT_EQ(crec.back(), disconnect);
  for (uint32_t &c : clients) EXPECT_EQ(lib_itc_close(&c), 0);
}

// A message taken by a receive stays the taker's to free, whatever has been closed since: by the
// callback itself (the name's last channel), or by another thread.
TEST(ItcLifetime, HeldMessagesCanBeFreedAfterTheirNameIsReleased) {
  Dm dm;
  uint32_t server = 0, client = 0, from = 0, len = 0;
  void *held = nullptr;
  Fn on_server = [&](uint32_t h, uint32_t type) {
    if (type != LIB_ITC_MSG_DATA) return (void)take_event(h, type);
    ASSERT_EQ(lib_itc_receive(h, &from, &held, &len), 0);
    close_all({&client, &server});  // the server is the name's last binding
    EXPECT_EQ(lib_itc_free(h, held), 0);
  };
  ASSERT_EQ(open(&server, "held", LIB_ITC_SERVER, dm.dm, run_fn, &on_server), 0u);
  ASSERT_EQ(open(&client, "held", LIB_ITC_CLIENT, dm.dm), 0u);
  ASSERT_EQ(send_text(client, 0, "kept"), 0);
  pump(dm.dm);
  EXPECT_EQ(len, 4u);  // the callback took the message
  ASSERT_EQ(open(&server, "held2", LIB_ITC_SERVER, dm.dm), 0u);
  ASSERT_EQ(open(&client, "held2", LIB_ITC_CLIENT, dm.dm), 0u);
  pump(dm.dm);
  ASSERT_EQ(send_text(server, client, "kept"), 0);
  ASSERT_EQ(lib_itc_receive(client, &from, &held, &len), 0);
  std::thread([&] { close_all({&server, &client}); }).join();
  EXPECT_EQ(lib_itc_free(from, held), 0);
}

// A handle with any of bits 8 to 15 set names nothing. A send after its destination's close has
// returned is refused, also from a thread that has just sent there (and so holds it).
TEST(ItcLifetime, ForgedHandlesAndClosedDestinationsAreRefused) {
  Dm dm;
  uint32_t server = 0, client = 0;
  ASSERT_EQ(open(&server, "gone", LIB_ITC_SERVER, dm.dm), 0u);
  ASSERT_EQ(open(&client, "gone", LIB_ITC_CLIENT, dm.dm), 0u);
  EXPECT_EQ(send_text(server, client | 0x100u, "m"), LIB_ITC_EINVAL);
  ASSERT_EQ(send_text(client, 0, "first"), 0);
  std::thread([&server] { EXPECT_EQ(lib_itc_close(&server), 0); }).join();
  EXPECT_EQ(send_text(client, 0, "late"), LIB_ITC_EINVAL);
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
  ASSERT_TRUE(g_after_unlock == nullptr && server != 0);
  pump(dm.dm);
  EXPECT_EQ(srec, (Events{{LIB_ITC_MSG_CONNECT, LIB_ITC_MSG_CONNECT, client}}));
  close_all({&client, &server});
}

// A server restarted, and a client on a name of its own per request (its string freed after the
// close), many times each: ids neither just released nor live, constant memory once round.
TEST(ItcLifetime, OpenCloseRoundsRunForeverInConstantMemory) {
  Dm dm;
  uint32_t keep = 0, last = 0, wraps = 0, h = 0;
  ASSERT_EQ(open(&keep, "keep", LIB_ITC_SERVER, dm.dm), 0u);
  for (const bool per_request : {false, true}) {
    long settled = -1;
    for (uint32_t i = 0; i < ZEL_LIFETIME_ROUNDS; ++i) {
      char *name = strdup(per_request ? std::to_string(i).c_str() : "restarted");
      ASSERT_EQ(open(&h, name, per_request ? LIB_ITC_CLIENT : LIB_ITC_SERVER, dm.dm), 0u)
          << per_request << i;
      ASSERT_TRUE(id_of(h) != id_of(last) && id_of(h) != id_of(keep)) << per_request << i;
      wraps += id_of(h) < id_of(last) ? 1 : 0;
      last = h;
      ASSERT_EQ(lib_itc_close(&h), 0);
      free(name);
      ASSERT_EQ(kro_dm_dispatch(dm.dm), KRO_DM_OK);                    // the clean-up
      settled = i == 70000 ? zel_test::fault_live_blocks() : settled;  // every id handed out once
    }
    EXPECT_EQ(zel_test::fault_live_blocks(), settled) << per_request;
  }
  EXPECT_GE(wraps, 1u);
  EXPECT_EQ(lib_itc_close(&keep), 0);
}

}  // namespace
