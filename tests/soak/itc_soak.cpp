// Channel soak: server threads that close and reopen their names while sender threads open,
// push and close clients, each thread running its own dispatch manager. Beside them, a process's
// whole life in fast motion: an owner thread creates a manager, opens servers and clients on
// names made per request, and a closer thread closes them from outside and frees each name
// string as soon as its close returns, while the owner destroys its manager right after the last
// clean-up, then starts over; the names' ids come round again many times. Senders push until the
// server's budget refuses (28); receivers are sometimes slow and sometimes ignore a message, so
// its bytes come back through the library's discard; servers answer some messages, racing the
// clients' closes. After the given time everything closes, and one line of totals is printed.
// Exit status 1 unless the totals balance exactly: every allocated message was received (and
// freed by its receiver), freed by its sender after a failed send, or freed by the library
// (discarded, or still queued when its channel was cleaned up), and no block is left live.
//
// The library's frees are seen through the test allocator's free hook: every payload this
// program allocates starts with a live stamp, which it overwrites before it frees a message
// itself, so a block freed with the stamp still live is a message the library freed.
//
// The last line also gives how often the ids came round, and the live blocks and resident memory
// after the warm-up, after the first tenth of the run and at the end.
//
//   itc_soak [--seconds N (default 10)] [--senders N (default 3)]
#include <kro/dm.h>
#include <malloc.h>
#include <unistd.h>
#include <zel/itc.h>
#include <zel/name_service.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "support/fault.h"

