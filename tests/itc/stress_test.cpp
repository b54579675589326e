// Channels under real concurrency: clients that open, send and close on threads of their own
// while the server closes and reopens, with exact message accounting and connection events
// that stay consistent meanwhile; and wake-ups that coalesce while the receiver is busy.
#include <zel/itc.h>

#include <cstdio>
#include <map>
#include <memory>

#include "itc_test_util.h"
#include "support/fault.h"

namespace {

using itc_test::Loop;

constexpr unsigned kClients = 3;
constexpr unsigned kServerRounds = 6;
constexpr unsigned kPerRound = 1500;  // messages the server takes before it closes again
constexpr unsigned kPayload = 64;
const lib_itc_attr_t kDeep = {0, KRO_DM_WATCHED_QUEUE_LEN_MAX, 0xFFFFFFFFu};

struct Totals {
  std::atomic<uint64_t> allocated{0}, refused{0}, received{0};  // refused: freed by the sender
  std::atomic<unsigned> violations{0};
};

// Connection events of one channel instance must alternate per peer: start, end, start, ...
struct Alternation {
  std::map<uint32_t, int> open;  // peer handle -> 1 while connected
  unsigned violations = 0;
  void note(uint32_t peer, bool start) {
    violations += (start ? open[peer]++ != 0 : open[peer]-- != 1) ? 1 : 0;
  }
};

// One server instance (one open) or the keeper client; lives until the end so that a callback
// still running when its channel is closed never meets freed state. Used on the server's loop
// thread only.
struct ServerLife {
  Totals *totals;
  std::atomic<unsigned> taken{0};
  Alternation events;
  static void callback(uint32_t handle, uint32_t type, void *cookie) {
    auto *s = static_cast<ServerLife *>(cookie);
    uint32_t a = 0, b = 0;
    void *p = nullptr;
    if (type == LIB_ITC_MSG_CONNECT) {
      const int rc = lib_itc_get_connection_event(handle, &a, &b);
      ASSERT_TRUE(rc == 0 || rc == LIB_ITC_EINVAL) << rc;  // 22: closed by the test thread
      if (rc == 0) {
        s->events.note(b, a == LIB_ITC_MSG_CONNECT);
      }
      return;
    }
    const int rc = type == LIB_ITC_MSG_DATA ? lib_itc_receive(handle, &a, &p, &b) : LIB_ITC_EINVAL;
    if (rc == LIB_ITC_EINVAL) {
      return;  // the keeper's own events, or closed meanwhile: freed with the channel's queue
    }
    ASSERT_EQ(rc, 0);
    EXPECT_EQ(b, kPayload);
    ASSERT_EQ(lib_itc_free(handle, p), 0);
    s->totals->received.fetch_add(1, std::memory_order_relaxed);
    // Every 16th message is answered; the client may be gone by now, the name too.
    if ((s->taken.fetch_add(1, std::memory_order_relaxed) & 15) == 0 &&
        lib_itc_alloc(handle, 8, &p) == 0) {
      s->totals->allocated.fetch_add(1, std::memory_order_relaxed);
      if (lib_itc_send(handle, a, p) != 0) {
        ASSERT_EQ(lib_itc_free(handle, p), 0);
        s->totals->refused.fetch_add(1, std::memory_order_relaxed);
      }
    }
  }
};

// A client thread: opens a client on its own manager, sends bursts, steps its manager between
// them, closes, and starts over until told to stop.
void client_thread(unsigned index, Totals *totals, const std::atomic<bool> *stop) {
  kro_dm_t *dm = nullptr;
  ASSERT_EQ(kro_dm_create(&dm), 0);
  struct Life {
    Totals *totals;
    Alternation events;
    static void callback(uint32_t handle, uint32_t type, void *cookie) {
      auto *l = static_cast<Life *>(cookie);
      if (type != LIB_ITC_MSG_DATA) {
        l->events.note(0, type == LIB_ITC_MSG_CONNECTED);
        return;
      }
      itc_test::take_event(handle, type);
      l->totals->received.fetch_add(1, std::memory_order_relaxed);
    }
  };
  while (!stop->load(std::memory_order_acquire)) {
    Life life{totals, {}};
    uint32_t h = 0;
    ASSERT_EQ(lib_itc_open(&h, "stress", LIB_ITC_CLIENT, &kDeep, dm, Life::callback, &life), 0u);
    for (unsigned i = 0; i < 4 * 64; ++i) {
      void *p = nullptr;
      ASSERT_EQ(lib_itc_alloc(h, kPayload, &p), 0);
      totals->allocated.fetch_add(1, std::memory_order_relaxed);
      memset(p, static_cast<int>(index), kPayload);
      const int rc = lib_itc_send(h, 0, p);
      if (rc != 0) {
        // No server at the moment, or one whose close is under way.
        EXPECT_TRUE(rc == LIB_ITC_EINVAL || rc == KRO_DM_ENOTCONN) << rc;
        ASSERT_EQ(lib_itc_free(h, p), 0);
        totals->refused.fetch_add(1, std::memory_order_relaxed);
      }
      if (i % 64 == 63) {
        ASSERT_EQ(kro_dm_dispatch(dm), 0);
      }
    }
    ASSERT_EQ(lib_itc_close(&h), 0);
    itc_test::pump(dm);  // the clean-up; Life goes out of scope only after it
    totals->violations += life.events.violations;
  }
  EXPECT_EQ(kro_dm_destroy(&dm), 0);
}

// Every message is received, freed by its sender, or freed with a closed channel's queue, and
// every record, queue, timer and name entry is gone at the end.
TEST(ItcStress, ClientsChurnWhileTheServerClosesAndReopens) {
  {  // the process-wide name service lives on: made before counting
    itc_test::Dm dm;
    uint32_t h = 0;
    ASSERT_EQ(
        lib_itc_open(&h, "warm", LIB_ITC_SERVER, nullptr, dm.dm, ServerLife::callback, nullptr),
        0u);
    ASSERT_EQ(lib_itc_close(&h), 0);
  }
  const long live_at_start = zel_test::fault_live_blocks();
  Totals totals;
  std::vector<std::unique_ptr<ServerLife>> lives;
  {
    Loop server_loop;
    const auto open_server = [&](uint32_t *h, int32_t role) {
      lives.push_back(std::make_unique<ServerLife>());
      lives.back()->totals = &totals;
      ASSERT_EQ(lib_itc_open(h, "stress", role, &kDeep, server_loop.dm(), ServerLife::callback,
                             lives.back().get()),
                0u);
    };
    uint32_t keeper = 0;
    open_server(&keeper, LIB_ITC_CLIENT);
    // The keeper stays for the whole run and keeps the name bound, so that a message the server
    // has taken can always be freed, whenever its channel is closed.
    std::atomic<bool> stop{false};
    std::vector<std::thread> clients;
    for (unsigned i = 0; i < kClients; ++i) {
      clients.emplace_back(client_thread, i, &totals, &stop);
    }
    for (unsigned round = 0; round < kServerRounds; ++round) {
      uint32_t server = 0;
      open_server(&server, LIB_ITC_SERVER);
      // Polling with yields: a hang guard stops the test rather than a timed wait deciding.
      for (unsigned spins = 0; lives.back()->taken.load() < kPerRound; ++spins) {
        ASSERT_LT(spins, 200000000u) << "server starved";
        std::this_thread::yield();
      }
      ASSERT_EQ(lib_itc_close(&server), 0);  // from this thread, while the loop delivers
    }
    stop.store(true, std::memory_order_release);
    for (std::thread &t : clients) {
      t.join();
    }
    // Once no server callback can run any more, the keeper goes, and a server that comes and
    // goes alone releases the name's entry.
    server_loop.stop();
    ASSERT_EQ(lib_itc_close(&keeper), 0);
    uint32_t last = 0;
    open_server(&last, LIB_ITC_SERVER);
    ASSERT_EQ(lib_itc_close(&last), 0);
  }  // the server's manager: remaining clean-ups, then destroyed
  for (const auto &life : lives) {
    totals.violations += life->events.violations;
  }
  const uint64_t allocated = totals.allocated, refused = totals.refused;
  const uint64_t received = totals.received;
  std::printf("stress: %llu messages allocated, %llu received, %llu refused, %llu freed queued\n",
              static_cast<unsigned long long>(allocated), static_cast<unsigned long long>(received),
              static_cast<unsigned long long>(refused),
              static_cast<unsigned long long>(allocated - received - refused));
  EXPECT_GE(received, static_cast<uint64_t>(kServerRounds) * kPerRound);
  EXPECT_LE(received + refused, allocated);
  EXPECT_EQ(totals.violations, 0u);
  EXPECT_EQ(zel_test::fault_live_blocks(), live_at_start);
}

// The receiver's callback holds the first message until a burst has been sent behind it: the
// burst's enqueues find the queue scheduled and make no wake-up at all.
TEST(ItcWakeups, BurstToABusyReceiverCoalesces) {
  constexpr unsigned kN = 1000;
  struct Receiver {
    std::mutex m;
    std::condition_variable cv;
    bool busy = false, release = false;
    unsigned got = 0;
    static void callback(uint32_t handle, uint32_t type, void *cookie) {
      auto *r = static_cast<Receiver *>(cookie);
      itc_test::take_event(handle, type);
      std::unique_lock<std::mutex> lock(r->m);
      if (type == LIB_ITC_MSG_DATA && r->got++ == 0) {
        r->busy = true;
        r->cv.notify_all();
        r->cv.wait(lock, [&] { return r->release; });
      }
      r->cv.notify_all();
    }
  } rx;
  itc_test::Recorder crec;
  Loop loop;
  itc_test::Dm sender_dm;
  const lib_itc_attr_t attr = {0, kN + 10, 0xFFFFFFFFu};
  uint32_t server = 0, client = 0;
  ASSERT_EQ(
      lib_itc_open(&server, "wake", LIB_ITC_SERVER, &attr, loop.dm(), Receiver::callback, &rx), 0u);
  ASSERT_EQ(lib_itc_open(&client, "wake", LIB_ITC_CLIENT, nullptr, sender_dm.dm,
                         itc_test::Recorder::callback, &crec),
            0u);
  ASSERT_EQ(itc_test::send_text(client, 0, "first"), 0);
  std::unique_lock<std::mutex> lock(rx.m);
  ASSERT_TRUE(rx.cv.wait_for(lock, std::chrono::seconds(60), [&] { return rx.busy; }));
  kro_dm_stats_t before{}, after{};
  ASSERT_EQ(kro_dm_stats_get(loop.dm(), &before), 0);
  for (unsigned i = 0; i < kN; ++i) {
    ASSERT_EQ(itc_test::send_text(client, 0, "burst"), 0);
  }
  ASSERT_EQ(kro_dm_stats_get(loop.dm(), &after), 0);
  rx.release = true;
  rx.cv.notify_all();
  ASSERT_TRUE(rx.cv.wait_for(lock, std::chrono::seconds(60), [&] { return rx.got == kN + 1; }));
  lock.unlock();
  std::printf("wake-ups for %u messages sent to a busy receiver: %llu\n", kN,
              static_cast<unsigned long long>(after.wakeups - before.wakeups));
  EXPECT_LE(after.wakeups - before.wakeups, 1u);
  EXPECT_EQ(lib_itc_close(&client), 0);
  EXPECT_EQ(lib_itc_close(&server), 0);
}

}  // namespace
