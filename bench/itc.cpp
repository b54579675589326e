// Inter-thread channels against ZeroMQ's inproc transport, side by side in one process.
//
// Throughput (messages per second, items_per_second): 1 and 4 client threads sending 64- and
// 1024-byte messages to one server thread. The sender allocates each message, the receiver
// frees it. One iteration is a batch of kBatch messages per client thread and ends when the
// server has taken all of them, so delivery is inside the timing.
//   - channels: each client thread opens a client channel, the server runs its dispatch
//     manager's loop (kro_dm_wait + kro_dm_dispatch) and receives and frees in its callback.
//     The server channel is opened with a budget (max_bytes) of 0xFFFFFFFF and a queue
//     length of 65536 messages: the defaults (8192 bytes, 50 messages) would measure the
//     sender's retries on a full budget or queue rather than the transport. A refused send
//     is retried after a yield.
//   - ZeroMQ: one PUSH socket per client thread connected to the server's PULL socket over
//     inproc, high-water marks 65536 on both; zmq_msg_init_size / zmq_msg_send on the sender,
//     zmq_msg_recv / zmq_msg_close on the receiver.
// Latency (time per iteration): one round trip of a 64-byte message between the benchmark
// thread and an echo thread, each side blocking until the message arrives: the channels'
// client runs its own dispatch manager until the echo has come back; ZeroMQ uses two PAIR
// sockets. The echo forwards the message it received in both.
//
// The allocator: with glibc's default trim threshold (128 KiB), a batch of 4096 1-KiB messages
// freed by the receiver returns the top of the heap to the system after every batch, and the
// next batch grows it again page by page, so the benchmark would time brk and page faults rather
// than the transport (ZeroMQ happens to dodge this because its own long-lived pipe chunks sit
// between the messages). main() raises the threshold with mallopt, for both contenders alike.
//
// Read the medians of --benchmark_repetitions=5 --benchmark_report_aggregates_only=true and
// compare each channels row with the ZeroMQ row of the same size and thread count.
#include <zel/itc.h>

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sched.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#if defined(ZEL_BENCH_HAVE_ZMQ)
#include <zmq.h>
#endif

namespace {

constexpr unsigned kBatch = 4096;
constexpr unsigned kMaxClients = 4;
constexpr uint32_t kDeepQueue = 65536;

// ---- Channels -----------------------------------------------------------------------------

// A server channel whose dispatch manager runs on a thread of its own.
class ItcLoopServer {
 public:
  ItcLoopServer(const char *name, const lib_itc_attr_t *attr, lib_itc_callback_t callback,
                void *cookie) {
    kro_dm_create(&dm_);
    if (lib_itc_open(&handle_, name, LIB_ITC_SERVER, attr, dm_, callback, cookie) != 0) {
      std::fprintf(stderr, "server open failed\n");
      std::abort();
    }
    thread_ = std::thread([this] {
      while (!stop_.load(std::memory_order_acquire)) {
        kro_dm_wait(dm_);
        kro_dm_dispatch(dm_);
      }
    });
  }
  ~ItcLoopServer() {
    stop_.store(true, std::memory_order_release);
    kro_dm_wake(dm_);
    thread_.join();
    lib_itc_close(&handle_);
    for (int i = 0; i < 4; ++i) {
      kro_dm_dispatch(dm_);
    }
    kro_dm_destroy(&dm_);
  }
  ItcLoopServer(const ItcLoopServer &) = delete;
  ItcLoopServer &operator=(const ItcLoopServer &) = delete;

 private:
  kro_dm_t *dm_ = nullptr;
  uint32_t handle_ = 0;
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

// The throughput server: counts what each client (identified by the payload's first byte) has
// delivered.
class ItcServer {
 public:
  explicit ItcServer(const char *name) : loop_(name, &kAttr, callback, this) {}

  uint64_t taken(unsigned client) const { return taken_[client].load(std::memory_order_acquire); }

 private:
  static constexpr lib_itc_attr_t kAttr = {0, kDeepQueue, 0xFFFFFFFFu};
  static void callback(uint32_t handle, uint32_t type, void *cookie) {
    if (itc_take_connect(handle, type)) {
      return;
    }
    uint32_t sender = 0, len = 0;
    void *p = nullptr;
    if (lib_itc_receive(handle, &sender, &p, &len) == 0) {
      const unsigned client = *static_cast<unsigned char *>(p);
      lib_itc_free(handle, p);
      static_cast<ItcServer *>(cookie)->taken_[client].fetch_add(1, std::memory_order_release);
    }
  }

