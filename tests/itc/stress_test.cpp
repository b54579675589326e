// Channels under real concurrency: clients that open, send and close on threads of their own
// while the server closes and reopens, with exact message accounting; connection events that
// stay consistent meanwhile; and wake-ups that coalesce while the receiver is busy.
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
constexpr unsigned kBurst = 64;       // messages a client sends between two dispatch steps
constexpr unsigned kPayload = 64;
const lib_itc_attr_t kDeep = {0, KRO_DM_WATCHED_QUEUE_LEN_MAX, 0xFFFFFFFFu};

// Connection events of one channel instance must alternate per peer: start, end, start, ...
struct Alternation {
  std::map<uint32_t, int> open;  // peer handle -> 1 while connected
  unsigned violations = 0;
  void start(uint32_t peer) { violations += open[peer]++ != 0 ? 1 : 0; }
  void end(uint32_t peer) { violations += open[peer]-- != 1 ? 1 : 0; }
};

struct Totals {
  std::atomic<uint64_t> allocated{0};
  std::atomic<uint64_t> refused{0};   // sends that failed: freed by their sender
  std::atomic<uint64_t> received{0};  // taken by a receiver and freed
  std::atomic<uint64_t> corrupt{0};
  std::atomic<unsigned> violations{0};
};

// One server instance (one open); lives until the end so that a callback still running when
// its channel is closed never meets freed state. Used on the server's loop thread only.
struct ServerLife {
  Totals *totals;
  std::atomic<unsigned> taken{0};
  Alternation events;
  static void callback(uint32_t handle, uint32_t type, void *cookie) {
    auto *s = static_cast<ServerLife *>(cookie);
    if (type == LIB_ITC_MSG_CONNECTED || type == LIB_ITC_MSG_DISCONNECT) {
      return;  // the keeper's
    }
    if (type == LIB_ITC_MSG_CONNECT) {
      uint32_t ev = 0, who = 0;
      const int rc = lib_itc_get_connection_event(handle, &ev, &who);
      if (rc == LIB_ITC_EINVAL) {
        return;  // closed by the test thread meanwhile
      }
      ASSERT_EQ(rc, 0);
      ev == LIB_ITC_MSG_CONNECT ? s->events.start(who) : s->events.end(who);
      return;
    }
    ASSERT_EQ(type, LIB_ITC_MSG_DATA);
    uint32_t sender = 0, len = 0;
    void *p = nullptr;
    const int rc = lib_itc_receive(handle, &sender, &p, &len);
    if (rc == LIB_ITC_EINVAL) {
      return;  // closed meanwhile: the message is freed with the channel's
    }
    ASSERT_EQ(rc, 0);
    const auto *bytes = static_cast<const unsigned char *>(p);
    bool ok = len == kPayload;
    for (uint32_t i = 1; ok && i < len; ++i) {
      ok = bytes[i] == static_cast<unsigned char>(bytes[0] + i);
    }
    s->totals->corrupt += ok ? 0 : 1;
    ASSERT_EQ(lib_itc_free(handle, p), 0);
    s->totals->received.fetch_add(1, std::memory_order_relaxed);
    // Every 16th message is answered; the client may be gone by now.
    if ((s->taken.fetch_add(1, std::memory_order_relaxed) & 15) == 0) {
      void *r = nullptr;
      if (lib_itc_alloc(handle, 8, &r) != 0) {
        return;  // closed meanwhile, and the name with it
      }
      s->totals->allocated.fetch_add(1, std::memory_order_relaxed);
      if (lib_itc_send(handle, sender, r) != 0) {
        ASSERT_EQ(lib_itc_free(handle, r), 0);
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
      if (type == LIB_ITC_MSG_CONNECTED) {
        l->events.start(0);
      } else if (type == LIB_ITC_MSG_DISCONNECT) {
        l->events.end(0);
      } else {
        uint32_t sender = 0, len = 0;
        void *p = nullptr;
        ASSERT_EQ(lib_itc_receive(handle, &sender, &p, &len), 0);
        ASSERT_EQ(lib_itc_free(handle, p), 0);
        l->totals->received.fetch_add(1, std::memory_order_relaxed);
      }
    }
  };
  unsigned char seed = static_cast<unsigned char>(index * 50);
  while (!stop->load(std::memory_order_acquire)) {
    Life life{totals, {}};
    uint32_t h = 0;
    ASSERT_EQ(lib_itc_open(&h, "stress", LIB_ITC_CLIENT, &kDeep, dm, Life::callback, &life), 0u);
    for (int burst = 0; burst < 4; ++burst) {
      for (unsigned i = 0; i < kBurst; ++i) {
        void *p = nullptr;
        ASSERT_EQ(lib_itc_alloc(h, kPayload, &p), 0);
        totals->allocated.fetch_add(1, std::memory_order_relaxed);
        auto *bytes = static_cast<unsigned char *>(p);
        ++seed;
        for (unsigned b = 0; b < kPayload; ++b) {
          bytes[b] = static_cast<unsigned char>(seed + b);
        }
        const int rc = lib_itc_send(h, 0, p);
        if (rc != 0) {
          // No server at the moment, or one whose close is under way.
          EXPECT_TRUE(rc == LIB_ITC_EINVAL || rc == KRO_DM_ENOTCONN) << rc;
          ASSERT_EQ(lib_itc_free(h, p), 0);
          totals->refused.fetch_add(1, std::memory_order_relaxed);
        }
      }
      ASSERT_EQ(kro_dm_dispatch(dm), 0);
    }
    ASSERT_EQ(lib_itc_close(&h), 0);
    itc_test::pump(dm);  // the clean-up; Life goes out of scope only after it
    totals->violations += life.events.violations;
  }
  EXPECT_EQ(kro_dm_destroy(&dm), 0);
}

TEST(ItcStress, ClientsChurnWhileTheServerClosesAndReopens) {
  {
    // The process-wide name service lives on: create it before counting blocks.
    uint32_t h = 0;
    kro_dm_t *dm = nullptr;
    ASSERT_EQ(kro_dm_create(&dm), 0);
    ASSERT_EQ(lib_itc_open(&h, "warm", LIB_ITC_SERVER, nullptr, dm, ServerLife::callback, nullptr),
              0u);
    ASSERT_EQ(lib_itc_close(&h), 0);
    itc_test::pump(dm);
    ASSERT_EQ(kro_dm_destroy(&dm), 0);
  }
  const long live_at_start = zel_test::fault_live_blocks();
  Totals totals;
  std::vector<std::unique_ptr<ServerLife>> lives;
  {
    Loop server_loop;
    // A client that stays for the whole run keeps the name bound, so that a message the server
    // has taken can always be freed, whenever its channel is closed.
    ServerLife keeper_life;
    keeper_life.totals = &totals;
    uint32_t keeper = 0;
    ASSERT_EQ(lib_itc_open(&keeper, "stress", LIB_ITC_CLIENT, &kDeep, server_loop.dm(),
                           ServerLife::callback, &keeper_life),
              0u);
    std::atomic<bool> stop{false};
    std::vector<std::thread> clients;
    for (unsigned i = 0; i < kClients; ++i) {
      clients.emplace_back(client_thread, i, &totals, &stop);
    }
    for (unsigned round = 0; round < kServerRounds; ++round) {
      lives.push_back(std::make_unique<ServerLife>());
      ServerLife *life = lives.back().get();
      life->totals = &totals;
      uint32_t server = 0;
      ASSERT_EQ(lib_itc_open(&server, "stress", LIB_ITC_SERVER, &kDeep, server_loop.dm(),
                             ServerLife::callback, life),
                0u);
      // Let the server take a round's worth of messages (polling the counter with yields:
      // a hang guard stops the test rather than a timed wait deciding anything).
      for (unsigned spins = 0; life->taken.load(std::memory_order_relaxed) < kPerRound; ++spins) {
        ASSERT_LT(spins, 200000000u) << "server starved";
        std::this_thread::yield();
      }
      ASSERT_EQ(lib_itc_close(&server), 0);  // from this thread, while the loop delivers
    }
    stop.store(true, std::memory_order_release);
    for (std::thread &t : clients) {
      t.join();
    }
    // Once no server callback can be running any more, the keeper goes, and a server that
    // comes and goes alone releases the name's entry (the clients left after the last server).
    server_loop.stop();
    ASSERT_EQ(lib_itc_close(&keeper), 0);
    uint32_t last = 0;
    ServerLife idle;
    idle.totals = &totals;
    ASSERT_EQ(lib_itc_open(&last, "stress", LIB_ITC_SERVER, &kDeep, server_loop.dm(),
                           ServerLife::callback, &idle),
              0u);
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
  EXPECT_EQ(totals.corrupt, 0u);
  EXPECT_EQ(totals.violations, 0u);
  // Every message was received, freed by its sender, or freed with a closed channel's queue;
  // every record, queue, timer and name entry is gone.
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
    std::atomic<unsigned> got{0};
    static void callback(uint32_t handle, uint32_t type, void *cookie) {
      auto *r = static_cast<Receiver *>(cookie);
      if (type != LIB_ITC_MSG_DATA) {
        uint32_t ev = 0, who = 0;
        lib_itc_get_connection_event(handle, &ev, &who);
        return;
      }
      uint32_t sender = 0, len = 0;
      void *p = nullptr;
      ASSERT_EQ(lib_itc_receive(handle, &sender, &p, &len), 0);
      ASSERT_EQ(lib_itc_free(handle, p), 0);
      std::unique_lock<std::mutex> lock(r->m);
      if (r->got.fetch_add(1) == 0) {
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
  {
    std::unique_lock<std::mutex> lock(rx.m);
    ASSERT_TRUE(rx.cv.wait_for(lock, std::chrono::seconds(60), [&] { return rx.busy; }));
  }
  kro_dm_stats_t before{}, after{};
  ASSERT_EQ(kro_dm_stats_get(loop.dm(), &before), 0);
  for (unsigned i = 0; i < kN; ++i) {
    ASSERT_EQ(itc_test::send_text(client, 0, "burst"), 0);
  }
  ASSERT_EQ(kro_dm_stats_get(loop.dm(), &after), 0);
  {
    std::unique_lock<std::mutex> lock(rx.m);
    rx.release = true;
    rx.cv.notify_all();
    ASSERT_TRUE(rx.cv.wait_for(lock, std::chrono::seconds(60), [&] { return rx.got == kN + 1; }));
  }
  const uint64_t wakes = after.wakeups - before.wakeups;
  std::printf("wake-ups for %u messages sent to a busy receiver: %llu\n", kN,
              static_cast<unsigned long long>(wakes));
  RecordProperty("burst_wakeups", static_cast<int>(wakes));
  EXPECT_LE(wakes, 1u);
  EXPECT_EQ(lib_itc_close(&client), 0);
  EXPECT_EQ(lib_itc_close(&server), 0);
}

}  // namespace
