// libFuzzer target: random sequences of channel operations on one thread, each result checked
// against a model of the channels, every data message followed from its allocation to its one
// free.
//
// Input: operations, each an opcode byte followed by argument bytes (missing bytes read as 0):
// open, close, alloc and send (sizes up to past the default budget; a refused message is freed
// or kept), send or free a kept message, a non-blocking dispatch step of one of three managers,
// receive and connection events between dispatch steps, and calls with invalid arguments. The
// callbacks read the input too: receive (once or twice), ignore, answer, read a connection event
// where none is at hand, or close their own channel. At the end of each input every message kept
// is freed, every channel closed and the managers stepped: all messages must then be gone.
//
// The model knows which channels are open and so which sends must be refused (22), the payload
// bytes queued at each channel and so exactly when the budget refuses (28), the order of data
// messages per channel, and an upper bound of each queue's length (a send to a full queue gets
// KRO_DM_EAGAIN only when the bound allows it). The target wraps free (fuzz/targets.cmake):
// a data message freed by the library must be one the library owns (discarded by the handler
// after a callback that did not take it, or queued at a channel that was closed); the library
// frees those blocks at once, while the target's own frees may stay in this thread's cache.
//
// Names stay bound for the whole process (a client on each, on a manager of its own, the
// "keeper"), so that their ids stay put from one input to the next and kBogus is never handed
// out.
#include <kro/dm.h>
#include <zel/itc.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <unordered_map>
#include <vector>

#include "fuzz/fuzz_check.h"
#include "lib/itc_block.h"

extern "C" void __real_free(void *p);  // NOLINT(bugprone-reserved-identifier)

