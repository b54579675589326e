// Dispatch manager watched queues against two yardsticks measured in the same run:
//   - Mutex: an intrusive list under a mutex with a condition variable signalled per message
//     (the textbook inter-thread queue);
//   - Zmq: ZeroMQ inproc sockets (PUSH/PULL for throughput, PAIR for ping-pong), when the
//     library is installed.
// Throughput: P producer threads each allocate a message of S bytes on the heap, write it and
// enqueue it; the consumer thread frees every message it receives (what a channel does). ZeroMQ
// does the same work: zmq_msg_init_size (its heap block), the same write, zmq_msg_send, and on
// the consumer zmq_msg_recv and zmq_msg_close (its free); no payload is copied. Every queue
// holds at most kInFlight messages: the watched queue's length limit (a producer that meets it
// yields and retries), the mutex queue's bound (a producer waits on a condition variable), and
// ZeroMQ's SNDHWM + RCVHWM per pipe split over the producers (its send blocks). Sockets, queues
// and threads other than the producers are set up outside the timed loop; the allocator keeps
// its default settings. Ping-pong: one heap message of 64 bytes, allocated before the loop,
// bounces between two threads on every side; time per round trip. The dispatch manager rows also
// report the system calls per message: eventfd writes (wakeups_per_msg) and blocking waits
// (sleeps_per_msg).
//
// At exit "ratio:" lines compare the dispatch manager (without spinning, its default) with each
// peer: messages per second for throughput (above 1: faster), time per round trip for
// ping-pong (below 1: faster).
//   scripts/bench.sh build/default/bench/bench_dm
#include <benchmark/benchmark.h>
#include <kro/dm.h>
#include <sched.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ratio.h"

#ifdef ZEL_BENCH_HAVE_ZMQ
#include <zmq.h>
#endif

namespace {

constexpr unsigned kBatch = 100000;  // messages per iteration, over all producers
constexpr unsigned kRounds = 20000;  // round trips per ping-pong iteration
constexpr uint32_t kInFlight = 256;  // messages a queue holds at most, on every side

struct Msg {
  void *link;
  uint32_t size;
};

void *make_msg(size_t size) {
  auto *m = static_cast<Msg *>(malloc(size));
  memset(m, 0x5a, size);
  m->size = static_cast<uint32_t>(size);
  return m;
}

// Where the consumer reports the messages it has taken; the benchmark thread waits on it.
class Tally {
 public:
  void add(uint64_t n) {
    const uint64_t now = got_.fetch_add(n, std::memory_order_acq_rel) + n;
    if (now >= want_.load(std::memory_order_acquire)) {
      std::lock_guard<std::mutex> lock(mu_);
      cv_.notify_all();
    }
  }
  void expect_more(uint64_t n) { want_.fetch_add(n, std::memory_order_acq_rel); }
  void wait() {
    std::unique_lock<std::mutex> lock(mu_);
    cv_.wait(lock, [this] {
      return got_.load(std::memory_order_acquire) >= want_.load(std::memory_order_acquire);
    });
  }

 private:
  std::atomic<uint64_t> got_{0};
  std::atomic<uint64_t> want_{0};
  std::mutex mu_;
  std::condition_variable cv_;
};

// Runs `send(producer_index, count)` on `producers` threads (the benchmark thread for one).
template <typename Send>
void run_producers(int producers, Send &&send) {
  const unsigned each = kBatch / static_cast<unsigned>(producers);
  if (producers == 1) {
    send(0, each);
    return;
  }
  std::vector<std::thread> threads;
  for (int p = 0; p < producers; ++p) {
    threads.emplace_back([&send, p, each] { send(p, each); });
  }
  for (std::thread &t : threads) {
    t.join();
  }
}

// ---- Dispatch manager -----------------------------------------------------------------------

// A manager whose loop runs on its own thread until stop(); then the caller is its owner.
class DmLoop {
 public:
  DmLoop() {
    if (kro_dm_create(&dm) != KRO_DM_OK) {
      dm = nullptr;
      return;
    }
    thread_ = std::thread([this] {
      while (!stop_.load(std::memory_order_acquire)) {
        kro_dm_wait(dm);
        kro_dm_dispatch(dm);
      }
    });
  }
  void stop() {
    if (thread_.joinable()) {
      stop_.store(true, std::memory_order_release);
      kro_dm_wake(dm);
      thread_.join();
    }
  }
  ~DmLoop() {
    stop();
    if (dm != nullptr) {
      kro_dm_destroy(&dm);
    }
  }
  kro_dm_t *dm = nullptr;

