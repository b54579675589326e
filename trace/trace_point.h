// The trace point, expanded at each site (internal to the library).
//
//   ZEL_TRACE(record, ZEL_TRACE_ERROR, code, "message %d\n", args...);
//
// The message must be a string literal ending in one newline. Each expansion owns a static
// log slot (0xffffffff until the filtered log takes it over). Steps, in order:
//   1. echo the message plus one newline on standard output;
//   2. when the level's flag is on: the event history (subtype 104 or 102, the text cut at 511
//      characters) if its subtype check answers 0, then the debug print if hvlog_chk_int says
//      so;
//   3. always: the filtered log, with the flag, four 32-bit zeros, a 64-bit zero, the slot and
//      "%u: %s: %s: %d: %d: " joined with the message, then the thread id, the module name,
//      the function name, the line, the code and the message's arguments.
// Nothing is allocated: the history record lives on the stack. A record that was never
// registered (all zero) gives flag 0 and module name NULL; the platform treats flag 0 as off.
#ifndef ZEL_TRACE_TRACE_POINT_H_
#define ZEL_TRACE_TRACE_POINT_H_

#include <host/hvlog.h>
#include <kro/dt.h>
#include <pthread.h>
#include <zel/trace.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

enum zel_trace_level : int { ZEL_TRACE_TRACE = 0, ZEL_TRACE_ERROR = 1 };

// The record handed to the event history: the subtype, then the text and its terminator.
struct zel_trace_hist_t {
  uint32_t subtype;
  char text[512];
};
static_assert(sizeof(zel_trace_hist_t) == 516, "history record is 4 + 512 bytes");

inline kro_dt_flag_t zel_trace_flag(const any_module_dt_t &rec, zel_trace_level level) {
  return level == ZEL_TRACE_ERROR ? rec.error_flag : rec.trace_flag;
}

inline uint32_t zel_trace_subtype(zel_trace_level level) {
  return level == ZEL_TRACE_ERROR ? ZEL_TRACE_SUBTYPE_ERROR : ZEL_TRACE_SUBTYPE_TRACE;
}

inline unsigned zel_trace_thread_id() {
  // The log prints the id with "%u"; on 64-bit hosts only the low 32 bits are shown.
  return static_cast<unsigned>(pthread_self());
}

#define ZEL_TRACE(rec, level, code, msg, ...)                                               \
  do {                                                                                      \
    static uint32_t zel_trace_slot_ = 0xffffffffU;                                          \
    const kro_dt_flag_t zel_trace_flag_ = zel_trace_flag((rec), (level));                   \
    const uint32_t zel_trace_subtype_ = zel_trace_subtype(level);                           \
    printf(msg "\n" __VA_OPT__(, ) __VA_ARGS__);                                            \
    if (kro_dt_flag_enabled(zel_trace_flag_) != 0) {                                        \
      if (hvlog_hist_event_subtype_check(ZEL_TRACE_EVENT_ID, zel_trace_subtype_) == 0) {    \
        zel_trace_hist_t zel_trace_hist_;                                                   \
        zel_trace_hist_.subtype = zel_trace_subtype_;                                       \
        snprintf(zel_trace_hist_.text, sizeof zel_trace_hist_.text,                         \
                 msg "\n" __VA_OPT__(, ) __VA_ARGS__);                                      \
        const uint32_t zel_trace_n_ = static_cast<uint32_t>(strlen(zel_trace_hist_.text));  \
        hvlog_hist_event(ZEL_TRACE_EVENT_ID, 4 + zel_trace_n_ + 1, &zel_trace_hist_);       \
      }                                                                                     \
      if (hvlog_chk_int(zel_trace_subtype_, 0, 0, 1) != 0) {                                \
        trcout(1, &hvlog_dbg_modname, 0, msg "\n" __VA_OPT__(, ) __VA_ARGS__);              \
      }                                                                                     \
    }                                                                                       \
    _kro_dt_log_filter_adv(zel_trace_flag_, 0, 0, 0, 0, UINT64_C(0), &zel_trace_slot_,      \
                           "%u: %s: %s: %d: %d: " msg, zel_trace_thread_id(), (rec).name,   \
                           static_cast<const char *>(__func__), static_cast<int>(__LINE__), \
                           static_cast<int>(code) __VA_OPT__(, ) __VA_ARGS__);              \
  } while (0)

#endif  // ZEL_TRACE_TRACE_POINT_H_
