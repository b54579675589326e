// Inter-thread channels against ZeroMQ's inproc transport, side by side in one process, with the
// allocator's default settings.
//
// Streams (items_per_second = messages per second): 1 and 4 sender threads stream 64- and
// 1024-byte heap messages to one receiver thread, which frees each. One iteration is one message
// per sender. A sender whose destination is full waits briefly (sched_yield) and retries, as a
// real sender would; it never waits for the receiver to drain. Both transports are bounded
// alike, to kInFlight messages in flight per receiver:
//   - channels: the server's budget is kInFlight messages (max_bytes = kInFlight * size, shared
//     by all its clients) and its queue a few messages longer (the budget is the bound a sender
//     meets: lib_itc_send returns 28); the receiver runs its dispatch manager's loop and
//     receives and frees in its callback;
//   - ZeroMQ: one PUSH socket per sender connected to the receiver's PULL socket; an inproc pipe
//     holds SNDHWM + RCVHWM messages, one pipe per sender, so each side of each pipe gets
//     kInFlight / (2 * senders) (the send blocks when the pipe is full); zmq_msg_init_size on
//     the sender (a heap block), zmq_msg_recv and zmq_msg_close on the receiver.
// Every socket, channel and thread is set up before the timed loop. After the loop (outside the
// timing) the receiver drains what is in flight, at most kInFlight messages.
//
// Round trip (time per iteration): one 64-byte message between the benchmark thread and an echo
// thread and back, each side blocking until it arrives: the channels' client runs its own
// dispatch manager until the echo is back; ZeroMQ uses two PAIR sockets. The echo forwards the
// message it received. Both sides run with their defaults: the dispatch managers spin adaptively
// before sleeping (KRO_DM_SPIN_DEFAULT_NS, kro/dm.h), ZeroMQ sleeps at once (it has no such
// setting); the CPU column shows what each side burns per round trip.
//
// At exit "ratio:" lines give channels over ZeroMQ per case: messages per second for the streams
// (above 1: the channels are faster), time per round trip for the round trip (below 1: the
// channels are faster). A whole run takes well under a minute:
//   scripts/bench.sh build/default/bench/bench_itc
#include <zel/itc.h>

#include <benchmark/benchmark.h>
#include <sched.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "ratio.h"

#if defined(ZEL_BENCH_HAVE_ZMQ)
#include <zmq.h>
#endif

namespace {

constexpr uint32_t kInFlight = 256;
constexpr double kMinTime = 0.3;

// The drain after the loop: every thread adds what it sent, and thread 0 waits for all of it.
struct Tally {
  std::atomic<uint64_t> sent{0};
  std::atomic<int> senders_done{0};
  void reset() {
    sent.store(0);
    senders_done.store(0);
  }
};
Tally g_tally;

template <typename Taken>
void wait_for_drain(const benchmark::State &state, Taken taken) {
  g_tally.senders_done.fetch_add(1, std::memory_order_acq_rel);
  if (state.thread_index() != 0) {
    return;
  }
  while (g_tally.senders_done.load(std::memory_order_acquire) < state.threads() ||
         taken() < g_tally.sent.load(std::memory_order_acquire)) {
    sched_yield();
  }
}

// The end of a stream on each sender: adds what it sent, then (unless a case failed) waits with
// the others for the receiver to have taken it all. Thread 0 reports a receiver that failed.
template <typename Receiver>
void finish_stream(benchmark::State &state, uint64_t sent, const Receiver *receiver,
                   const char *receiver_failed) {
  g_tally.sent.fetch_add(sent, std::memory_order_acq_rel);
  if (state.thread_index() == 0 && !receiver->ok()) {
    state.SkipWithError(receiver_failed);
    g_tally.senders_done.fetch_add(1);
  } else if (!state.error_occurred()) {
    wait_for_drain(state, [receiver] { return receiver->taken(); });
  } else {
    g_tally.senders_done.fetch_add(1);
  }
}

// ---- Channels -----------------------------------------------------------------------------

// A channel whose dispatch manager loop runs on a thread of its own. ok() tells whether the
// manager and the channel could be made.
class ItcLoop {
 public:
  ItcLoop(const char *name, int role, const lib_itc_attr_t *attr, lib_itc_callback_t callback,
          void *cookie) {
    if (kro_dm_create(&dm_) != 0) {
      dm_ = nullptr;
      return;
    }
    if (lib_itc_open(&handle_, name, role, attr, dm_, callback, cookie) != 0) {
      return;
    }
    open_ = true;
    thread_ = std::thread([this] {
      while (!stop_.load(std::memory_order_acquire)) {
        kro_dm_wait(dm_);
        kro_dm_dispatch(dm_);
      }
    });
  }
  ~ItcLoop() {
    if (thread_.joinable()) {
      stop_.store(true, std::memory_order_release);
      kro_dm_wake(dm_);
      thread_.join();
    }
    if (open_) {
      lib_itc_close(&handle_);
    }
    if (dm_ != nullptr) {
      for (int i = 0; i < 4; ++i) {
        kro_dm_dispatch(dm_);  // the deferred clean-up and any message left
      }
      kro_dm_destroy(&dm_);
    }
  }
  ItcLoop(const ItcLoop &) = delete;
  ItcLoop &operator=(const ItcLoop &) = delete;
  bool ok() const { return open_; }

