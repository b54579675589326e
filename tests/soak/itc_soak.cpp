// Channel soak (README): fails unless every message was received, freed by its sender after a
// refusal or freed by the library (the free hook sees its live stamp), each channel's connection
// events alternate per peer, and no block is left.   itc_soak [--seconds N] [--senders N]
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
#include <map>
#include <thread>
#include <vector>

#include "support/fault.h"

namespace {

constexpr uint64_t kLive = 0x5a454c2d4954432bull;  // payload stamp while the message is out
constexpr unsigned kNames = 2;
const char *const kName[kNames] = {"soak.a", "soak.b"};
const lib_itc_attr_t kServerAttr = {0, 64, 4096};
const lib_itc_attr_t kClientAttr = {0, 16, 512};

struct Totals {
  std::atomic<unsigned long long> allocated{0}, sent{0}, received{0}, names{0};
  std::atomic<unsigned long long> freed_receiver{0}, freed_sender{0}, freed_library{0};
  std::atomic<unsigned long long> corrupt{0}, errors{0}, out_of_order{0};
};
Totals g_totals;
std::atomic<bool> g_stop{false};

// Counts and reports an unexpected non-zero result; whether the result was 0.
bool soak_ok(int rc, const char *what) {
  if (rc != 0) {
    ++g_totals.errors;
    std::fprintf(stderr, "itc_soak: %s: %d\n", what, rc);
  }
  return rc == 0;
}

// Counts the library's frees of this program's messages: blocks freed with the stamp still live.
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

uint32_t soak_open(uint32_t *h, const char *name, int32_t role, const lib_itc_attr_t *attr,
                   kro_dm_t *dm, lib_itc_callback_t cb, void *cookie) {
  const uint32_t rc = lib_itc_open(h, name, role, attr, dm, cb, cookie);
  soak_ok(static_cast<int>(rc), role == LIB_ITC_SERVER ? "server open" : "client open");
  return rc;
}

// Frees a message the program owns, its stamp wiped first.
void soak_free(uint32_t handle, void *payload, std::atomic<unsigned long long> &counter) {
  std::memset(payload, 0, sizeof kLive);
  soak_ok(lib_itc_free(handle, payload), "free");
  ++counter;
}

// Sends a stamped message of `length` (at least 8) bytes, freed by the sender when refused.
int soak_send(uint32_t handle, uint32_t destination, uint32_t length) {
  void *p = nullptr;
  if (!soak_ok(lib_itc_alloc(handle, length, &p), "alloc")) {
    return -1;
  }
  ++g_totals.allocated;
  std::memcpy(p, &kLive, sizeof kLive);
  std::memset(static_cast<char *>(p) + sizeof kLive, 0x5a, length - sizeof kLive);
  const int rc = lib_itc_send(handle, destination, p);
  g_totals.sent += rc == 0 ? 1 : 0;
  if (rc != 0) {
    soak_free(handle, p, g_totals.freed_sender);
  }
  return rc;
}

// Receives and frees the message being delivered; returns the sender. With `may_close`, a close
// on another thread may make the receive fail with 22 (the message goes with the channel).
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
  g_totals.corrupt += length < sizeof stamp || stamp != kLive ? 1 : 0;
  soak_free(handle, p, g_totals.freed_receiver);
  return sender;
}

struct Server {  // its manager is created and destroyed by main, run by the server's thread
  kro_dm_t *dm = nullptr;
  const char *name = nullptr;
  uint32_t handle = 0, rng = 0;
  std::map<uint32_t, bool> connected;  // of the open instance, by client
  uint32_t open() {
    connected.clear();
    return soak_open(&handle, name, LIB_ITC_SERVER, &kServerAttr, dm, soak_server_cb, this);
  }
  static void soak_server_cb(uint32_t handle, uint32_t type, void *cookie);
};