namespace {

constexpr unsigned kNames = 3;
const char *const kName[kNames] = {"fz.a", "fz.b", "fz.c"};
constexpr unsigned kSlots = 8;
constexpr uint32_t kBogus = 0xFFFF0001u;  // an id no name ever gets in this process
const lib_itc_attr_t kAttr[4] = {{0, 50, 8192}, {0, 4, 64}, {0, 1024, 300}, {0, 2, 0}};
const uint32_t kSize[16] = {0,   1,   7,    8,    31,   64,   100,  255,
                            256, 300, 1000, 4095, 4096, 8192, 8193, 3};

enum class Owner { app, queued, library };
struct Msg {
  uint32_t from, length, serial;
  Owner owner;
};
struct Chan {
  uint32_t as;      // the handle it was opened with
  uint32_t handle;  // the same while open, 0 once closed
  uint32_t id;
  bool server, keeper;
  int dm;
  lib_itc_attr_t attr;
  uint64_t bytes = 0;                    // payload bytes counted against the budget
  int64_t bound = 0;                     // upper bound of the messages in the queue
  std::deque<lib_itc_msg_hdr_t *> data;  // data messages queued for it, in order
};

using Input = zel_fuzz_bytes;

struct Model {
  Input in;
  kro_dm_t *dm[3];          // the keepers' manager last
  std::vector<Chan> chans;  // the keepers first
  int slot[kSlots];         // channel of each table slot, -1: none yet
  std::unordered_map<lib_itc_msg_hdr_t *, Msg> msgs;
  std::vector<void *> kept;
  uint32_t serial = 0;
  bool target_frees = false;
};
Model *g = nullptr;  // the input being run
kro_dm_t *g_keeper_dm = nullptr;
uint32_t g_keeper[kNames];

lib_itc_msg_hdr_t *hdr_of(void *payload) {
  return static_cast<lib_itc_msg_hdr_t *>(payload) - 1;
}
uint32_t id_of(uint32_t h) {
  return h >> 16;
}
int find_open(uint32_t h) {
  for (size_t i = 0; i < g->chans.size(); ++i) {
    if (h != 0 && g->chans[i].handle == h) return static_cast<int>(i);
  }
  return -1;
}
uint32_t slot_handle(unsigned k) {
  const int c = g->slot[k % kSlots];
  return c < 0 ? g_keeper[k % kNames] : g->chans[static_cast<size_t>(c)].as;
}
// The keeper of name id `id`, or 0: its handle names a bound name.
uint32_t keeper_of(uint32_t id) {
  for (uint32_t k : g_keeper) {
    if (id_of(k) == id) return k;
  }
  return 0;
}

// Frees a message the target owns.
void target_free(uint32_t handle, void *payload) {
  ZEL_FUZZ_CHECK(g->msgs.at(hdr_of(payload)).owner == Owner::app);
  g->target_frees = true;
  ZEL_FUZZ_CHECK(lib_itc_free(handle, payload) == 0);
  g->target_frees = false;
  g->msgs.erase(hdr_of(payload));  // kept in this thread's cache, the block may not reach free
}
void keep_or_free(uint32_t handle, void *payload, bool keep) {
  if (keep && g->kept.size() < 8) {
    g->kept.push_back(payload);
  } else {
    target_free(handle, payload);
  }
}

// Checks a message the target has just taken out of channel c, which must be the next data
// message queued for it, and makes it the target's.
void took(int c, uint32_t sender, void *payload, uint32_t length) {
  Chan &ch = g->chans[static_cast<size_t>(c)];
  ZEL_FUZZ_CHECK(!ch.data.empty() && ch.data.front() == hdr_of(payload));
  ch.data.pop_front();
  Msg &m = g->msgs.at(hdr_of(payload));
  ZEL_FUZZ_CHECK(m.owner == Owner::queued && m.from == sender && m.length == length);
  for (uint32_t i = 0; i < length; ++i) {
    ZEL_FUZZ_CHECK(static_cast<uint8_t *>(payload)[i] == static_cast<uint8_t>(m.serial + i));
  }
  m.owner = Owner::app;
  ch.bytes -= length;
}

// A notification posted to channel c (it may be dropped when the queue is full).
void notified(int c) {
  ++g->chans[static_cast<size_t>(c)].bound;
}

// Calls f for each open peer of channel c: a client's server, or each client of a server.
template <typename F>
void peers(int c, F f) {
  const Chan &ch = g->chans[static_cast<size_t>(c)];
  for (size_t i = 0; i < g->chans.size(); ++i) {
    const Chan &p = g->chans[i];
    if (static_cast<int>(i) != c && p.handle != 0 && p.id == ch.id && p.server != ch.server) {
      f(static_cast<int>(i));
    }
  }
}

void closed(int c) {
  Chan &ch = g->chans[static_cast<size_t>(c)];
  ch.handle = 0;
  for (lib_itc_msg_hdr_t *h : ch.data) {
    g->msgs.at(h).owner = Owner::library;  // freed by the clean-up
  }
  ch.data.clear();
  peers(c, notified);
}

void do_close(uint32_t h) {
  const int c = find_open(h);
  if (c >= 0 && g->chans[static_cast<size_t>(c)].keeper) return;
  uint32_t var = h;
  const int rc = lib_itc_close(&var);
  ZEL_FUZZ_CHECK(rc == (c >= 0 ? 0 : LIB_ITC_EINVAL) && var == (c >= 0 ? 0 : h));
  if (c >= 0) closed(c);
}

// Allocates a stamped message for `handle`.
void *alloc(uint32_t handle, uint32_t length) {
  void *p = nullptr;
  ZEL_FUZZ_CHECK(lib_itc_alloc(handle, length, &p) == 0);
  const uint32_t serial = ++g->serial;
  for (uint32_t i = 0; i < length; ++i) {
    static_cast<uint8_t *>(p)[i] = static_cast<uint8_t>(serial + i);
  }
  g->msgs[hdr_of(p)] = {handle, length, serial, Owner::app};
  return p;
}

// Sends a message the target owns, checking the result against the model. True when sent.
bool send(uint32_t h, uint32_t dest, void *payload) {
  const Msg &m = g->msgs.at(hdr_of(payload));
  int t = -1;
  int want = LIB_ITC_EINVAL;
  if (keeper_of(id_of(h)) != 0) {  // a bound name
    if ((h & 0xFFFF) != 0) {
      t = find_open(h & 0xFFFF0000u);
    } else if (dest != 0 && id_of(dest) == id_of(h)) {
      t = find_open(dest);
    }
  }
  Chan *ch = t >= 0 ? &g->chans[static_cast<size_t>(t)] : nullptr;
  if (ch != nullptr) {
    want = m.length + ch->bytes > ch->attr.max_bytes ? LIB_ITC_ENOSPC : 0;
  }
  const int rc = lib_itc_send(h, dest, payload);
  const bool full = want == 0 && rc == KRO_DM_EAGAIN && ch->bound >= ch->attr.queue_len;
  ZEL_FUZZ_CHECK(rc == want || full);
  if (rc != 0) return false;
  g->msgs.at(hdr_of(payload)).owner = Owner::queued;
  ch->data.push_back(hdr_of(payload));
  ch->bytes += m.length;
  ++ch->bound;
  return true;
}

uint32_t pick_dest(uint8_t b, uint32_t h) {
  switch (b & 3) {
    case 0:
      return 0;
    case 1:
      return kBogus;
    case 2:
      return slot_handle((b >> 2) & 7u);
    default:
      return keeper_of(id_of(h));
  }
}

void callback(uint32_t handle, uint32_t type, void *cookie) {
  const auto c = static_cast<int>(reinterpret_cast<uintptr_t>(cookie));
  Chan *ch = &g->chans[static_cast<size_t>(c)];
  ZEL_FUZZ_CHECK(ch->handle == handle);
  --ch->bound;
  const uint8_t b = g->in.byte();
  uint32_t event = 1, client = 0, sender = 0, length = 0;
  void *p = nullptr;
  if (type == LIB_ITC_MSG_DATA) {
    lib_itc_msg_hdr_t *current = ch->data.empty() ? nullptr : ch->data.front();
    ZEL_FUZZ_CHECK(current != nullptr);
    bool taken = false;
    if ((b & 3) <= 1) {  // receive it, then perhaps the next one directly from the queue
      ZEL_FUZZ_CHECK(lib_itc_receive(handle, &sender, &p, &length) == 0);
      took(c, sender, p, length);
      keep_or_free(handle, p, (b & 4) != 0);
      taken = true;
      if ((b & 3) == 1) {
        const int rc = lib_itc_receive(handle, &sender, &p, &length);
        ZEL_FUZZ_CHECK(rc == 0 || rc == LIB_ITC_EAGAIN || rc == KRO_DM_ENOMSG);
        if (rc == 0) {
          took(c, sender, p, length);
          --ch->bound;
          target_free(handle, p);
        }
      }
    } else if ((b & 3) == 3) {  // not a connection event; answer; perhaps close
      ZEL_FUZZ_CHECK(lib_itc_get_connection_event(handle, &event, &client) == LIB_ITC_EAGAIN);
      ZEL_FUZZ_CHECK(event == 0);
      void *answer = alloc(handle, kSize[(b >> 2) & 15]);
      const Msg m = g->msgs.at(current);
      if (!send(handle, ch->server ? m.from : 0, answer)) target_free(handle, answer);
      ch = &g->chans[static_cast<size_t>(c)];
    }
    if (!taken) {  // discarded by the handler when the callback returns
      ch->data.pop_front();
      Msg &m = g->msgs.at(current);
      m.owner = Owner::library;
      ch->bytes -= m.length;
    }
  } else if (type == LIB_ITC_MSG_CONNECT) {
    ZEL_FUZZ_CHECK(ch->server);
    if ((b & 3) == 1) {
      ZEL_FUZZ_CHECK(lib_itc_receive(handle, &sender, &p, &length) == LIB_ITC_EAGAIN);
    } else if ((b & 3) != 2) {
      ZEL_FUZZ_CHECK(lib_itc_get_connection_event(handle, &event, &client) == 0);
      ZEL_FUZZ_CHECK(event == LIB_ITC_MSG_CONNECT || event == LIB_ITC_MSG_DISCONNECT);
      ZEL_FUZZ_CHECK(id_of(client) == ch->id && (client & 0xFFFF) != 0);
    }
  } else {
    ZEL_FUZZ_CHECK(!ch->server &&
                   (type == LIB_ITC_MSG_CONNECTED || type == LIB_ITC_MSG_DISCONNECT));
  }
  if ((b & 0x83) == 0x83) do_close(handle);
}

void op_open(uint8_t b) {
  const unsigned k = b & 7, name = ((b >> 3) & 3) % kNames;
  const bool server = (b & 0x20) != 0;
  if (g->slot[k] >= 0 && g->chans[static_cast<size_t>(g->slot[k])].handle != 0) return;
  const uint32_t id = id_of(g_keeper[name]);
  const int want = server && find_open(id << 16) >= 0 ? LIB_ITC_EBUSY : 0;
  const auto c = static_cast<int>(g->chans.size());
  uint32_t h = 0;
  const lib_itc_attr_t &attr = kAttr[b >> 6];
  const int rc = static_cast<int>(lib_itc_open(
      &h, kName[name], server ? LIB_ITC_SERVER : LIB_ITC_CLIENT, b >> 6 != 0 ? &attr : nullptr,
      g->dm[k & 1], callback, reinterpret_cast<void *>(static_cast<uintptr_t>(c))));
  ZEL_FUZZ_CHECK(rc == want);
  if (rc != 0) return;
  ZEL_FUZZ_CHECK(id_of(h) == id && ((h & 0xFFFF) == 0) == server && find_open(h) < 0);
  g->chans.push_back({h, h, id, server, false, static_cast<int>(k & 1), attr, 0, 0, {}});
  g->slot[k] = c;
  peers(c, [c](int p) {
    notified(p);
    notified(c);
  });
}

// Receive or connection event between dispatch steps.
void op_take(uint8_t b, bool data) {
  const uint32_t h = slot_handle(b);
  const int c = find_open(h);
  uint32_t a = 1, s = 0, length = 0;
  void *p = nullptr;
  const int rc =
      data ? lib_itc_receive(h, &s, &p, &length) : lib_itc_get_connection_event(h, &a, &s);
  if (c < 0) {
    ZEL_FUZZ_CHECK(rc == LIB_ITC_EINVAL && (data || a == 0));
    return;
  }
  Chan &ch = g->chans[static_cast<size_t>(c)];
  ZEL_FUZZ_CHECK(rc == 0 || rc == LIB_ITC_EAGAIN || rc == KRO_DM_ENOMSG);
  if (rc == KRO_DM_ENOMSG) {  // nothing queued, nothing set aside
    ZEL_FUZZ_CHECK(ch.data.empty());
    ch.bound = 0;
  } else if (rc == 0) {
    --ch.bound;
    if (data) {
      took(c, s, p, length);
      keep_or_free(h, p, (b & 0x80) != 0);
    } else {
      ZEL_FUZZ_CHECK(ch.server && id_of(s) == ch.id);
    }
  }
}

// Calls with invalid arguments: refused with 22, nothing changed.
void op_invalid(uint8_t b) {
  void *p = &b;
  uint32_t h = 5, event = 7, s = 0, length = 0;
  switch (b % 6) {
    case 0:
      ZEL_FUZZ_CHECK(lib_itc_alloc(kBogus, 4, &p) == LIB_ITC_EINVAL && p == &b);
      ZEL_FUZZ_CHECK(lib_itc_alloc(g_keeper[0], 4, nullptr) == LIB_ITC_EINVAL);
      break;
    case 1:
      ZEL_FUZZ_CHECK(lib_itc_free(g_keeper[0], nullptr) == LIB_ITC_EINVAL);
      ZEL_FUZZ_CHECK(lib_itc_send(slot_handle(b >> 3), 0, nullptr) == LIB_ITC_EINVAL);
      break;
    case 2:
      if (!g->kept.empty()) {
        void *m = g->kept[b % g->kept.size()];
        ZEL_FUZZ_CHECK(lib_itc_free(kBogus | 0x100u, m) == LIB_ITC_EINVAL);  // never handed out
        ZEL_FUZZ_CHECK(lib_itc_send(kBogus, 0, m) == LIB_ITC_EINVAL);
      }
      break;
    case 3:
      ZEL_FUZZ_CHECK(lib_itc_close(nullptr) == LIB_ITC_EINVAL);
      ZEL_FUZZ_CHECK(lib_itc_open(nullptr, "fz.a", 0, nullptr, g->dm[0], callback, nullptr) ==
                     LIB_ITC_EINVAL);
      break;
    case 4:
      ZEL_FUZZ_CHECK(lib_itc_receive(slot_handle(b >> 3), &s, &p, nullptr) == LIB_ITC_EINVAL);
      break;
    default:
      ZEL_FUZZ_CHECK(lib_itc_get_connection_event(kBogus, &event, &h) == LIB_ITC_EINVAL);
      ZEL_FUZZ_CHECK(event == 0 && h == 5 && length == 0);
      break;
  }
}

void step_all() {
  for (int round = 0; round < 4; ++round) {
    for (kro_dm_t *dm : g->dm) ZEL_FUZZ_CHECK(kro_dm_dispatch(dm) == 0);
  }
}

}  // namespace