 private:
  kro_dm_t *dm_ = nullptr;
  uint32_t handle_ = 0;
  bool open_ = false;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// Takes the connection event a server is told of; true when the callback was for one.
bool itc_take_connect(uint32_t handle, uint32_t type) {
  if (type != LIB_ITC_MSG_CONNECT) {
    return false;
  }
  uint32_t ev = 0, who = 0;
  lib_itc_get_connection_event(handle, &ev, &who);
  return true;
}

// The stream's receiver: receives, frees and counts every message.
class ItcReceiver {
 public:
  explicit ItcReceiver(uint32_t size)
      : attr_{0, kInFlight + 16, kInFlight * size},
        loop_("stream", LIB_ITC_SERVER, &attr_, callback, this) {}
  bool ok() const { return loop_.ok(); }
  uint64_t taken() const { return taken_.load(std::memory_order_acquire); }

 private:
  static void callback(uint32_t handle, uint32_t type, void *cookie) {
    if (itc_take_connect(handle, type)) {
      return;
    }
    uint32_t sender = 0, len = 0;
    void *p = nullptr;
    if (lib_itc_receive(handle, &sender, &p, &len) == LIB_ITC_OK) {
      lib_itc_free(handle, p);
      static_cast<ItcReceiver *>(cookie)->taken_.fetch_add(1, std::memory_order_release);
    }
  }
  lib_itc_attr_t attr_;
  std::atomic<uint64_t> taken_{0};
  ItcLoop loop_;  // last: its thread may call back as soon as it runs
};

ItcReceiver *g_itc_receiver = nullptr;

// A client channel on a dispatch manager of the sending thread, which never needs to run it:
// the client is only told that it is connected.
class ItcSender {
 public:
  ItcSender() {
    if (kro_dm_create(&dm_) != 0) {
      dm_ = nullptr;
      return;
    }
    open_ = lib_itc_open(&handle_, "stream", LIB_ITC_CLIENT, nullptr, dm_, ignore, nullptr) ==
            LIB_ITC_OK;
  }
  ~ItcSender() {
    if (open_) {
      lib_itc_close(&handle_);
    }
    if (dm_ != nullptr) {
      for (int i = 0; i < 4; ++i) {
        kro_dm_dispatch(dm_);
      }
      kro_dm_destroy(&dm_);
    }
  }
  ItcSender(const ItcSender &) = delete;
  ItcSender &operator=(const ItcSender &) = delete;
  bool ok() const { return open_; }

  // 0, or the failing call's code. A full destination (budget or queue) is waited out.
  uint32_t send(uint32_t size) {
    void *p = nullptr;
    uint32_t rc = lib_itc_alloc(handle_, size, &p);
    if (rc != LIB_ITC_OK) {
      return rc;
    }
    static_cast<unsigned char *>(p)[0] = 1;
    while ((rc = lib_itc_send(handle_, 0, p)) == LIB_ITC_ENOSPC || rc == KRO_DM_EAGAIN) {
      sched_yield();
    }
    if (rc != LIB_ITC_OK) {
      lib_itc_free(handle_, p);
    }
    return rc;
  }

