/* Host service stand-in: event history and debug print.
 *
 * The event history keeps the last HOST_HISTORY_CAPACITY events in memory, readable through
 * host/probe.h. The debug print writes to standard error. All functions are thread-safe and
 * allocate nothing.
 */
#ifndef HOST_HVLOG_H_
#define HOST_HVLOG_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define HOST_HISTORY_CAPACITY 1024u
#define HOST_HISTORY_EVENT_MAX 1024u /* longer events are cut to this many bytes */

/* 0 when events of `subtype` are to be recorded (the default); see host_probe_set_*. */
int hvlog_hist_event_subtype_check(uint32_t event_id, uint32_t subtype);
/* Appends one event of `len` bytes copied from `data`. Returns 0. */
int hvlog_hist_event(uint32_t event_id, uint32_t len, const void *data);
/* Non-zero when debug print is wanted for `level` (0 by default). */
int hvlog_chk_int(uint32_t level, uint32_t a, uint32_t b, uint32_t c);
/* printf-style debug print on behalf of the module object `modname`. Returns the count
 * written. */
int trcout(int level, const void *modname, int flags, const char *fmt, ...)
#if defined(__GNUC__) || defined(__clang__)
    __attribute__((format(printf, 4, 5)))
#endif
    ;

/* The host's debug-print module object, handed to trcout by address. */
extern char hvlog_dbg_modname[32];

#ifdef __cplusplus
}
#endif

#endif /* HOST_HVLOG_H_ */
