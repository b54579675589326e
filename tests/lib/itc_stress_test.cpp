// Channels under real concurrency: clients that open, send and close on threads of their own
// while the server closes and reopens, with exact message accounting and connection events
// that stay consistent meanwhile.
#include <atomic>
#include <map>
#include <memory>
#include <thread>

#include "lib/itc_test_util.h"
#include "support/fault.h"

namespace {

using namespace itc_test;  // NOLINT(google-build-using-namespace): the suite's own helpers

// A manager whose loop (wait + dispatch) runs on a thread of its own until stop(); the test
// thread then takes it over for the remaining clean-up steps.
class Loop {
 public:
  Loop()
      : thread_([this] {
          while (!done_.load(std::memory_order_acquire)) {
            EXPECT_EQ(kro_dm_wait(m_.dm), KRO_DM_OK);
            EXPECT_EQ(kro_dm_dispatch(m_.dm), KRO_DM_OK);
          }
        }) {}
  ~Loop() { stop(); }
  void stop() {
    if (thread_.joinable()) {
      done_.store(true, std::memory_order_release);
      kro_dm_wake(m_.dm);
      thread_.join();
    }
  }
  kro_dm_t *dm() const { return m_.dm; }

 private:
  Dm m_;  // destroyed after the thread has stopped
  std::atomic<bool> done_{false};
  std::thread thread_;
};

constexpr unsigned kClients = 3, kServerRounds = 6;
constexpr unsigned kPerRound = 1500;  // messages the server takes before it closes again
constexpr unsigned kPayload = 64;
const lib_itc_attr_t kDeep = {0, KRO_DM_WATCHED_QUEUE_LEN_MAX, 0xFFFFFFFFu};

std::atomic<uint64_t> g_allocated{0}, g_refused{0}, g_received{0};  // refused: sender frees
std::atomic<unsigned> g_violations{0};

// Connection events of one channel instance must alternate per peer: start, end, start, ...
// Used by one thread at a time.
struct Life {
  std::map<uint32_t, int> open;  // peer handle -> 1 while connected
  std::atomic<unsigned> taken{0};
  void note(uint32_t peer, bool start) {
    g_violations += (start ? open[peer]++ != 0 : open[peer]-- != 1) ? 1 : 0;
  }
  // Allocates a message; sends it, or frees it when the send is refused.
  static void send(uint32_t handle, uint32_t to, uint32_t length) {
    void *p = nullptr;
    ASSERT_EQ(lib_itc_alloc(handle, length, &p), 0);
    ++g_allocated;
    memset(p, 0x5a, length);
    if (const int rc = lib_itc_send(handle, to, p); rc != 0) {
      // No server or client at the moment, or one whose close is under way.
      EXPECT_TRUE(rc == LIB_ITC_EINVAL || rc == KRO_DM_ENOTCONN) << rc;
      ASSERT_EQ(lib_itc_free(handle, p), 0);
      ++g_refused;
    }
  }
  // The server instances (one per open) and the keeper client live until the end, so that a
  // callback still running when its channel is closed never meets freed state.
  static void server_cb(uint32_t handle, uint32_t type, void *cookie) {
    auto *s = static_cast<Life *>(cookie);
    uint32_t a = 0, b = 0;
    void *p = nullptr;
    int rc = LIB_ITC_EINVAL;  // 22: closed by the test thread meanwhile, or the keeper's events
    if (type == LIB_ITC_MSG_CONNECT && (rc = lib_itc_get_connection_event(handle, &a, &b)) == 0) {
      s->note(b, a == LIB_ITC_MSG_CONNECT);
    } else if (type == LIB_ITC_MSG_DATA) {
      rc = lib_itc_receive(handle, &a, &p, &b);
    }
    ASSERT_TRUE(rc == 0 || rc == LIB_ITC_EINVAL) << rc;
    if (rc == 0 && type == LIB_ITC_MSG_DATA) {
      EXPECT_EQ(b, kPayload);
      ASSERT_EQ(lib_itc_free(handle, p), 0);
      ++g_received;
      // Every 16th message is answered; the client may be gone by now, the name too.
      if ((s->taken.fetch_add(1) & 15) == 0) {
        send(handle, a, 8);
      }
    }
  }
  static void client_cb(uint32_t handle, uint32_t type, void *cookie) {
    if (type != LIB_ITC_MSG_DATA) {
      static_cast<Life *>(cookie)->note(0, type == LIB_ITC_MSG_CONNECTED);
      return;
    }
    take_event(handle, type);
    ++g_received;
  }
};

// A client thread: opens a client on its own manager, sends bursts, steps its manager between
// them, closes, and starts over until told to stop.
void client_thread(const std::atomic<bool> *stop) {
  Dm dm;
  while (!stop->load(std::memory_order_acquire)) {
    Life life;
    uint32_t h = 0;
    ASSERT_EQ(open(&h, "stress", LIB_ITC_CLIENT, dm.dm, Life::client_cb, &life, &kDeep), 0u);
    for (unsigned i = 0; i < 4 * 64; ++i) {
      Life::send(h, 0, kPayload);
      if (i % 64 == 63) {
        ASSERT_EQ(kro_dm_dispatch(dm.dm), 0);
      }
    }
    ASSERT_EQ(lib_itc_close(&h), 0);
    pump(dm.dm);  // the clean-up; life goes out of scope only after it
  }
}

// Every message is received, freed by its sender, or freed with a closed channel's queue, and
// every record, queue, timer and name entry is gone at the end.
TEST(ItcStress, ClientsChurnWhileTheServerClosesAndReopens) {
  warm(Dm().dm);
  const long live_at_start = zel_test::fault_live_blocks();
  std::vector<std::unique_ptr<Life>> lives;
  {
    Loop server_loop;
    const auto open_server = [&](uint32_t *h, int32_t role) {
      lives.push_back(std::make_unique<Life>());
      ASSERT_EQ(
          open(h, "stress", role, server_loop.dm(), Life::server_cb, lives.back().get(), &kDeep),
          0u);
    };
    // The keeper stays for the whole run and keeps the name bound, so that a message the server
    // has taken can always be freed, whenever its channel is closed.
    uint32_t keeper = 0, server = 0;
    open_server(&keeper, LIB_ITC_CLIENT);
    std::atomic<bool> stop{false};
    std::vector<std::thread> clients;
    for (unsigned i = 0; i < kClients; ++i) {
      clients.emplace_back(client_thread, &stop);
    }
    for (unsigned round = 0; round < kServerRounds; ++round) {
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
    open_server(&server, LIB_ITC_SERVER);
    ASSERT_EQ(lib_itc_close(&server), 0);
  }  // the server's manager: remaining clean-ups, then destroyed
  const uint64_t allocated = g_allocated, refused = g_refused, received = g_received;
  EXPECT_GE(received, static_cast<uint64_t>(kServerRounds) * kPerRound);
  EXPECT_LE(received + refused, allocated);
  EXPECT_EQ(g_violations, 0u);
  EXPECT_EQ(zel_test::fault_live_blocks(), live_at_start);
}

}  // namespace