 private:
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

struct DmSink {
  Tally tally;
  static void handler(kro_dm_watched_queue_t *q, void *cookie) {
    void *m = nullptr;
    uint64_t n = 0;
    while (kro_dm_watched_queue_dequeue(q, &m) == KRO_DM_OK) {
      free(m);
      ++n;
    }
    static_cast<DmSink *>(cookie)->tally.add(n);
  }
};

void report_syscalls(benchmark::State &state, kro_dm_t *dm, const kro_dm_stats_t &before,
                     uint64_t messages) {
  kro_dm_stats_t after{};
  kro_dm_stats_get(dm, &after);
  const double n = static_cast<double>(messages);
  state.counters["wakeups_per_msg"] = static_cast<double>(after.wakeups - before.wakeups) / n;
  state.counters["sleeps_per_msg"] = static_cast<double>(after.sleeps - before.sleeps) / n;
  state.counters["spins_per_msg"] = static_cast<double>(after.spins - before.spins) / n;
}

void BM_Throughput_Dm(benchmark::State &state) {
  const int producers = static_cast<int>(state.range(0));
  const size_t size = static_cast<size_t>(state.range(1));
  DmSink sink;
  kro_dm_watched_queue_t *q = nullptr;
  DmLoop loop;
  kro_dm_watched_queue_attr_t attr;
  kro_dm_watched_queue_attr_init(&attr);
  attr.max_len = kInFlight;
  if (loop.dm == nullptr || kro_dm_watched_queue_create("bench", 1, &attr, &q) != KRO_DM_OK) {
    state.SkipWithError("kro_dm_create or kro_dm_watched_queue_create failed");
    return;
  }
  if (kro_dm_set_spin(loop.dm, static_cast<uint32_t>(state.range(2)) * 1000u) != KRO_DM_OK ||
      kro_dm_watched_queue_register(loop.dm, q, DmSink::handler, &sink) != KRO_DM_OK) {
    state.SkipWithError("kro_dm_set_spin or kro_dm_watched_queue_register failed");
    kro_dm_watched_queue_destroy(&q);
    return;
  }
  kro_dm_stats_t before{};
  kro_dm_stats_get(loop.dm, &before);
  std::atomic<int> failed{0};
  for (auto _ : state) {
    sink.tally.expect_more(kBatch);
    run_producers(producers, [&](int, unsigned count) {
      for (unsigned i = 0; i < count; ++i) {
        void *m = make_msg(size);
        int rc;
        while ((rc = kro_dm_watched_queue_enqueue(q, m)) == KRO_DM_EAGAIN) {
          sched_yield();  // the queue holds kInFlight: wait for the consumer
        }
        if (rc != KRO_DM_OK) {
          free(m);
          sink.tally.add(1);
          failed.store(rc);
        }
      }
    });
    sink.tally.wait();
    if (failed.load() != 0) {
      state.SkipWithError(
          ("kro_dm_watched_queue_enqueue failed: " + std::to_string(failed.load())).c_str());
      break;
    }
  }
  report_syscalls(state, loop.dm, before, state.iterations() * kBatch);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kBatch);
  loop.stop();  // deregistration is the owner's: this thread's once the loop has stopped
  kro_dm_watched_queue_deregister(loop.dm, q);
  kro_dm_watched_queue_destroy(&q);
}

// ---- Mutex + condition variable ---------------------------------------------------------------

// Bounded: a producer waits while kInFlight messages are queued.
class MutexQueue {
 public:
  void push(Msg *m) {
    {
      std::unique_lock<std::mutex> lock(mu_);
      not_full_.wait(lock, [this] { return len_ < kInFlight; });
      m->link = nullptr;
      (tail_ != nullptr ? tail_->link : head_) = m;
      tail_ = m;
      ++len_;
    }
    cv_.notify_one();
  }
  // Takes everything queued, blocking while empty; NULL when stopped.
  Msg *take_all() {
    Msg *all;
    {
      std::unique_lock<std::mutex> lock(mu_);
      cv_.wait(lock, [this] { return head_ != nullptr || stop_; });
      all = static_cast<Msg *>(head_);
      head_ = nullptr;
      tail_ = nullptr;
      len_ = 0;
    }
    not_full_.notify_all();
    return all;
  }
  void stop() {
    {
      std::lock_guard<std::mutex> lock(mu_);
      stop_ = true;
    }
    cv_.notify_all();
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  std::condition_variable not_full_;
  void *head_ = nullptr;
  Msg *tail_ = nullptr;
  uint32_t len_ = 0;
  bool stop_ = false;
};

void BM_Throughput_Mutex(benchmark::State &state) {
  const int producers = static_cast<int>(state.range(0));
  const size_t size = static_cast<size_t>(state.range(1));
  MutexQueue q;
  Tally tally;
  std::thread consumer([&] {
    while (Msg *m = q.take_all()) {
      uint64_t n = 0;
      while (m != nullptr) {
        Msg *next = static_cast<Msg *>(m->link);
        free(m);
        m = next;
        ++n;
      }
      tally.add(n);
    }
  });
  for (auto _ : state) {
    tally.expect_more(kBatch);
    run_producers(producers, [&](int, unsigned count) {
      for (unsigned i = 0; i < count; ++i) {
        q.push(static_cast<Msg *>(make_msg(size)));
      }
    });
    tally.wait();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kBatch);
  q.stop();
  consumer.join();
}

// ---- ZeroMQ inproc ----------------------------------------------------------------------------

#ifdef ZEL_BENCH_HAVE_ZMQ
void BM_Throughput_Zmq(benchmark::State &state) {
  const int producers = static_cast<int>(state.range(0));
  const size_t size = static_cast<size_t>(state.range(1));
  const int hwm = static_cast<int>(kInFlight) / (2 * producers);
  void *ctx = zmq_ctx_new();
  void *pull = ctx != nullptr ? zmq_socket(ctx, ZMQ_PULL) : nullptr;
  std::vector<void *> push(static_cast<size_t>(producers), nullptr);
  bool ok = pull != nullptr && zmq_setsockopt(pull, ZMQ_RCVHWM, &hwm, sizeof hwm) == 0 &&
            zmq_bind(pull, "inproc://thr") == 0;
  for (void *&s : push) {
    s = ok ? zmq_socket(ctx, ZMQ_PUSH) : nullptr;
    ok = ok && s != nullptr && zmq_setsockopt(s, ZMQ_SNDHWM, &hwm, sizeof hwm) == 0 &&
         zmq_connect(s, "inproc://thr") == 0;
  }
  if (!ok) {
    state.SkipWithError("zmq_ctx_new, zmq_socket, zmq_setsockopt, zmq_bind or zmq_connect failed");
    for (void *s : push) {
      if (s != nullptr) {
        zmq_close(s);
      }
    }
    if (pull != nullptr) {
      zmq_close(pull);
    }
    if (ctx != nullptr) {
      zmq_ctx_term(ctx);
    }
    return;
  }
  Tally tally;
  std::thread consumer([&] {
    for (;;) {
      zmq_msg_t msg;
      zmq_msg_init(&msg);
      const int n = zmq_msg_recv(&msg, pull, 0);
      zmq_msg_close(&msg);  // frees the producer's block
      if (n == 0) {
        return;  // the empty stop message
      }
      if (n > 0) {
        tally.add(1);
      }
    }
  });
  std::atomic<bool> failed{false};
  for (auto _ : state) {
    tally.expect_more(kBatch);
    run_producers(producers, [&](int p, unsigned count) {
      for (unsigned i = 0; i < count; ++i) {
        zmq_msg_t msg;
        if (zmq_msg_init_size(&msg, size) != 0) {
          failed.store(true);
          tally.add(1);
          continue;
        }
        memset(zmq_msg_data(&msg), 0x5a, size);
        if (zmq_msg_send(&msg, push[static_cast<size_t>(p)], 0) < 0) {
          zmq_msg_close(&msg);
          failed.store(true);
          tally.add(1);
        }
      }
    });
    tally.wait();
    if (failed.load()) {
      state.SkipWithError("zmq_msg_init_size or zmq_msg_send failed");
      break;
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kBatch);
  zmq_send(push[0], "", 0, 0);
  consumer.join();
  for (void *s : push) {
    zmq_close(s);
  }
  zmq_close(pull);
  zmq_ctx_term(ctx);
}
#endif

// ---- Ping-pong ------------------------------------------------------------------------------

// The benchmark thread owns manager A and runs its loop; thread B echoes.
struct DmPong {
  kro_dm_watched_queue_t *peer = nullptr;
  unsigned left = 0;  // A: round trips to go
  static void echo(kro_dm_watched_queue_t *q, void *cookie) {
    void *m = nullptr;
    while (kro_dm_watched_queue_dequeue(q, &m) == KRO_DM_OK) {
      kro_dm_watched_queue_enqueue(static_cast<DmPong *>(cookie)->peer, m);
    }
  }
  static void count(kro_dm_watched_queue_t *q, void *cookie) {
    auto *p = static_cast<DmPong *>(cookie);
    void *m = nullptr;
    while (kro_dm_watched_queue_dequeue(q, &m) == KRO_DM_OK) {
      if (--p->left != 0) {
        kro_dm_watched_queue_enqueue(p->peer, m);
      }
    }
  }
};

void BM_PingPong_Dm(benchmark::State &state) {
  kro_dm_t *a = nullptr;
  const auto spin_ns = static_cast<uint32_t>(state.range(0)) * 1000u;
  kro_dm_watched_queue_t *qa = nullptr;
  kro_dm_watched_queue_t *qb = nullptr;
  if (kro_dm_create(&a) != KRO_DM_OK) {
    state.SkipWithError("kro_dm_create failed");
    return;
  }
  if (kro_dm_set_spin(a, spin_ns) != KRO_DM_OK ||
      kro_dm_watched_queue_create("a", 1, nullptr, &qa) != KRO_DM_OK ||
      kro_dm_watched_queue_create("b", 2, nullptr, &qb) != KRO_DM_OK) {
    state.SkipWithError("kro_dm_set_spin or kro_dm_watched_queue_create failed");
    kro_dm_watched_queue_destroy(&qa);
    kro_dm_destroy(&a);
    return;
  }
  DmPong pa;
  DmPong pb;
  pa.peer = qb;
  pb.peer = qa;
  void *msg = make_msg(64);  // one heap message, as on the other sides
  kro_dm_stats_t before_a{};
  kro_dm_stats_t before_b{};
  {
    DmLoop b;
    if (b.dm == nullptr || kro_dm_set_spin(b.dm, spin_ns) != KRO_DM_OK ||
        kro_dm_watched_queue_register(a, qa, DmPong::count, &pa) != KRO_DM_OK ||
        kro_dm_watched_queue_register(b.dm, qb, DmPong::echo, &pb) != KRO_DM_OK) {
      state.SkipWithError("kro_dm_create, kro_dm_set_spin or kro_dm_watched_queue_register failed");
    }
    kro_dm_stats_get(a, &before_a);
    if (b.dm != nullptr) {
      kro_dm_stats_get(b.dm, &before_b);
    }
    for (auto _ : state) {
      pa.left = kRounds;
      kro_dm_watched_queue_enqueue(qb, msg);
      while (pa.left != 0) {
        kro_dm_wait(a);
        kro_dm_dispatch(a);
      }
    }
    if (!state.error_occurred()) {
      kro_dm_stats_t after{};
      kro_dm_stats_get(b.dm, &after);
      const double trips = static_cast<double>(state.iterations()) * kRounds;
      state.counters["wakeups_per_trip_b"] =
          static_cast<double>(after.wakeups - before_b.wakeups) / trips;
    }
    b.stop();
    if (b.dm != nullptr) {
      kro_dm_watched_queue_deregister(b.dm, qb);
    }
  }
  free(msg);
  report_syscalls(state, a, before_a, state.iterations() * kRounds);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kRounds);
  kro_dm_watched_queue_deregister(a, qa);
  kro_dm_watched_queue_destroy(&qa);
  kro_dm_watched_queue_destroy(&qb);
  kro_dm_destroy(&a);
}

// Mutex + condition variable slot per direction.
struct Slot {
  std::mutex mu;
  std::condition_variable cv;
  void *msg = nullptr;
  void put(void *m) {
    {
      std::lock_guard<std::mutex> lock(mu);
      msg = m;
    }
    cv.notify_one();
  }
  void *take() {
    std::unique_lock<std::mutex> lock(mu);
    cv.wait(lock, [this] { return msg != nullptr; });
    void *m = msg;
    msg = nullptr;
    return m;
  }
};

void BM_PingPong_Mutex(benchmark::State &state) {
  Slot to_b;
  Slot to_a;
  std::atomic<bool> stop{false};
  std::thread b([&] {
    for (;;) {
      void *m = to_b.take();
      if (stop.load(std::memory_order_acquire)) {
        return;
      }
      to_a.put(m);
    }
  });
  void *msg = make_msg(64);  // one heap message, as on the other sides
  for (auto _ : state) {
    for (unsigned i = 0; i < kRounds; ++i) {
      to_b.put(msg);
      msg = to_a.take();
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kRounds);
  stop.store(true, std::memory_order_release);
  to_b.put(msg);
  b.join();
  free(msg);
}

#ifdef ZEL_BENCH_HAVE_ZMQ
// The same 64-byte heap message (zmq_msg_init_size) goes back and forth, moved, not copied.
void BM_PingPong_Zmq(benchmark::State &state) {
  void *ctx = zmq_ctx_new();
  void *a = ctx != nullptr ? zmq_socket(ctx, ZMQ_PAIR) : nullptr;
  void *bs = ctx != nullptr ? zmq_socket(ctx, ZMQ_PAIR) : nullptr;
  if (a == nullptr || bs == nullptr || zmq_bind(a, "inproc://pingpong") != 0 ||
      zmq_connect(bs, "inproc://pingpong") != 0) {
    state.SkipWithError("zmq_ctx_new, zmq_socket, zmq_bind or zmq_connect failed");
    if (a != nullptr) {
      zmq_close(a);
    }
    if (bs != nullptr) {
      zmq_close(bs);
    }
    if (ctx != nullptr) {
      zmq_ctx_term(ctx);
    }
    return;
  }
  std::thread b([bs] {
    for (;;) {
      zmq_msg_t m;
      zmq_msg_init(&m);
      const int n = zmq_msg_recv(&m, bs, 0);
      if (n <= 0 || zmq_msg_send(&m, bs, 0) < 0) {
        zmq_msg_close(&m);
      }
      if (n == 0) {
        return;
      }
    }
  });
  zmq_msg_t msg;
  if (zmq_msg_init_size(&msg, 64) != 0) {
    state.SkipWithError("zmq_msg_init_size failed");
  } else {
    memset(zmq_msg_data(&msg), 0x5a, 64);
    for (auto _ : state) {
      for (unsigned i = 0; i < kRounds; ++i) {
        if (zmq_msg_send(&msg, a, 0) < 0 || zmq_msg_recv(&msg, a, 0) < 0) {
          state.SkipWithError("zmq_msg_send or zmq_msg_recv failed");
          break;
        }
      }
    }
    zmq_msg_close(&msg);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kRounds);
  zmq_send(a, "", 0, 0);
  b.join();
  zmq_close(bs);
  zmq_close(a);
  zmq_ctx_term(ctx);
}
#endif

void shapes(benchmark::internal::Benchmark *b) {
  for (int producers : {1, 4}) {
    for (int size : {64, 1024}) {
      b->Args({producers, size});
    }
  }
  b->ArgNames({"producers", "bytes"})->UseRealTime()->Unit(benchmark::kMillisecond);
}

// The dispatch manager without spinning (its default) and with a 20 us spin before sleeping.
constexpr int kSpinUs = 20;

void dm_shapes(benchmark::internal::Benchmark *b) {
  for (int producers : {1, 4}) {
    for (int size : {64, 1024}) {
      for (int spin_us : {0, kSpinUs}) {
        b->Args({producers, size, spin_us});
      }
    }
  }
  b->ArgNames({"producers", "bytes", "spin_us"})->UseRealTime()->Unit(benchmark::kMillisecond);
}

}  // namespace

BENCHMARK(BM_Throughput_Dm)->Apply(dm_shapes);
BENCHMARK(BM_Throughput_Mutex)->Apply(shapes);
#ifdef ZEL_BENCH_HAVE_ZMQ
BENCHMARK(BM_Throughput_Zmq)->Apply(shapes);
#endif
BENCHMARK(BM_PingPong_Dm)
    ->Arg(0)
    ->Arg(kSpinUs)
    ->ArgName("spin_us")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PingPong_Mutex)->UseRealTime()->Unit(benchmark::kMillisecond);
#ifdef ZEL_BENCH_HAVE_ZMQ
BENCHMARK(BM_PingPong_Zmq)->UseRealTime()->Unit(benchmark::kMillisecond);
#endif

int main(int argc, char **argv) {
  std::vector<zel_bench::Pair> pairs;
  for (const char *producers : {"1", "4"}) {
    for (const char *bytes : {"64", "1024"}) {
      const std::string shape = std::string("/producers:") + producers + "/bytes:" + bytes;
      const std::string dm = "BM_Throughput_Dm" + shape + "/spin_us:0/real_time";
      const std::string label = std::string("throughput ") + producers + "->1 " + bytes + "B dm/";
      pairs.push_back({label + "mutex", dm, "BM_Throughput_Mutex" + shape + "/real_time"});
#ifdef ZEL_BENCH_HAVE_ZMQ
      pairs.push_back({label + "zmq", dm, "BM_Throughput_Zmq" + shape + "/real_time"});
#endif
    }
  }
  pairs.push_back({"ping-pong 64B dm/mutex", "BM_PingPong_Dm/spin_us:0/real_time",
                   "BM_PingPong_Mutex/real_time", zel_bench::Kind::kTime});
#ifdef ZEL_BENCH_HAVE_ZMQ
  pairs.push_back({"ping-pong 64B dm/zmq", "BM_PingPong_Dm/spin_us:0/real_time",
                   "BM_PingPong_Zmq/real_time", zel_bench::Kind::kTime});
#endif
  return zel_bench::run(argc, argv, pairs);
}
