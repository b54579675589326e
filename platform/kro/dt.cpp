// Debug-trace flags (a fixed pool) and the filtered log with its per-site rate limit.
#include <kro/dt.h>
#include <kro/probe.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "kro/probe_internal.h"

struct kro_dt_flag {
  const char *name;
  std::atomic<int> on;
};

namespace {

constexpr unsigned kro_dt_pool_size = 256;
kro_dt_flag kro_dt_pool[kro_dt_pool_size];
std::atomic<unsigned> kro_dt_pool_used{0};

std::atomic<kro_dt_log_sink_fn> kro_dt_sink{nullptr};
std::atomic<void *> kro_dt_sink_arg{nullptr};

constexpr uint32_t kro_dt_slot_unused = 0xffffffffU;

// Slot layout: bits 16-31 the second of the current window, bits 8-15 the entries written in
// it, bits 0-7 the entries suppressed since the last one written (saturating at 255).
// Returns whether this entry may be written, and the suppressed count to report with it.
bool kro_dt_rate_admit(uint32_t *slot, uint32_t *suppressed) {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
  const uint32_t now = static_cast<uint32_t>(ts.tv_sec) & 0xffffU;
  uint32_t old = __atomic_load_n(slot, __ATOMIC_RELAXED);
  for (;;) {
    uint32_t next;
    bool admit;
    uint32_t dropped = 0;
    if (old == kro_dt_slot_unused || (old >> 16) != now) {
      dropped = old == kro_dt_slot_unused ? 0 : (old & 0xffU);
      next = (now << 16) | (1U << 8);
      admit = true;
    } else if (((old >> 8) & 0xffU) >= KRO_DT_LOG_RATE) {
      const uint32_t s = old & 0xffU;
      next = (old & 0xffffff00U) | (s == 0xffU ? s : s + 1);
      admit = false;
    } else {
      dropped = old & 0xffU;
      next = (old & 0xffffff00U) + (1U << 8);
      admit = true;
    }
    if (__atomic_compare_exchange_n(slot, &old, next, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
      *suppressed = dropped;
      return admit;
    }
  }
}

}  // namespace

extern "C" {

kro_dt_flag_t kro_dt_flag_create(const char *name, int enabled) {
  const unsigned i = kro_dt_pool_used.fetch_add(1, std::memory_order_relaxed);
  if (i >= kro_dt_pool_size) {
    return nullptr;
  }
  kro_dt_flag *f = &kro_dt_pool[i];
  f->name = name;
  f->on.store(enabled != 0 ? 1 : 0, std::memory_order_relaxed);
  return f;
}

const char *kro_dt_flag_name(kro_dt_flag_t flag) {
  return flag == nullptr || flag->name == nullptr ? "(none)" : flag->name;
}

int kro_dt_flag_enabled(kro_dt_flag_t flag) {
  const int on = flag == nullptr ? 0 : flag->on.load(std::memory_order_relaxed);
  kro_probe_journal_add("kro_dt_flag_enabled %s -> %d", kro_dt_flag_name(flag), on);
  return on;
}

int kro_dt_flag_enable(kro_dt_flag_t flag, const char *module) {
  kro_probe_journal_add("kro_dt_flag_enable %s %s", kro_dt_flag_name(flag),
                        module == nullptr ? "(null)" : module);
  if (flag == nullptr) {
    return -1;
  }
  flag->on.store(1, std::memory_order_relaxed);
  return 0;
}

int kro_dt_flag_disable(kro_dt_flag_t flag, const char *module) {
  kro_probe_journal_add("kro_dt_flag_disable %s %s", kro_dt_flag_name(flag),
                        module == nullptr ? "(null)" : module);
  if (flag == nullptr) {
    return -1;
  }
  flag->on.store(0, std::memory_order_relaxed);
  return 0;
}

// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
int _kro_dt_log_filter_adv(kro_dt_flag_t flag, uint32_t r1, uint32_t r2, uint32_t r3, uint32_t r4,
                           uint64_t r5, uint32_t *slot, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  const bool on = flag != nullptr && flag->on.load(std::memory_order_relaxed) != 0;
  if (kro_probe_recording()) {
    char text[KRO_PROBE_ENTRY_MAX];
    va_list cp;
    va_copy(cp, ap);
    vsnprintf(text, sizeof text, fmt, cp);
    va_end(cp);
    kro_probe_journal_add("_kro_dt_log_filter_adv %s %u %u %u %u %llu slot=%p %s",
                          kro_dt_flag_name(flag), r1, r2, r3, r4,
                          static_cast<unsigned long long>(r5), static_cast<void *>(slot), text);
  }
  int written = 0;
  uint32_t suppressed = 0;
  if (on && (slot == nullptr || kro_dt_rate_admit(slot, &suppressed))) {
    char entry[1024];
    int n = 0;
    if (suppressed != 0) {
      n = snprintf(entry, sizeof entry, "[%u%s entries suppressed] ", suppressed,
                   suppressed == 0xffU ? "+" : "");
    }
    const int m = vsnprintf(entry + n, sizeof entry - static_cast<size_t>(n), fmt, ap);
    size_t len = static_cast<size_t>(n) + (m > 0 ? static_cast<size_t>(m) : 0);
    if (len >= sizeof entry) {
      len = sizeof entry - 1;
    }
    const kro_dt_log_sink_fn sink = kro_dt_sink.load(std::memory_order_acquire);
    if (sink != nullptr) {
      sink(entry, len, kro_dt_sink_arg.load(std::memory_order_relaxed));
    } else {
      fwrite(entry, 1, len, stderr);
    }
    written = 1;
  }
  va_end(ap);
  return written;
}

void kro_dt_log_set_sink(kro_dt_log_sink_fn sink, void *arg) {
  kro_dt_sink_arg.store(arg, std::memory_order_relaxed);
  kro_dt_sink.store(sink, std::memory_order_release);
}

}  // extern "C"