  std::atomic<uint64_t> taken_[kMaxClients] = {};
  ItcLoopServer loop_;  // last: its thread may call back as soon as it runs
};

// A client channel on a dispatch manager of the calling thread (which never needs to run it
// during the benchmark: clients are only told they are connected).
class ItcClient {
 public:
  explicit ItcClient(const char *name) {
    kro_dm_create(&dm_);
    lib_itc_open(&handle_, name, LIB_ITC_CLIENT, nullptr, dm_, ignore, nullptr);
  }
  ~ItcClient() {
    lib_itc_close(&handle_);
    for (int i = 0; i < 4; ++i) {
      kro_dm_dispatch(dm_);
    }
    kro_dm_destroy(&dm_);
  }
  ItcClient(const ItcClient &) = delete;
  ItcClient &operator=(const ItcClient &) = delete;

  void send(unsigned char tag, uint32_t size) {
    void *p = nullptr;
    lib_itc_alloc(handle_, size, &p);
    *static_cast<unsigned char *>(p) = tag;
    while (lib_itc_send(handle_, 0, p) != 0) {
      sched_yield();
    }
  }

 private:
  static void ignore(uint32_t, uint32_t, void *) {}
  kro_dm_t *dm_ = nullptr;
  uint32_t handle_ = 0;
};

ItcServer *g_itc_server = nullptr;

// Thread 0 makes the server before the loop and removes it after: the loop's start and end are
// barriers of all the benchmark's threads. A client opened before the server is fine: it meets
// the server when that opens, and sends only inside the loop.
void BM_ItcThroughput(benchmark::State &state) {
  const auto size = static_cast<uint32_t>(state.range(0));
  if (state.thread_index() == 0) {
    g_itc_server = new ItcServer("bench");
  }
  const auto me = static_cast<unsigned char>(state.thread_index());
  uint64_t sent = 0;
  {
    ItcClient client("bench");
    for (auto _ : state) {
      for (unsigned i = 0; i < kBatch; ++i) {
        client.send(me, size);
      }
      sent += kBatch;
      while (g_itc_server->taken(me) < sent) {
        sched_yield();
      }
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(sent));
  if (state.thread_index() == 0) {
    delete g_itc_server;  // clients closing meanwhile are safe: they hold references
    g_itc_server = nullptr;
  }
}

// ---- Latency ------------------------------------------------------------------------------

// The echo side's callback: every message goes back to its sender.
void itc_echo_callback(uint32_t handle, uint32_t type, void *) {
  if (itc_take_connect(handle, type)) {
    return;
  }
  uint32_t sender = 0, len = 0;
  void *p = nullptr;
  if (lib_itc_receive(handle, &sender, &p, &len) == 0 && lib_itc_send(handle, sender, p) != 0) {
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

void BM_ItcPingPong(benchmark::State &state) {
  ItcLoopServer echo("echo", nullptr, itc_echo_callback, nullptr);
  kro_dm_t *dm = nullptr;
  kro_dm_create(&dm);
  PingState ping;
  uint32_t h = 0;
  lib_itc_open(&h, "echo", LIB_ITC_CLIENT, nullptr, dm, PingState::callback, &ping);
  kro_dm_dispatch(dm);  // the connected notice
  void *msg = nullptr;
  lib_itc_alloc(h, 64, &msg);
  for (auto _ : state) {
    lib_itc_send(h, 0, msg);
    while (ping.back == nullptr) {
      kro_dm_wait(dm);
      kro_dm_dispatch(dm);
    }
    msg = ping.back;
    ping.back = nullptr;
  }
  lib_itc_free(h, msg);
  lib_itc_close(&h);
  for (int i = 0; i < 4; ++i) {
    kro_dm_dispatch(dm);
  }
  kro_dm_destroy(&dm);
}

// ---- ZeroMQ -------------------------------------------------------------------------------

#if defined(ZEL_BENCH_HAVE_ZMQ)

void *g_zmq_ctx = nullptr;

void *zmq_ctx() {
  if (g_zmq_ctx == nullptr) {
    g_zmq_ctx = zmq_ctx_new();
  }
  return g_zmq_ctx;
}

void zmq_hwm(void *socket) {
  const int hwm = static_cast<int>(kDeepQueue);
  zmq_setsockopt(socket, ZMQ_SNDHWM, &hwm, sizeof hwm);
  zmq_setsockopt(socket, ZMQ_RCVHWM, &hwm, sizeof hwm);
}

constexpr unsigned char kZmqStop = 0xFF;

// A fresh inproc endpoint for every server: a closed socket gives its endpoint back only when
// ZeroMQ's reaper gets to it, so reusing one name could bind too early.
std::string zmq_endpoint(const char *what) {
  static unsigned serial = 0;
  return std::string("inproc://") + what + "-" + std::to_string(++serial);
}

class ZmqServer {
 public:
  ZmqServer() {
    pull_ = zmq_socket(zmq_ctx(), ZMQ_PULL);
    zmq_hwm(pull_);
    if (zmq_bind(pull_, endpoint.c_str()) != 0) {
      std::fprintf(stderr, "zmq_bind failed\n");
      std::abort();
    }
    thread_ = std::thread([this] {
      for (;;) {
        zmq_msg_t msg;
        zmq_msg_init(&msg);
        if (zmq_msg_recv(&msg, pull_, 0) < 0) {
          zmq_msg_close(&msg);
          continue;
        }
        const unsigned client = *static_cast<unsigned char *>(zmq_msg_data(&msg));
        zmq_msg_close(&msg);
        if (client == kZmqStop) {
          return;
        }
        taken_[client].fetch_add(1, std::memory_order_release);
      }
    });
  }
  ~ZmqServer() {
    void *push = zmq_socket(zmq_ctx(), ZMQ_PUSH);
    zmq_connect(push, endpoint.c_str());
    zmq_send(push, &kZmqStop, 1, 0);
    thread_.join();
    zmq_close(push);
    zmq_close(pull_);
  }
  ZmqServer(const ZmqServer &) = delete;
  ZmqServer &operator=(const ZmqServer &) = delete;
  uint64_t taken(unsigned client) const { return taken_[client].load(std::memory_order_acquire); }
  const std::string endpoint = zmq_endpoint("bench");

 private:
  void *pull_ = nullptr;
  std::atomic<uint64_t> taken_[kMaxClients] = {};
  std::thread thread_;
};

ZmqServer *g_zmq_server = nullptr;

void BM_ZmqThroughput(benchmark::State &state) {
  const auto size = static_cast<size_t>(state.range(0));
  if (state.thread_index() == 0) {
    g_zmq_server = new ZmqServer();
  }
  const auto me = static_cast<unsigned char>(state.thread_index());
  uint64_t sent = 0;
  void *push = nullptr;
  for (auto _ : state) {
    if (push == nullptr) {  // the server exists once the loop runs (its start is a barrier)
      push = zmq_socket(zmq_ctx(), ZMQ_PUSH);
      zmq_hwm(push);
      zmq_connect(push, g_zmq_server->endpoint.c_str());
    }
    for (unsigned i = 0; i < kBatch; ++i) {
      zmq_msg_t msg;
      zmq_msg_init_size(&msg, size);
      *static_cast<unsigned char *>(zmq_msg_data(&msg)) = me;
      zmq_msg_send(&msg, push, 0);
    }
    sent += kBatch;
    while (g_zmq_server->taken(me) < sent) {
      sched_yield();
    }
  }
  zmq_close(push);
  state.SetItemsProcessed(static_cast<int64_t>(sent));
  if (state.thread_index() == 0) {
    delete g_zmq_server;
    g_zmq_server = nullptr;
  }
}

void BM_ZmqPingPong(benchmark::State &state) {
  void *a = zmq_socket(zmq_ctx(), ZMQ_PAIR);
  void *b = zmq_socket(zmq_ctx(), ZMQ_PAIR);
  const std::string endpoint = zmq_endpoint("pingpong");
  zmq_bind(b, endpoint.c_str());
  zmq_connect(a, endpoint.c_str());
  std::thread echo([b] {
    for (;;) {
      zmq_msg_t msg;
      zmq_msg_init(&msg);
      zmq_msg_recv(&msg, b, 0);
      const bool stop = zmq_msg_size(&msg) == 1;
      zmq_msg_send(&msg, b, 0);
      if (stop) {
        return;
      }
    }
  });
  zmq_msg_t msg;
  zmq_msg_init_size(&msg, 64);
  for (auto _ : state) {
    zmq_msg_send(&msg, a, 0);  // empties msg
    zmq_msg_recv(&msg, a, 0);  // refills it with the echo
  }
  zmq_msg_close(&msg);
  zmq_send(a, "x", 1, 0);
  echo.join();
  char tmp[2];
  zmq_recv(a, tmp, sizeof tmp, 0);
  zmq_close(a);
  zmq_close(b);
}

#endif  // ZEL_BENCH_HAVE_ZMQ

}  // namespace

BENCHMARK(BM_ItcThroughput)->Arg(64)->Arg(1024)->Threads(1)->Threads(4)->UseRealTime();
#if defined(ZEL_BENCH_HAVE_ZMQ)
BENCHMARK(BM_ZmqThroughput)->Arg(64)->Arg(1024)->Threads(1)->Threads(4)->UseRealTime();
#endif
BENCHMARK(BM_ItcPingPong)->UseRealTime();
#if defined(ZEL_BENCH_HAVE_ZMQ)
BENCHMARK(BM_ZmqPingPong)->UseRealTime();
#endif

int main(int argc, char **argv) {
  mallopt(M_TRIM_THRESHOLD, 256 << 20);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
