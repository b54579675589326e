// Dispatch manager watched queues against two yardsticks measured in the same run:
//   - Mutex: an intrusive list under a mutex with a condition variable signalled per message
//     (the textbook inter-thread queue);
//   - Zmq: ZeroMQ inproc sockets (PUSH/PULL for throughput, PAIR for ping-pong), when the
//     library is installed.
// Throughput: P producer threads each malloc a message of S bytes, write it and enqueue it; the
// consumer thread frees every message it receives (what a channel does). Ping-pong: one message
// bounces between two threads; time per round trip. The dispatch manager rows also report the
// system calls per message: eventfd writes (wakeups_per_msg) and blocking waits (sleeps_per_msg).
//
//   bench_dm --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
//            --benchmark_enable_random_interleaving=true
// and compare the median rows of the same shape (interleaving spreads the machine's noise over
// all rows alike).
#include <benchmark/benchmark.h>
#include <kro/dm.h>

#include <malloc.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#ifdef ZEL_BENCH_HAVE_ZMQ
#include <zmq.h>
#endif

namespace {

constexpr unsigned kBatch = 100000;  // messages per iteration, over all producers
constexpr unsigned kRounds = 20000;  // round trips per ping-pong iteration

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
    kro_dm_create(&dm);
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
    kro_dm_destroy(&dm);
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
  // No length limit in the way: a refused producer could only spin, which measures the
  // scheduler rather than the queue (ZeroMQ's sender blocks at its high-water mark instead).
  kro_dm_watched_queue_attr_t attr;
  kro_dm_watched_queue_attr_init(&attr);
  attr.max_len = KRO_DM_WATCHED_QUEUE_LEN_MAX;
  kro_dm_watched_queue_create("bench", 1, &attr, &q);
  kro_dm_set_spin(loop.dm, static_cast<uint32_t>(state.range(2)) * 1000u);
  kro_dm_watched_queue_register(loop.dm, q, DmSink::handler, &sink);
  kro_dm_stats_t before{};
  kro_dm_stats_get(loop.dm, &before);
  for (auto _ : state) {
    sink.tally.expect_more(kBatch);
    run_producers(producers, [&](int, unsigned count) {
      for (unsigned i = 0; i < count; ++i) {
        void *m = make_msg(size);
        kro_dm_watched_queue_enqueue(q, m);
      }
    });
    sink.tally.wait();
  }
  report_syscalls(state, loop.dm, before, state.iterations() * kBatch);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kBatch);
  loop.stop();  // deregistration is the owner's: this thread's once the loop has stopped
  kro_dm_watched_queue_deregister(loop.dm, q);
  kro_dm_watched_queue_destroy(&q);
}

// ---- Mutex + condition variable ---------------------------------------------------------------

