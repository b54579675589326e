// Channel soak (README): fails unless every message was received, freed by its sender after a
// refusal or by the library (its free hook sees the live stamp), events alternate, no block left.
#include <malloc.h>
#include <zel/itc.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <thread>
#include <vector>

#include "lib/itc_block.h"
#include "support/fault.h"

namespace {

constexpr uint64_t kLive = 0x5a454c2d4954432bull;  // payload stamp while the message is out
const char *const kName[2] = {"soak.a", "soak.b"};
const lib_itc_attr_t kServerAttr = {0, 64, 4096}, kClientAttr = {0, 16, 512};
thread_local std::minstd_rand t_rng;  // seeded by each thread, used by its callbacks too

struct Totals {  // failures: unexpected results, corrupt messages, events out of order
  std::atomic<unsigned long long> allocated{0}, sent{0}, received{0}, names{0}, failures{0};
  std::atomic<unsigned long long> freed_sender{0}, freed_library{0};  // received: freed by taker
  std::atomic<bool> stop{false};
} g;

bool soak_ok(long long rc, const char *what) {  // counts and reports a failure; whether none
  if (rc != 0) std::fprintf(stderr, "itc_soak: %s: %lld (failure %llu)\n", what, rc, ++g.failures);
  return rc == 0;
}

// Counts the library's frees of blocks still stamped live (the allocator clears freed blocks).
// The library discards messages straight to the C allocator; a message block starts with the
// owner word, before the header.
void soak_free_hook(void *block) {
  auto *m =
      reinterpret_cast<lib_itc_msg_hdr_t *>(static_cast<char *>(block) + lib_itc_block_prefix);
  g.freed_library += malloc_usable_size(block) >= lib_itc_block_prefix + sizeof *m + sizeof kLive &&
                     m->type == LIB_ITC_MSG_DATA && std::memcmp(m + 1, &kLive, sizeof kLive) == 0;
}

void soak_free(uint32_t handle, void *payload, std::atomic<unsigned long long> &counter) {
  std::memset(payload, 0, sizeof kLive);  // the stamp wiped: not the library's free
  soak_ok(lib_itc_free(handle, payload), "free");
  ++counter;
}

int soak_send(uint32_t handle, uint32_t destination, uint32_t length) {  // freed if refused
  void *p = nullptr;
  if (!soak_ok(lib_itc_alloc(handle, length, &p), "alloc")) return -1;
  ++g.allocated;
  std::memcpy(p, &kLive, sizeof kLive);
  const int rc = lib_itc_send(handle, destination, p);
  g.sent += rc == 0 ? 1 : 0;
  if (rc != 0) soak_free(handle, p, g.freed_sender);
  return rc;
}

// Takes and frees the message at hand, returns its sender; `may_close`: 22 if closed meanwhile.
uint32_t soak_receive(uint32_t handle, bool may_close = false) {
  uint32_t sender = 0, length = 0;
  void *p = nullptr;
  const int rc = lib_itc_receive(handle, &sender, &p, &length);
  if (!soak_ok(may_close && rc == LIB_ITC_EINVAL ? 0 : rc, "receive") || rc != 0) return 0;
  soak_ok(length < sizeof kLive || std::memcmp(p, &kLive, sizeof kLive) != 0, "corrupt message");
  soak_free(handle, p, g.received);
  return sender;
}

// Cookie: whether the server is connected. Takes half the answers, or without one every message.
void soak_client_cb(uint32_t handle, uint32_t type, void *cookie) {
  auto *connected = static_cast<bool *>(cookie);
  if (connected != nullptr && type != LIB_ITC_MSG_DATA) {
    soak_ok(*connected == (type == LIB_ITC_MSG_CONNECTED), "event out of order");
    *connected = type == LIB_ITC_MSG_CONNECTED;
  } else if (type == LIB_ITC_MSG_DATA && (connected == nullptr || (t_rng() & 1) != 0)) {
    soak_receive(handle, connected == nullptr);
  }
}

void soak_open(uint32_t *h, const char *name, int32_t role, kro_dm_t *dm, bool *connected) {
  soak_ok(lib_itc_open(h, name, role, &kClientAttr, dm, soak_client_cb, connected), "open");
}

struct Server {  // its manager is run by the server's thread
  kro_dm_t *dm;
  const char *name;
  uint32_t handle = 0;
  std::map<uint32_t, bool> connected{};  // of the open instance, by client
  void open() {
    connected.clear();
    soak_ok(lib_itc_open(&handle, name, LIB_ITC_SERVER, &kServerAttr, dm, callback, this), "open");
  }
  void once() {  // alone, then its manager destroyed: a name whose server left first released
    open();
    soak_ok(lib_itc_close(&handle), "lone server close");
    for (int i = 0; i < 4; ++i) soak_ok(kro_dm_dispatch(dm), "dispatch");
    soak_ok(kro_dm_destroy(&dm), "dm destroy");
  }
  // Takes every connection event and three quarters of the data; answers one in eight.
  static void callback(uint32_t handle, uint32_t type, void *cookie) {
    auto *s = static_cast<Server *>(cookie);
    const uint32_t r = t_rng();
    uint32_t event = 0, client = 0;
    if (type == LIB_ITC_MSG_CONNECT &&
        soak_ok(lib_itc_get_connection_event(handle, &event, &client), "event")) {
      soak_ok(s->connected[client] == (event == LIB_ITC_MSG_CONNECT), "event out of order");
      s->connected[client] = event == LIB_ITC_MSG_CONNECT;
    } else if (type == LIB_ITC_MSG_DATA && (r & 3) != 0) {
      const uint32_t sender = soak_receive(handle);
      if (sender != 0 && (r & 0x7000) == 0) soak_send(handle, sender, 8 + (r >> 24) % 64);
    }
    if (r % 4096 == 1 && handle == s->handle) soak_ok(lib_itc_close(&s->handle), "own close");
  }
};

// A keeper client holds the name (and its id) for the whole run; the server comes and goes.
void soak_server_thread(Server *s, uint32_t seed) {
  t_rng.seed(seed);
  bool keeper_connected = false;
  uint32_t keeper = 0;
  soak_open(&keeper, s->name, LIB_ITC_CLIENT, s->dm, &keeper_connected);
  while (!g.stop.load(std::memory_order_acquire)) {
    if (s->handle == 0) s->open();
    soak_ok(kro_dm_wait(s->dm), "wait");
    soak_ok(kro_dm_dispatch(s->dm), "dispatch");
    if (s->handle != 0 && t_rng() % 64 == 0) soak_ok(lib_itc_close(&s->handle), "server close");
  }
  soak_ok(s->handle != 0 ? lib_itc_close(&s->handle) : 0, "server close");
  soak_ok(lib_itc_close(&keeper), "keeper close");  // main runs the clean-ups
}

// Bursts of up to 64 messages ended early by the budget, then a close (answers may be queued).
void soak_sender_thread(uint32_t seed) {
  t_rng.seed(seed);
  kro_dm_t *dm = nullptr;
  soak_ok(kro_dm_create(&dm), "dm create");
  while (dm != nullptr && !g.stop.load(std::memory_order_acquire)) {
    uint32_t h = 0;
    bool connected = false;
    soak_open(&h, kName[t_rng() % 2], LIB_ITC_CLIENT, dm, &connected);
    for (uint32_t rounds = 1 + t_rng() % 8; rounds > 0; --rounds) {
      for (int burst = 64; burst-- > 0 && soak_send(h, 0, 8 + t_rng() % 1024) != LIB_ITC_ENOSPC;) {
      }
      soak_ok(kro_dm_dispatch(dm), "dispatch");
      std::this_thread::yield();
    }
    soak_ok(lib_itc_close(&h), "client close");
    for (int i = 0; i < 4; ++i) soak_ok(kro_dm_dispatch(dm), "dispatch");
  }
  soak_ok(kro_dm_destroy(&dm), "dm destroy");
}

// Per request on a new manager: two names with a server and a client, two client-only ones; a
// closer thread closes them, this one destroys the manager as soon as it can.
void soak_owner_thread() {
  while (!g.stop.load(std::memory_order_acquire)) {
    kro_dm_t *dm = nullptr;
    soak_ok(kro_dm_create(&dm), "dm create");
    uint32_t h[6] = {};
    char *name[6], text[32];
    const unsigned long long first = g.names.fetch_add(4);
    for (unsigned i = 0; i < 6; ++i) {  // names 0, 0, 1, 1, 2, 3; servers 0 and 2
      std::snprintf(text, sizeof text, "req.%llu", first + (i < 4 ? i / 2 : i - 2));
      name[i] = strdup(text);
      soak_open(&h[i], name[i], i == 0 || i == 2 ? LIB_ITC_SERVER : LIB_ITC_CLIENT, dm, nullptr);
    }
    soak_send(h[1], 0, 16);  // to the server of the first name: freed at its clean-up
    std::thread closer([&, k0 = t_rng()] {
      for (unsigned k = k0; k < k0 + 6; ++k) {
        soak_ok(lib_itc_close(&h[k % 6]), "request close");
        std::free(name[k % 6]);
      }
    });
    while (kro_dm_destroy(&dm) == KRO_DM_EBUSY) {
      soak_ok(kro_dm_wait(dm), "wait");
      soak_ok(kro_dm_dispatch(dm), "dispatch");
    }
    closer.join();
  }
}

}  // namespace

