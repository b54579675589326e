// Event history (a ring in static storage) and debug print.
#include <host/hvlog.h>
#include <host/probe.h>
#include <kro/probe.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "kro/kro_mutex.h"

#include "host/host_internal.h"

std::atomic<int> host_subtype_check_answer{0};
std::atomic<int> host_chk_int_answer{0};
std::atomic<unsigned> host_trcout_count{0};

char hvlog_dbg_modname[32] = "zel-host";

namespace {

struct host_event {
  uint32_t id;
  uint32_t len;
  unsigned char bytes[HOST_HISTORY_EVENT_MAX];
};

kro_mutex host_history_mutex;
host_event host_history[HOST_HISTORY_CAPACITY] KRO_GUARDED_BY(host_history_mutex);
size_t host_history_next KRO_GUARDED_BY(host_history_mutex) = 0;  // total appended

}  // namespace

extern "C" {

int hvlog_hist_event_subtype_check(uint32_t event_id, uint32_t subtype) {
  const int answer = host_subtype_check_answer.load(std::memory_order_relaxed);
  kro_probe_journal_add("hvlog_hist_event_subtype_check 0x%x %u -> %d", event_id, subtype, answer);
  return answer;
}

int hvlog_hist_event(uint32_t event_id, uint32_t len, const void *data) {
  kro_probe_journal_add("hvlog_hist_event 0x%x %u", event_id, len);
  const kro_lock lock(host_history_mutex);
  host_event &ev = host_history[host_history_next % HOST_HISTORY_CAPACITY];
  ev.id = event_id;
  ev.len = len;
  const size_t n = len < HOST_HISTORY_EVENT_MAX ? len : HOST_HISTORY_EVENT_MAX;
  if (data != nullptr) {
    memcpy(ev.bytes, data, n);
  }
  ++host_history_next;
  return 0;
}

int hvlog_chk_int(uint32_t level, uint32_t a, uint32_t b, uint32_t c) {
  const int answer = host_chk_int_answer.load(std::memory_order_relaxed);
  kro_probe_journal_add("hvlog_chk_int %u %u %u %u -> %d", level, a, b, c, answer);
  return answer;
}

int trcout(int level, const void *modname, int flags, const char *fmt, ...) {
  char text[KRO_PROBE_ENTRY_MAX];
  va_list ap;
  va_start(ap, fmt);
  const int n = vsnprintf(text, sizeof text, fmt, ap);
  va_end(ap);
  host_trcout_count.fetch_add(1, std::memory_order_relaxed);
  kro_probe_journal_add(
      "trcout %d %s %d %s", level,
      modname == static_cast<const void *>(hvlog_dbg_modname) ? "hvlog_dbg_modname" : "other",
      flags, text);
  fputs(text, stderr);
  return n;
}

void host_probe_set_subtype_check(int answer) {
  host_subtype_check_answer.store(answer, std::memory_order_relaxed);
}

void host_probe_set_chk_int(int answer) {
  host_chk_int_answer.store(answer, std::memory_order_relaxed);
}

size_t host_probe_history_count(void) {
  const kro_lock lock(host_history_mutex);
  return host_history_next < HOST_HISTORY_CAPACITY ? host_history_next : HOST_HISTORY_CAPACITY;
}

void host_probe_history_clear(void) {
  const kro_lock lock(host_history_mutex);
  host_history_next = 0;
}

int host_probe_history_get(size_t i, uint32_t *event_id, uint32_t *len, void *buf, size_t cap) {
  const kro_lock lock(host_history_mutex);
  const size_t kept =
      host_history_next < HOST_HISTORY_CAPACITY ? host_history_next : HOST_HISTORY_CAPACITY;
  if (i >= kept) {
    return -1;
  }
  const size_t first = host_history_next - kept;
  const host_event &ev = host_history[(first + i) % HOST_HISTORY_CAPACITY];
  if (event_id != nullptr) {
    *event_id = ev.id;
  }
  if (len != nullptr) {
    *len = ev.len;
  }
  if (buf != nullptr) {
    const size_t stored = ev.len < HOST_HISTORY_EVENT_MAX ? ev.len : HOST_HISTORY_EVENT_MAX;
    memcpy(buf, ev.bytes, stored < cap ? stored : cap);
  }
  return 0;
}

unsigned host_probe_trcout_calls(void) {
  return host_trcout_count.load(std::memory_order_relaxed);
}

}  // extern "C"