namespace {

constexpr uint64_t kLive = 0x5a454c2d4954432bull;  // payload stamp while the message is out
constexpr uint64_t kDone = 0x646f6e65646f6e65ull;  // stamped before the program frees it
constexpr unsigned kNames = 2;
const char *const kName[kNames] = {"soak.a", "soak.b"};
const lib_itc_attr_t kServerAttr = {0, 64, 4096};
const lib_itc_attr_t kClientAttr = {0, 16, 512};
constexpr unsigned kCodes = 128;

struct Totals {
  std::atomic<uint64_t> allocated{0}, sent{0}, received{0}, names{0};
  std::atomic<uint64_t> freed_receiver{0}, freed_sender{0}, freed_library{0};
  std::atomic<uint64_t> corrupt{0}, errors{0};
  std::atomic<uint64_t> refused[kCodes] = {};
};
Totals g_totals;
std::atomic<bool> g_stop{false};

// Counts and reports an unexpected non-zero result.
void soak_ok(int rc, const char *what) {
  if (rc != 0) {
    ++g_totals.errors;
    std::fprintf(stderr, "itc_soak: %s: %d\n", what, rc);
  }
}

// Counts the library's frees of this program's messages (see above).
void soak_free_hook(void *block) {
  auto *hdr = static_cast<lib_itc_msg_hdr_t *>(block);
  uint64_t stamp = 0;
  if (malloc_usable_size(block) >= sizeof *hdr + sizeof stamp && hdr->type == LIB_ITC_MSG_DATA &&
      (std::memcpy(&stamp, hdr + 1, sizeof stamp), stamp == kLive)) {
    std::memset(hdr + 1, 0, sizeof stamp);  // a reused block must not count twice
    ++g_totals.freed_library;
  }
}

uint32_t soak_rand(uint32_t &s) {  // xorshift32
  s ^= s << 13;
  s ^= s >> 17;
  s ^= s << 5;
  return s;
}

// Frees a message the program owns, over-stamping it first.
void soak_free(uint32_t handle, void *payload, std::atomic<uint64_t> &counter) {
  std::memcpy(payload, &kDone, sizeof kDone);
  soak_ok(lib_itc_free(handle, payload), "free");
  ++counter;
}

// Allocates, stamps and sends a message of `length` (at least 8) bytes; a refused message is
// freed by its sender. Returns the send's result.
int soak_send(uint32_t handle, uint32_t destination, uint32_t length) {
  void *p = nullptr;
  int rc = lib_itc_alloc(handle, length, &p);
  soak_ok(rc, "alloc");
  if (rc != 0) {
    return rc;
  }
  ++g_totals.allocated;
  std::memcpy(p, &kLive, sizeof kLive);
  std::memset(static_cast<char *>(p) + sizeof kLive, 0x5a, length - sizeof kLive);
  rc = lib_itc_send(handle, destination, p);
  if (rc == 0) {
    ++g_totals.sent;
    return 0;
  }
  g_totals.refused[rc < static_cast<int>(kCodes) ? rc : kCodes - 1].fetch_add(1);
  soak_free(handle, p, g_totals.freed_sender);
  return rc;
}

// Takes the data message being delivered and frees it; returns the sender. With `may_close`,
// another thread may be closing the channel meanwhile, which a receive meets as 22 (the message
// then goes with the channel).
uint32_t soak_receive(uint32_t handle, bool may_close = false) {
  uint32_t sender = 0, length = 0;
  void *p = nullptr;
  const int rc = lib_itc_receive(handle, &sender, &p, &length);
  soak_ok(may_close && rc == LIB_ITC_EINVAL ? 0 : rc, "receive");
  if (rc != 0) {
    return 0;
  }
  ++g_totals.received;
  uint64_t stamp = 0;
  std::memcpy(&stamp, p, sizeof stamp);
  if (length < sizeof stamp || stamp != kLive) {
    ++g_totals.corrupt;
  }
  soak_free(handle, p, g_totals.freed_receiver);
  return sender;
}

struct Server {
  kro_dm_t *dm = nullptr;  // created and destroyed by main, run by the server's thread
  const char *name = nullptr;
  uint32_t handle = 0;
  uint32_t rng = 0;
};

// Server callback: reads connection events, receives most messages (now and then slowly),
// ignores a quarter, answers one in eight and, rarely, closes its own channel.
void soak_server_cb(uint32_t handle, uint32_t type, void *cookie) {
  auto *s = static_cast<Server *>(cookie);
  const uint32_t r = soak_rand(s->rng);
  if (type == LIB_ITC_MSG_CONNECT) {
    uint32_t event = 0, client = 0;
    soak_ok((r & 3) != 0 ? lib_itc_get_connection_event(handle, &event, &client) : 0, "event");
  } else if (type == LIB_ITC_MSG_DATA && (r & 3) != 0) {
    if ((r & 0xff0) == 0) {
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    const uint32_t sender = soak_receive(handle);
    if (sender != 0 && (r & 0x7000) == 0) {
      soak_send(handle, sender, 8 + (r >> 24) % 64);
    }
  }
  if (r % 4096 == 1 && handle == s->handle) {
    soak_ok(lib_itc_close(&s->handle), "server close in callback");  // the loop reopens it
  }
}

// Client callback: receives half the answers and ignores the rest (and all notifications).
void soak_client_cb(uint32_t handle, uint32_t type, void *cookie) {
  auto *rng = static_cast<uint32_t *>(cookie);
  if (type == LIB_ITC_MSG_DATA && (soak_rand(*rng) & 1) != 0) {
    soak_receive(handle);
  }
}

void soak_pump(kro_dm_t *dm) {
  for (int i = 0; i < 4; ++i) {
    soak_ok(kro_dm_dispatch(dm), "dispatch");
  }
}

void soak_server_open(Server &s) {
  soak_ok(static_cast<int>(lib_itc_open(&s.handle, s.name, LIB_ITC_SERVER, &kServerAttr, s.dm,
                                        soak_server_cb, &s)),
          "server open");
}

// A server thread: a client that keeps the name bound for the whole run (so that its id is
// never given up), and the server, closed and reopened now and then from the loop.
void soak_server_thread(Server *s) {
  uint32_t keeper_rng = s->rng ^ 0x9e3779b9u, keeper = 0;
  soak_ok(static_cast<int>(lib_itc_open(&keeper, s->name, LIB_ITC_CLIENT, &kClientAttr, s->dm,
                                        soak_client_cb, &keeper_rng)),
          "keeper open");
  soak_server_open(*s);
  while (!g_stop.load(std::memory_order_acquire)) {
    soak_ok(kro_dm_wait(s->dm), "wait");
    soak_ok(kro_dm_dispatch(s->dm), "dispatch");
    if (s->handle != 0 && soak_rand(s->rng) % 64 == 0) {
      soak_ok(lib_itc_close(&s->handle), "server close");
    }
    if (s->handle == 0) {
      soak_server_open(*s);
    }
  }
  soak_ok(lib_itc_close(&s->handle), "server close");
  soak_ok(lib_itc_close(&keeper), "keeper close");
  soak_pump(s->dm);
}

// A sender thread: opens a client on one of the names, pushes bursts until the server's budget
// refuses, steps its own manager between bursts, and closes (sometimes with answers still
// queued, which the clean-up frees).
void soak_sender_thread(uint32_t seed) {
  kro_dm_t *dm = nullptr;
  soak_ok(kro_dm_create(&dm), "dm create");
  uint32_t rng = seed;
  while (dm != nullptr && !g_stop.load(std::memory_order_acquire)) {
    uint32_t h = 0;
    soak_ok(static_cast<int>(lib_itc_open(&h, kName[soak_rand(rng) % kNames], LIB_ITC_CLIENT,
                                          &kClientAttr, dm, soak_client_cb, &rng)),
            "client open");
    for (uint32_t rounds = 1 + soak_rand(rng) % 8; rounds > 0; --rounds) {
      // A burst: up to 64 messages, ended early by the server's budget.
      int burst = 64;
      while (burst-- > 0 && soak_send(h, 0, 8 + soak_rand(rng) % 1024) != LIB_ITC_ENOSPC) {
      }
      soak_ok(kro_dm_dispatch(dm), "dispatch");
      std::this_thread::yield();
    }
    if ((soak_rand(rng) & 1) != 0) {
      soak_ok(kro_dm_dispatch(dm), "dispatch");
    }
    soak_ok(lib_itc_close(&h), "client close");
    soak_pump(dm);
  }
  soak_ok(kro_dm_destroy(&dm), "dm destroy");
}

// Callback of the per-request channels: receives what comes, while the closer thread may be
// closing the channel.
void soak_request_cb(uint32_t handle, uint32_t type, void * /*cookie*/) {
  if (type == LIB_ITC_MSG_DATA) {
    soak_receive(handle, true);
  }
}

// One batch of per-request names, handed from the owner to the closer.
struct Batch {
  static constexpr unsigned kSize = 6;  // two names with a server and a client, two client-only
  uint32_t handle[kSize] = {};
  char *name[kSize] = {};
  std::atomic<int> state{0};  // 0 empty, 1 ready to close, 2 closed, 3 the owner has stopped
};

// The owner: a new manager per batch, its channels opened here, closed by the closer thread,
// and the manager destroyed as soon as their clean-up has run.
void soak_owner_thread(Batch *b) {
  uint32_t seq = 0;
  while (!g_stop.load(std::memory_order_acquire)) {
    kro_dm_t *dm = nullptr;
    soak_ok(kro_dm_create(&dm), "dm create");
    char text[32];
    for (unsigned i = 0; i < Batch::kSize; ++i) {
      if (i % 2 == 0 || i >= 4) {
        std::snprintf(text, sizeof text, "req.%u", seq++);
        ++g_totals.names;
      }
      b->name[i] = strdup(text);
      const int32_t role = i < 4 && i % 2 == 0 ? LIB_ITC_SERVER : LIB_ITC_CLIENT;
      soak_ok(static_cast<int>(lib_itc_open(&b->handle[i], b->name[i], role, &kClientAttr, dm,
                                            soak_request_cb, nullptr)),
              "request open");
    }
    soak_send(b->handle[1], 0, 16);  // to the server of the first name: freed at its clean-up
    b->state.store(1, std::memory_order_release);
    while (kro_dm_destroy(&dm) == KRO_DM_EBUSY) {
      soak_ok(kro_dm_wait(dm), "wait");
      soak_ok(kro_dm_dispatch(dm), "dispatch");
    }
    while (b->state.load(std::memory_order_acquire) != 2) {  // the closer's last free
      std::this_thread::yield();
    }
    b->state.store(0, std::memory_order_relaxed);
  }
  b->state.store(3, std::memory_order_release);
}

// The closer: closes each channel of a batch from its own thread, clients and servers in a
// shuffled order, and frees the name string right after the close returns.
void soak_closer_thread(Batch *b) {
  uint32_t rng = 0xdecade;
  for (;;) {
    int state = 0;
    while ((state = b->state.load(std::memory_order_acquire)) != 1) {
      if (state == 3) {
        return;
      }
      std::this_thread::yield();
    }
    const unsigned first = soak_rand(rng) % Batch::kSize;
    for (unsigned k = 0; k < Batch::kSize; ++k) {
      const unsigned i = (first + k) % Batch::kSize;
      soak_ok(lib_itc_close(&b->handle[i]), "request close");
      std::free(b->name[i]);
      b->name[i] = nullptr;
    }
    b->state.store(2, std::memory_order_release);
  }
}

// Resident memory in KiB.
long soak_rss_kib() {
  long pages = 0, resident = 0;
  if (FILE *f = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) {
      resident = 0;
    }
    std::fclose(f);
  }
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

unsigned long long soak_load(const std::atomic<uint64_t> &v) {
  return v.load();
}

}  // namespace

int main(int argc, char **argv) {
  unsigned seconds = 10, senders = 3;
  for (int i = 1; i + 1 < argc; i += 2) {
    const auto v = static_cast<unsigned>(std::strtoul(argv[i + 1], nullptr, 10));
    if (std::strcmp(argv[i], "--seconds") == 0) {
      seconds = v;
    } else if (std::strcmp(argv[i], "--senders") == 0) {
      senders = v;
    }
  }
  {
    // The process-wide name service lives on: create it before the blocks are counted.
    kro_dm_t *dm = nullptr;
    uint32_t h = 0, rng = 1;
    soak_ok(kro_dm_create(&dm), "dm create");
    soak_ok(static_cast<int>(
                lib_itc_open(&h, "soak.warm", LIB_ITC_SERVER, nullptr, dm, soak_client_cb, &rng)),
            "warm-up open");
    soak_ok(lib_itc_close(&h), "warm-up close");
    soak_pump(dm);
    soak_ok(kro_dm_destroy(&dm), "dm destroy");
  }
  const long live_at_start = zel_test::fault_live_blocks();
  const long rss_at_start = soak_rss_kib();
  zel_test::fault_set_free_hook(soak_free_hook);

  Server servers[kNames];
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < kNames; ++i) {
    servers[i].name = kName[i];
    servers[i].rng = 0x1234567u * (i + 1);
    soak_ok(kro_dm_create(&servers[i].dm), "dm create");
    threads.emplace_back(soak_server_thread, &servers[i]);
  }
  for (unsigned i = 0; i < senders; ++i) {
    threads.emplace_back(soak_sender_thread, 0xa5a5a5u + 7919u * i);
  }
  Batch batch;
  threads.emplace_back(soak_owner_thread, &batch);
  threads.emplace_back(soak_closer_thread, &batch);
  // The run's length; live blocks and memory once the first tenth has warmed the allocator.
  std::this_thread::sleep_for(std::chrono::milliseconds(seconds * 100));
  const long live_early = zel_test::fault_live_blocks() - live_at_start;
  const long rss_early = soak_rss_kib();
  std::this_thread::sleep_for(std::chrono::milliseconds(seconds * 900));
  g_stop.store(true, std::memory_order_release);
  for (Server &s : servers) {
    kro_dm_wake(s.dm);
  }
  for (std::thread &t : threads) {
    t.join();
  }
  for (Server &s : servers) {
    // A name whose server left before its last client stays bound; a server that comes and
    // goes alone releases it.
    soak_server_open(s);
    soak_ok(lib_itc_close(&s.handle), "last server close");
    soak_pump(s.dm);
    soak_ok(kro_dm_destroy(&s.dm), "server dm destroy");
  }
  zel_test::fault_set_free_hook(nullptr);
  const long live = zel_test::fault_live_blocks() - live_at_start;
  const long rss_end = soak_rss_kib();