int main(int argc, char **argv) {
  unsigned seconds = 10, senders = 3;
  for (int i = 1; i + 1 < argc; i += 2) {
    (std::strcmp(argv[i], "--senders") == 0 ? senders : seconds) = std::atoi(argv[i + 1]);
  }
  Server warm{nullptr, "soak.warm"}, servers[2] = {{nullptr, kName[0]}, {nullptr, kName[1]}};
  soak_ok(kro_dm_create(&warm.dm), "dm create");
  warm.once();  // the process-wide name service lives on: made before the blocks are counted
  const long live_at_start = zel_test::fault_live_blocks();
  zel_test::fault_set_free_hook(soak_free_hook);
  std::vector<std::thread> threads;
  for (uint32_t i = 0; i < 2; ++i) {
    soak_ok(kro_dm_create(&servers[i].dm), "dm create");
    threads.emplace_back(soak_server_thread, &servers[i], 0x1234567u * (i + 1));
  }
  for (uint32_t i = 0; i < senders; ++i) threads.emplace_back(soak_sender_thread, 7919u * i + 1);
  threads.emplace_back(soak_owner_thread);
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  g.stop.store(true, std::memory_order_release);
  for (Server &s : servers) kro_dm_wake(s.dm);
  for (std::thread &t : threads) t.join();
  for (Server &s : servers) s.once();
  zel_test::fault_set_free_hook(nullptr);
  const long live = zel_test::fault_live_blocks() - live_at_start;
  const bool ok = g.allocated == g.sent + g.freed_sender &&
                  g.sent == g.received + g.freed_library && g.failures == 0 && live == 0;
  std::printf(
      "itc_soak: allocated %llu, sent %llu, received %llu, freed by sender %llu and by "
      "library %llu; %llu failures, %ld blocks left, %llu names made per request: %s\n",
      g.allocated.load(), g.sent.load(), g.received.load(), g.freed_sender.load(),
      g.freed_library.load(), g.failures.load(), live, g.names.load(), ok ? "balanced" : "FAILED");
  return ok ? 0 : 1;
}