// Takes every connection event and three quarters of the data (some slowly), answers one in
// eight, rarely closes its own channel.
void Server::soak_server_cb(uint32_t handle, uint32_t type, void *cookie) {
  auto *s = static_cast<Server *>(cookie);
  const uint32_t r = soak_rand(s->rng);
  uint32_t event = 0, client = 0;
  if (type == LIB_ITC_MSG_CONNECT &&
      soak_ok(lib_itc_get_connection_event(handle, &event, &client), "event")) {
    g_totals.out_of_order += s->connected[client] == (event == LIB_ITC_MSG_CONNECT) ? 1 : 0;
    s->connected[client] = event == LIB_ITC_MSG_CONNECT;
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

struct Client {
  uint32_t rng;
  bool connected = false;
};

// Receives half the answers, or with no cookie every message of a channel that the closer
// thread may be closing.
void soak_client_cb(uint32_t handle, uint32_t type, void *cookie) {
  auto *c = static_cast<Client *>(cookie);
  if (c != nullptr && type != LIB_ITC_MSG_DATA) {
    g_totals.out_of_order += c->connected == (type == LIB_ITC_MSG_CONNECTED) ? 1 : 0;
    c->connected = type == LIB_ITC_MSG_CONNECTED;
  } else if (type == LIB_ITC_MSG_DATA && (c == nullptr || (soak_rand(c->rng) & 1) != 0)) {
    soak_receive(handle, c == nullptr);
  }
}

void soak_pump(kro_dm_t *dm) {
  for (int i = 0; i < 4; ++i) {
    soak_ok(kro_dm_dispatch(dm), "dispatch");
  }
}

// A keeper client holds the name (and its id) for the whole run; the server comes and goes.
void soak_server_thread(Server *s) {
  Client keeper_client{s->rng ^ 0x9e3779b9u};
  uint32_t keeper = 0;
  soak_open(&keeper, s->name, LIB_ITC_CLIENT, &kClientAttr, s->dm, soak_client_cb, &keeper_client);
  while (!g_stop.load(std::memory_order_acquire)) {
    if (s->handle == 0) {
      s->open();
    }
    soak_ok(kro_dm_wait(s->dm), "wait");
    soak_ok(kro_dm_dispatch(s->dm), "dispatch");
    if (s->handle != 0 && soak_rand(s->rng) % 64 == 0) {
      soak_ok(lib_itc_close(&s->handle), "server close");
    }
  }
  soak_ok(s->handle != 0 ? lib_itc_close(&s->handle) : 0, "server close");
  soak_ok(lib_itc_close(&keeper), "keeper close");  // main runs the clean-ups
}

// Bursts of up to 64 messages ended early by the budget, then a close (answers may be queued).
void soak_sender_thread(uint32_t rng) {
  kro_dm_t *dm = nullptr;
  soak_ok(kro_dm_create(&dm), "dm create");
  while (dm != nullptr && !g_stop.load(std::memory_order_acquire)) {
    uint32_t h = 0;
    Client client{rng};
    soak_open(&h, kName[soak_rand(rng) % kNames], LIB_ITC_CLIENT, &kClientAttr, dm, soak_client_cb,
              &client);
    for (uint32_t rounds = 1 + soak_rand(rng) % 8; rounds > 0; --rounds) {
      for (int burst = 64;
           burst-- > 0 && soak_send(h, 0, 8 + soak_rand(rng) % 1024) != LIB_ITC_ENOSPC;) {
      }
      soak_ok(kro_dm_dispatch(dm), "dispatch");
      std::this_thread::yield();
    }
    soak_ok((soak_rand(rng) & 1) != 0 ? kro_dm_dispatch(dm) : 0, "dispatch");
    soak_ok(lib_itc_close(&h), "client close");
    soak_pump(dm);
    rng = client.rng;
  }
  soak_ok(kro_dm_destroy(&dm), "dm destroy");
}

// Two names with a server and a client and two client-only ones, made per request on a new
// manager; another thread closes them, this one destroys the manager as soon as it can.
void soak_owner_thread() {
  uint32_t rng = 0xdecade;
  for (uint32_t seq = 0; !g_stop.load(std::memory_order_acquire);) {
    kro_dm_t *dm = nullptr;
    soak_ok(kro_dm_create(&dm), "dm create");
    uint32_t handle[6] = {};
    char *name[6] = {}, text[32];
    for (unsigned i = 0; i < 6; ++i) {
      if (i % 2 == 0 || i >= 4) {
        std::snprintf(text, sizeof text, "req.%u", seq++);
        ++g_totals.names;
      }
      name[i] = strdup(text);
      soak_open(&handle[i], name[i], i < 4 && i % 2 == 0 ? LIB_ITC_SERVER : LIB_ITC_CLIENT,
                &kClientAttr, dm, soak_client_cb, nullptr);
    }
    soak_send(handle[1], 0, 16);  // to the server of the first name: freed at its clean-up
    std::thread closer([&, first = soak_rand(rng)] {
      for (unsigned k = 0; k < 6; ++k) {
        soak_ok(lib_itc_close(&handle[(first + k) % 6]), "request close");
        std::free(name[(first + k) % 6]);
      }
    });
    while (kro_dm_destroy(&dm) == KRO_DM_EBUSY) {
      soak_ok(kro_dm_wait(dm), "wait");
      soak_ok(kro_dm_dispatch(dm), "dispatch");
    }
    closer.join();
  }
}

long soak_rss_kib() {
  long pages = 0, resident = 0;
  if (FILE *f = std::fopen("/proc/self/statm", "r")) {
    resident = std::fscanf(f, "%ld %ld", &pages, &resident) == 2 ? resident : 0;
    std::fclose(f);
  }
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

}  // namespace

int main(int argc, char **argv) {
  unsigned seconds = 10, senders = 3;
  for (int i = 1; i + 1 < argc; i += 2) {
    (std::strcmp(argv[i], "--senders") == 0 ? senders : seconds) =
        static_cast<unsigned>(std::strtoul(argv[i + 1], nullptr, 10));
  }
  {  // the process-wide name service lives on: create it before the blocks are counted
    kro_dm_t *dm = nullptr;
    uint32_t h = 0;
    soak_ok(kro_dm_create(&dm), "dm create");
    soak_open(&h, "soak.warm", LIB_ITC_SERVER, nullptr, dm, soak_client_cb, nullptr);
    soak_ok(lib_itc_close(&h), "warm-up close");
    soak_pump(dm);
    soak_ok(kro_dm_destroy(&dm), "dm destroy");
  }
  const long live_at_start = zel_test::fault_live_blocks(), rss_at_start = soak_rss_kib();
  zel_test::fault_set_free_hook(soak_free_hook);
  Server servers[kNames] = {{nullptr, kName[0], 0, 0x1234567u, {}},
                            {nullptr, kName[1], 0, 0x2468aceu, {}}};
  std::vector<std::thread> threads;
  for (Server &s : servers) {
    soak_ok(kro_dm_create(&s.dm), "dm create");
    threads.emplace_back(soak_server_thread, &s);
  }
  for (unsigned i = 0; i < senders; ++i) {
    threads.emplace_back(soak_sender_thread, 0xa5a5a5u + 7919u * i);
  }
  threads.emplace_back(soak_owner_thread);
  std::this_thread::sleep_for(std::chrono::milliseconds(seconds * 100));
  const long live_early = zel_test::fault_live_blocks() - live_at_start, rss_early = soak_rss_kib();
  std::this_thread::sleep_for(std::chrono::milliseconds(seconds * 900));
  g_stop.store(true, std::memory_order_release);
  kro_dm_wake(servers[0].dm);
  kro_dm_wake(servers[1].dm);
  for (std::thread &t : threads) {
    t.join();
  }
  for (Server &s : servers) {
    // A server that comes and goes alone releases a name whose server left before its clients.
    s.open();
    soak_ok(lib_itc_close(&s.handle), "last server close");
    soak_pump(s.dm);
    soak_ok(kro_dm_destroy(&s.dm), "server dm destroy");
  }
  zel_test::fault_set_free_hook(nullptr);
  const long live = zel_test::fault_live_blocks() - live_at_start, rss_end = soak_rss_kib();
  const Totals &t = g_totals;
  const bool ok = t.allocated == t.freed_receiver + t.freed_sender + t.freed_library &&
                  t.sent == t.received + t.freed_library && t.received == t.freed_receiver &&
                  t.allocated == t.sent + t.freed_sender && t.corrupt == 0 && t.errors == 0 &&
                  t.out_of_order == 0 && live == 0;
  std::printf(
      "itc_soak: %u s, %u senders: allocated %llu, sent %llu, received %llu; freed "
      "by receiver %llu, by sender %llu, by library %llu; corrupt %llu, errors %llu, events out "
      "of order %llu, blocks left %ld: %s\n",
      seconds, senders, t.allocated.load(), t.sent.load(), t.received.load(),
      t.freed_receiver.load(), t.freed_sender.load(), t.freed_library.load(), t.corrupt.load(),
      t.errors.load(), t.out_of_order.load(), live, ok ? "balanced" : "NOT BALANCED");
  std::printf(
      "itc_soak: %llu names made per request (ids came round %llu times); live blocks %ld at "
      "a tenth of the run, %ld at the end; resident %ld KiB after warm-up, %ld at a tenth, %ld "
      "at the end\n",
      t.names.load(), t.names.load() / LIB_NAME_SERVICE_MAX_ID, live_early, live, rss_at_start,
      rss_early, rss_end);
  return ok ? 0 : 1;
}
