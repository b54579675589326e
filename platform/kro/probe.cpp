// The call journal: a fixed ring of static entries under one mutex. Recording is off unless a
// test starts it, so production paths pay one relaxed load.
#include <kro/probe.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>

#include "kro/kro_mutex.h"
#include "kro/probe_internal.h"

namespace {

kro_mutex kro_probe_mutex;
char kro_probe_entries[KRO_PROBE_JOURNAL_CAPACITY][KRO_PROBE_ENTRY_MAX] KRO_GUARDED_BY(
    kro_probe_mutex);
size_t kro_probe_count KRO_GUARDED_BY(kro_probe_mutex) = 0;
size_t kro_probe_dropped KRO_GUARDED_BY(kro_probe_mutex) = 0;
std::atomic<bool> kro_probe_on{false};

}  // namespace

bool kro_probe_recording() {
  return kro_probe_on.load(std::memory_order_relaxed);
}

void kro_probe_journal_vadd(const char *fmt, va_list ap) {
  const kro_lock lock(kro_probe_mutex);
  if (!kro_probe_on.load(std::memory_order_relaxed)) {
    return;
  }
  if (kro_probe_count >= KRO_PROBE_JOURNAL_CAPACITY) {
    ++kro_probe_dropped;
    return;
  }
  vsnprintf(kro_probe_entries[kro_probe_count], KRO_PROBE_ENTRY_MAX, fmt, ap);
  ++kro_probe_count;
}

extern "C" {

void kro_probe_journal_start(void) {
  const kro_lock lock(kro_probe_mutex);
  kro_probe_count = 0;
  kro_probe_dropped = 0;
  kro_probe_on.store(true, std::memory_order_relaxed);
}

void kro_probe_journal_stop(void) {
  const kro_lock lock(kro_probe_mutex);
  kro_probe_on.store(false, std::memory_order_relaxed);
}

size_t kro_probe_journal_count(void) {
  const kro_lock lock(kro_probe_mutex);
  return kro_probe_count;
}

size_t kro_probe_journal_dropped(void) {
  const kro_lock lock(kro_probe_mutex);
  return kro_probe_dropped;
}

const char *kro_probe_journal_entry(size_t i) {
  const kro_lock lock(kro_probe_mutex);
  return i < kro_probe_count ? kro_probe_entries[i] : nullptr;
}

void kro_probe_journal_add(const char *fmt, ...) {
  if (!kro_probe_recording()) {
    return;
  }
  va_list ap;
  va_start(ap, fmt);
  kro_probe_journal_vadd(fmt, ap);
  va_end(ap);
}

}  // extern "C"