 private:
  static void ignore(uint32_t, uint32_t, void *) {}
  kro_dm_t *dm_ = nullptr;
  uint32_t handle_ = 0;
  bool open_ = false;
};

// Thread 0 makes the receiver before the loop (whose start is a barrier of all threads) and
// removes it after the drain. A client opened before the server meets it when it opens.
void BM_ItcStream(benchmark::State &state) {
  const auto size = static_cast<uint32_t>(state.range(0));
  if (state.thread_index() == 0) {
    g_tally.reset();
    g_itc_receiver = new ItcReceiver(size);
  }
  uint64_t sent = 0;
  {
    ItcSender sender;
    if (!sender.ok()) {
      state.SkipWithError("kro_dm_create or lib_itc_open (client) failed");
    }
    for (auto _ : state) {
      if (const uint32_t rc = sender.send(size); rc != LIB_ITC_OK) {
        state.SkipWithError(
            ("lib_itc_alloc or lib_itc_send failed: " + std::to_string(rc)).c_str());
        break;
      }
      ++sent;
    }
    finish_stream(state, sent, g_itc_receiver, "kro_dm_create or lib_itc_open (server) failed");
  }
  state.SetItemsProcessed(static_cast<int64_t>(sent));
  if (state.thread_index() == 0) {
    delete g_itc_receiver;  // clients closing meanwhile are safe
    g_itc_receiver = nullptr;
  }
}

// The echo's callback: every message goes back to its sender.
void itc_echo_callback(uint32_t handle, uint32_t type, void *) {
  if (itc_take_connect(handle, type)) {
    return;
  }
  uint32_t sender = 0, len = 0;
  void *p = nullptr;
  if (lib_itc_receive(handle, &sender, &p, &len) == LIB_ITC_OK &&
      lib_itc_send(handle, sender, p) != LIB_ITC_OK) {
    lib_itc_free(handle, p);
  }
}

struct PingState {
  void *back = nullptr;
  static void callback(uint32_t handle, uint32_t type, void *cookie) {
    if (type != LIB_ITC_MSG_DATA) {
      return;
    }
    auto *s = static_cast<PingState *>(cookie);
    uint32_t sender = 0, len = 0;
    lib_itc_receive(handle, &sender, &s->back, &len);
  }
};

void BM_ItcRoundTrip(benchmark::State &state) {
  ItcLoop echo("echo", LIB_ITC_SERVER, nullptr, itc_echo_callback, nullptr);
  kro_dm_t *dm = nullptr;
  if (!echo.ok() || kro_dm_create(&dm) != 0) {
    state.SkipWithError("kro_dm_create or lib_itc_open (echo) failed");
    return;
  }
  PingState ping;
  uint32_t h = 0;
  void *msg = nullptr;
  if (lib_itc_open(&h, "echo", LIB_ITC_CLIENT, nullptr, dm, PingState::callback, &ping) != 0) {
    state.SkipWithError("lib_itc_open (client) failed");
    kro_dm_destroy(&dm);
    return;
  }
  kro_dm_dispatch(dm);  // the connected notice
  if (lib_itc_alloc(h, 64, &msg) != LIB_ITC_OK) {
    state.SkipWithError("lib_itc_alloc failed");
  } else {
    for (auto _ : state) {
      if (const uint32_t rc = lib_itc_send(h, 0, msg); rc != LIB_ITC_OK) {
        state.SkipWithError(("lib_itc_send failed: " + std::to_string(rc)).c_str());
        break;
      }
      while (ping.back == nullptr) {
        kro_dm_wait(dm);
        kro_dm_dispatch(dm);
      }
      msg = ping.back;
      ping.back = nullptr;
    }
    lib_itc_free(h, msg);
  }
  lib_itc_close(&h);
  for (int i = 0; i < 4; ++i) {
    kro_dm_dispatch(dm);
  }
  kro_dm_destroy(&dm);
}

BENCHMARK(BM_ItcStream)
    ->Arg(64)
    ->Arg(1024)
    ->Threads(1)
    ->Threads(4)
    ->UseRealTime()
    ->MinTime(kMinTime);
BENCHMARK(BM_ItcRoundTrip)->UseRealTime()->MinTime(kMinTime);

// ---- ZeroMQ -------------------------------------------------------------------------------

#if defined(ZEL_BENCH_HAVE_ZMQ)

void *g_zmq_ctx = nullptr;

// A fresh inproc endpoint for every case: a closed socket gives its endpoint back only when
// ZeroMQ's reaper gets to it.
std::string zmq_endpoint(const char *what) {
  static std::atomic<unsigned> serial{0};
  return std::string("inproc://") + what + "-" + std::to_string(++serial);
}

bool zmq_set_hwm(void *socket, int hwm) {
  return zmq_setsockopt(socket, ZMQ_SNDHWM, &hwm, sizeof hwm) == 0 &&
         zmq_setsockopt(socket, ZMQ_RCVHWM, &hwm, sizeof hwm) == 0;
}

// The stream's receiver: a PULL socket on a thread of its own, receiving, closing (freeing)
// and counting every message until a one-byte stop message.
class ZmqReceiver {
 public:
  explicit ZmqReceiver(int hwm) {
    pull_ = zmq_socket(g_zmq_ctx, ZMQ_PULL);
    if (pull_ == nullptr || !zmq_set_hwm(pull_, hwm) || zmq_bind(pull_, endpoint.c_str()) != 0) {
      return;
    }
    ok_ = true;
    thread_ = std::thread([this] {
      for (;;) {
        zmq_msg_t msg;
        zmq_msg_init(&msg);
        if (zmq_msg_recv(&msg, pull_, 0) < 0) {
          zmq_msg_close(&msg);
          continue;
        }
        const bool stop = zmq_msg_size(&msg) == 1;
        zmq_msg_close(&msg);
        if (stop) {
          return;
        }
        taken_.fetch_add(1, std::memory_order_release);
      }
    });
  }
  ~ZmqReceiver() {
    if (thread_.joinable()) {
      void *push = zmq_socket(g_zmq_ctx, ZMQ_PUSH);
      zmq_connect(push, endpoint.c_str());
      zmq_send(push, "x", 1, 0);
      thread_.join();
      zmq_close(push);
    }
    if (pull_ != nullptr) {
      zmq_close(pull_);
    }
  }
  ZmqReceiver(const ZmqReceiver &) = delete;
  ZmqReceiver &operator=(const ZmqReceiver &) = delete;
  bool ok() const { return ok_; }
  uint64_t taken() const { return taken_.load(std::memory_order_acquire); }
  const std::string endpoint = zmq_endpoint("stream");