  const Totals &t = g_totals;
  uint64_t refused = 0;
  std::printf(
      "itc_soak: %u s, %u senders: allocated %llu, sent %llu, received %llu; freed by "
      "receiver %llu, by sender %llu, by library %llu; refused",
      seconds, senders, soak_load(t.allocated), soak_load(t.sent), soak_load(t.received),
      soak_load(t.freed_receiver), soak_load(t.freed_sender), soak_load(t.freed_library));
  for (unsigned c = 0; c < kCodes; ++c) {
    if (const uint64_t n = t.refused[c].load()) {
      refused += n;
      std::printf(" %u:%llu", c, static_cast<unsigned long long>(n));
    }
  }
  const bool ok = t.allocated == t.freed_receiver + t.freed_sender + t.freed_library &&
                  t.sent == t.received + t.freed_library && t.received == t.freed_receiver &&
                  refused == t.freed_sender && t.allocated == t.sent + refused && t.corrupt == 0 &&
                  t.errors == 0 && live == 0;
  std::printf("; corrupt %llu, errors %llu, blocks left %ld: %s\n", soak_load(t.corrupt),
              soak_load(t.errors), live, ok ? "balanced" : "NOT BALANCED");
  std::printf(
      "itc_soak: %llu names made per request (ids came round %llu times); live blocks %ld at "
      "a tenth of the run, %ld at the end; resident %ld KiB after warm-up, %ld at a tenth, %ld "
      "at the end\n",
      soak_load(t.names), soak_load(t.names) / LIB_NAME_SERVICE_MAX_ID, live_early, live,
      rss_at_start, rss_early, rss_end);
  return ok ? 0 : 1;
}