extern "C" void __wrap_free(void *p) {  // NOLINT(bugprone-reserved-identifier)
  if (g != nullptr && p != nullptr) {
    const auto it = g->msgs.find(
        reinterpret_cast<lib_itc_msg_hdr_t *>(static_cast<char *>(p) + lib_itc_block_prefix));
    if (it != g->msgs.end()) {
      ZEL_FUZZ_CHECK(it->second.owner == (g->target_frees ? Owner::app : Owner::library));
      g->msgs.erase(it);
    }
  }
  __real_free(p);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > 4096) return 0;
  Model m{{data, size}, {nullptr, nullptr, nullptr}, {}, {}, {}, {}};
  g = &m;
  ZEL_FUZZ_CHECK(kro_dm_create(&m.dm[0]) == 0 && kro_dm_create(&m.dm[1]) == 0);
  if (g_keeper_dm == nullptr) {
    ZEL_FUZZ_CHECK(kro_dm_create(&g_keeper_dm) == 0);
  }
  m.dm[2] = g_keeper_dm;
  for (unsigned i = 0; i < kNames; ++i) {
    if (g_keeper[i] == 0) {
      ZEL_FUZZ_CHECK(lib_itc_open(&g_keeper[i], kName[i], LIB_ITC_CLIENT, nullptr, g_keeper_dm,
                                  callback, reinterpret_cast<void *>(uintptr_t{i})) == 0);
    }
    m.chans.push_back(
        {g_keeper[i], g_keeper[i], id_of(g_keeper[i]), false, true, 2, kAttr[0], 0, 0, {}});
  }
  for (int &s : m.slot) s = -1;

  while (m.in.n != 0) {
    const uint8_t op = m.in.byte(), b = m.in.byte();
    switch (op % 9) {
      case 0:
        op_open(b);
        break;
      case 1:
        do_close(slot_handle(b));
        break;
      case 2: {  // alloc and send; a refused message is freed or kept
        const uint32_t h = slot_handle(b), dest = pick_dest(m.in.byte(), h);
        void *p = alloc(h, kSize[b >> 4]);
        if (!send(h, dest, p)) keep_or_free(h, p, (op & 0x80) != 0);
        break;
      }
      case 3:  // send a kept message, from any channel
        if (!m.kept.empty()) {
          const size_t i = b % m.kept.size();
          const uint32_t h = slot_handle(b >> 3);
          if (send(h, pick_dest(m.in.byte(), h), m.kept[i])) m.kept.erase(m.kept.begin() + i);
        }
        break;
      case 4:  // free a kept message through any channel of a bound name
        if (!m.kept.empty()) {
          const size_t i = b % m.kept.size();
          target_free(slot_handle(b >> 3), m.kept[i]);
          m.kept.erase(m.kept.begin() + i);
        }
        break;
      case 5:
        ZEL_FUZZ_CHECK(kro_dm_dispatch(m.dm[b % 3]) == 0);
        break;
      case 6:
        op_take(b, true);
        break;
      case 7:
        op_take(b, false);
        break;
      default:
        op_invalid(b);
        break;
    }
  }

  // Everything kept freed, every channel closed, the managers stepped: nothing may be left.
  for (void *p : m.kept) target_free(g_keeper[0], p);
  m.kept.clear();
  for (size_t i = kNames; i < m.chans.size(); ++i) {
    if (m.chans[i].handle != 0) do_close(m.chans[i].handle);
  }
  // A message a keeper set aside waits for the next one to arrive: a server that comes and goes
  // sends two (it is closed before its own manager runs, so its callback is never called).
  for (const char *name : kName) {
    uint32_t h = 0;
    ZEL_FUZZ_CHECK(lib_itc_open(&h, name, LIB_ITC_SERVER, nullptr, m.dm[0], callback, nullptr) ==
                       0 &&
                   lib_itc_close(&h) == 0);
  }
  step_all();
  ZEL_FUZZ_CHECK(m.msgs.empty());
  for (unsigned i = 0; i < kNames; ++i) {  // the keepers' queues are empty
    uint32_t s = 0, a = 0, length = 0;
    void *p = nullptr;
    ZEL_FUZZ_CHECK(lib_itc_receive(g_keeper[i], &s, &p, &length) == KRO_DM_ENOMSG);
    ZEL_FUZZ_CHECK(lib_itc_get_connection_event(g_keeper[i], &a, &s) == KRO_DM_ENOMSG);
    ZEL_FUZZ_CHECK(m.chans[i].data.empty() && m.chans[i].bytes == 0);
  }
  ZEL_FUZZ_CHECK(kro_dm_destroy(&m.dm[0]) == 0 && kro_dm_destroy(&m.dm[1]) == 0);
  g = nullptr;
  return 0;
}