 private:
  void *pull_ = nullptr;
  bool ok_ = false;
  std::atomic<uint64_t> taken_{0};
  std::thread thread_;
};

ZmqReceiver *g_zmq_receiver = nullptr;
std::atomic<const std::string *> g_zmq_endpoint{nullptr};

void BM_ZmqStream(benchmark::State &state) {
  const auto size = static_cast<size_t>(state.range(0));
  const int hwm = static_cast<int>(kInFlight) / (2 * state.threads());
  if (state.thread_index() == 0) {
    g_tally.reset();
    g_zmq_receiver = new ZmqReceiver(hwm);
    g_zmq_endpoint.store(&g_zmq_receiver->endpoint, std::memory_order_release);
  }
  // inproc allows connecting before the bind; the endpoint's name is all a sender needs, and
  // thread 0 publishes it before the others can leave the start barrier... which is the loop's
  // start. So each sender spins here until it is there (before the timing).
  const std::string *endpoint = nullptr;
  while ((endpoint = g_zmq_endpoint.load(std::memory_order_acquire)) == nullptr) {
    sched_yield();
  }
  void *push = zmq_socket(g_zmq_ctx, ZMQ_PUSH);
  if (push == nullptr || !zmq_set_hwm(push, hwm) || zmq_connect(push, endpoint->c_str()) != 0) {
    state.SkipWithError("zmq_socket, zmq_setsockopt or zmq_connect failed");
  }
  uint64_t sent = 0;
  for (auto _ : state) {
    zmq_msg_t msg;
    if (zmq_msg_init_size(&msg, size) != 0) {
      state.SkipWithError("zmq_msg_init_size failed");
      break;
    }
    static_cast<unsigned char *>(zmq_msg_data(&msg))[0] = 1;
    if (zmq_msg_send(&msg, push, 0) < 0) {
      zmq_msg_close(&msg);
      state.SkipWithError("zmq_msg_send failed");
      break;
    }
    ++sent;
  }
  finish_stream(state, sent, g_zmq_receiver,
                "zmq_socket, zmq_setsockopt or zmq_bind (receiver) failed");
  if (push != nullptr) {
    zmq_close(push);
  }
  state.SetItemsProcessed(static_cast<int64_t>(sent));
  if (state.thread_index() == 0) {
    g_zmq_endpoint.store(nullptr);
    delete g_zmq_receiver;
    g_zmq_receiver = nullptr;
  }
}

void BM_ZmqRoundTrip(benchmark::State &state) {
  void *a = zmq_socket(g_zmq_ctx, ZMQ_PAIR);
  void *b = zmq_socket(g_zmq_ctx, ZMQ_PAIR);
  const std::string endpoint = zmq_endpoint("pingpong");
  if (a == nullptr || b == nullptr || zmq_bind(b, endpoint.c_str()) != 0 ||
      zmq_connect(a, endpoint.c_str()) != 0) {
    state.SkipWithError("zmq_socket, zmq_bind or zmq_connect failed");
    zmq_close(a);
    zmq_close(b);
    return;
  }
  std::thread echo([b] {
    for (;;) {
      zmq_msg_t msg;
      zmq_msg_init(&msg);
      if (zmq_msg_recv(&msg, b, 0) < 0) {
        zmq_msg_close(&msg);
        continue;
      }
      const bool stop = zmq_msg_size(&msg) == 1;
      if (zmq_msg_send(&msg, b, 0) < 0) {
        zmq_msg_close(&msg);
      }
      if (stop) {
        return;
      }
    }
  });
  zmq_msg_t msg;
  if (zmq_msg_init_size(&msg, 64) != 0) {
    state.SkipWithError("zmq_msg_init_size failed");
  } else {
    for (auto _ : state) {
      if (zmq_msg_send(&msg, a, 0) < 0 || zmq_msg_recv(&msg, a, 0) < 0) {  // the echo refills msg
        state.SkipWithError("zmq_msg_send or zmq_msg_recv failed");
        break;
      }
    }
    zmq_msg_close(&msg);
  }
  zmq_send(a, "x", 1, 0);
  char tmp[2];
  zmq_recv(a, tmp, sizeof tmp, 0);
  echo.join();
  zmq_close(a);
  zmq_close(b);
}

BENCHMARK(BM_ZmqStream)
    ->Arg(64)
    ->Arg(1024)
    ->Threads(1)
    ->Threads(4)
    ->UseRealTime()
    ->MinTime(kMinTime);
BENCHMARK(BM_ZmqRoundTrip)->UseRealTime()->MinTime(kMinTime);

#endif  // ZEL_BENCH_HAVE_ZMQ

}  // namespace

int main(int argc, char **argv) {
  std::vector<zel_bench::Pair> pairs;
#if defined(ZEL_BENCH_HAVE_ZMQ)
  g_zmq_ctx = zmq_ctx_new();
  if (g_zmq_ctx == nullptr) {
    std::fprintf(stderr, "zmq_ctx_new failed\n");
    return 1;
  }
  for (const char *size : {"64", "1024"}) {
    for (const char *threads : {"1", "4"}) {
      const std::string tail =
          std::string("/") + size + "/min_time:0.300/real_time/threads:" + threads;
      pairs.push_back({std::string("stream ") + size + "B " + threads + "->1 itc/zmq",
                       "BM_ItcStream" + tail, "BM_ZmqStream" + tail});
    }
  }
  pairs.push_back({"round trip 64B itc/zmq", "BM_ItcRoundTrip/min_time:0.300/real_time",
                   "BM_ZmqRoundTrip/min_time:0.300/real_time", zel_bench::Kind::kTime});
#else
  std::fprintf(stderr, "built without libzmq: no ZeroMQ baseline, no ratios\n");
#endif
  const int rc = zel_bench::run(argc, argv, pairs);
#if defined(ZEL_BENCH_HAVE_ZMQ)
  zmq_ctx_term(g_zmq_ctx);
#endif
  return rc;
}
