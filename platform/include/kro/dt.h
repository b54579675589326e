/* libkro stand-in: debug-trace flags and the filtered log.
 *
 * A flag handle is an opaque one-word value; the handle 0 (NULL) is a flag that is always off.
 * Flags come from a fixed pool and are never freed: registration of a trace module creates two
 * (see host/module_dt.h). All functions are thread-safe and allocate nothing.
 */
#ifndef KRO_DT_H_
#define KRO_DT_H_

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct kro_dt_flag *kro_dt_flag_t;

/* Creates a flag named `name` (kept by reference) in the given state. NULL when the pool of
 * flags is used up. */
kro_dt_flag_t kro_dt_flag_create(const char *name, int enabled);
/* The flag's name, or "(none)" for the NULL flag. */
const char *kro_dt_flag_name(kro_dt_flag_t flag);

/* Non-zero when the flag is on; 0 for the NULL flag. */
int kro_dt_flag_enabled(kro_dt_flag_t flag);
/* Switch the flag on or off on behalf of `module` (used only in the journal). Return 0, or -1
 * for the NULL flag. */
int kro_dt_flag_enable(kro_dt_flag_t flag, const char *module);
int kro_dt_flag_disable(kro_dt_flag_t flag, const char *module);

/* The filtered log. When `flag` is on, formats `fmt` with its arguments and hands the entry to
 * the sink; when it is off, does nothing but journal the call. `slot` is the calling site's
 * log slot, a word of static storage that starts at 0xffffffff and belongs to the log from
 * then on: the log keeps a per-site rate limit in it (at most KRO_DT_LOG_RATE entries per
 * second per site; the entries refused are counted and the next entry let through says how
 * many were suppressed). The four 32-bit and the 64-bit arguments are reserved (pass 0).
 * Returns 1 when an entry was written, 0 otherwise. */
#define KRO_DT_LOG_RATE 32u
int _kro_dt_log_filter_adv(kro_dt_flag_t flag, uint32_t r1, uint32_t r2, uint32_t r3, uint32_t r4,
                           uint64_t r5, uint32_t *slot, const char *fmt, ...)
#if defined(__GNUC__) || defined(__clang__)
    __attribute__((format(printf, 8, 9)))
#endif
    ;

/* Where filtered-log entries go. The sink gets the entry's text (not terminated by a line end
 * of its own) and its length. NULL restores the default: standard error. */
typedef void (*kro_dt_log_sink_fn)(const char *entry, size_t len, void *arg);
void kro_dt_log_set_sink(kro_dt_log_sink_fn sink, void *arg);

#ifdef __cplusplus
}
#endif

#endif /* KRO_DT_H_ */