class MutexQueue {
 public:
  void push(Msg *m) {
    {
      std::lock_guard<std::mutex> lock(mu_);
      m->link = nullptr;
      (tail_ != nullptr ? tail_->link : head_) = m;
      tail_ = m;
    }
    cv_.notify_one();
  }
  // Takes everything queued, blocking while empty; NULL when stopped.
  Msg *take_all() {
    std::unique_lock<std::mutex> lock(mu_);
    cv_.wait(lock, [this] { return head_ != nullptr || stop_; });
    Msg *all = static_cast<Msg *>(head_);
    head_ = nullptr;
    tail_ = nullptr;
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
  void *head_ = nullptr;
  Msg *tail_ = nullptr;
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
  void *ctx = zmq_ctx_new();
  void *pull = zmq_socket(ctx, ZMQ_PULL);
  zmq_bind(pull, "inproc://thr");
  Tally tally;
  std::atomic<bool> stop{false};
  std::thread consumer([&] {
    std::vector<char> buf(size);
    while (true) {
      const int n = zmq_recv(pull, buf.data(), buf.size(), 0);
      if (n <= 0 && stop.load(std::memory_order_acquire)) {
        break;
      }
      tally.add(1);
    }
  });
  for (auto _ : state) {
    tally.expect_more(kBatch);
    std::vector<void *> push(static_cast<size_t>(producers));
    for (void *&s : push) {
      s = zmq_socket(ctx, ZMQ_PUSH);
      zmq_connect(s, "inproc://thr");
    }
    run_producers(producers, [&](int p, unsigned count) {
      std::vector<char> buf(size, 0x5a);
      for (unsigned i = 0; i < count; ++i) {
        zmq_send(push[static_cast<size_t>(p)], buf.data(), size, 0);
      }
    });
    tally.wait();
    for (void *s : push) {
      zmq_close(s);
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kBatch);
  stop.store(true, std::memory_order_release);
  void *last = zmq_socket(ctx, ZMQ_PUSH);
  zmq_connect(last, "inproc://thr");
  zmq_send(last, "", 0, 0);
  consumer.join();
  zmq_close(last);
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
  kro_dm_create(&a);
  const auto spin_ns = static_cast<uint32_t>(state.range(0)) * 1000u;
  kro_dm_set_spin(a, spin_ns);
  kro_dm_watched_queue_t *qa = nullptr;
  kro_dm_watched_queue_t *qb = nullptr;
  kro_dm_watched_queue_create("a", 1, nullptr, &qa);
  kro_dm_watched_queue_create("b", 2, nullptr, &qb);
  DmPong pa;
  DmPong pb;
  pa.peer = qb;
  pb.peer = qa;
  kro_dm_watched_queue_register(a, qa, DmPong::count, &pa);
  Msg msg{};
  kro_dm_stats_t before_a{};
  kro_dm_stats_t before_b{};
  {
    DmLoop b;
    kro_dm_set_spin(b.dm, spin_ns);
    kro_dm_watched_queue_register(b.dm, qb, DmPong::echo, &pb);
    kro_dm_stats_get(a, &before_a);
    kro_dm_stats_get(b.dm, &before_b);
    for (auto _ : state) {
      pa.left = kRounds;
      kro_dm_watched_queue_enqueue(qb, &msg);
      while (pa.left != 0) {
        kro_dm_wait(a);
        kro_dm_dispatch(a);
      }
    }
    kro_dm_stats_t after{};
    kro_dm_stats_get(b.dm, &after);
    const double trips = static_cast<double>(state.iterations()) * kRounds;
    state.counters["wakeups_per_trip_b"] =
        static_cast<double>(after.wakeups - before_b.wakeups) / trips;
    b.stop();
    kro_dm_watched_queue_deregister(b.dm, qb);
  }
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
  bool full = false;
  void put() {
    {
      std::lock_guard<std::mutex> lock(mu);
      full = true;
    }
    cv.notify_one();
  }
  void take() {
    std::unique_lock<std::mutex> lock(mu);
    cv.wait(lock, [this] { return full; });
    full = false;
  }
};

void BM_PingPong_Mutex(benchmark::State &state) {
  Slot to_b;
  Slot to_a;
  std::atomic<bool> stop{false};
  std::thread b([&] {
    for (;;) {
      to_b.take();
      if (stop.load(std::memory_order_acquire)) {
        return;
      }
      to_a.put();
    }
  });
  for (auto _ : state) {
    for (unsigned i = 0; i < kRounds; ++i) {
      to_b.put();
      to_a.take();
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kRounds);
  stop.store(true, std::memory_order_release);
  to_b.put();
  b.join();
}

#ifdef ZEL_BENCH_HAVE_ZMQ
void BM_PingPong_Zmq(benchmark::State &state) {
  void *ctx = zmq_ctx_new();
  void *a = zmq_socket(ctx, ZMQ_PAIR);
  zmq_bind(a, "inproc://pingpong");
  std::thread b([ctx] {
    void *s = zmq_socket(ctx, ZMQ_PAIR);
    zmq_connect(s, "inproc://pingpong");
    char buf[64];
    while (zmq_recv(s, buf, sizeof buf, 0) > 0) {
      zmq_send(s, buf, 64, 0);
    }
    zmq_close(s);
  });
  char buf[64] = {1};
  for (auto _ : state) {
    for (unsigned i = 0; i < kRounds; ++i) {
      zmq_send(a, buf, sizeof buf, 0);
      zmq_recv(a, buf, sizeof buf, 0);
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kRounds);
  zmq_send(a, "", 0, 0);
  b.join();
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

// glibc gives freed memory at the top of the heap back to the system (and faults it in again)
// when a producer runs far ahead of its consumer; that page-fault traffic would swamp what the
// rows compare, so trimming is switched off for every row alike.
int main(int argc, char **argv) {
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
