/* Test inspection of the platform stand-in.
 *
 * While the journal is on, every call into the trace services (flags, filtered log, module
 * registration, event history, debug print) appends one line describing the call and its
 * arguments, in call order, across threads. The journal is a fixed ring of static storage and
 * never allocates, so it does not disturb allocation counting; entries past its capacity are
 * dropped (kro_probe_journal_dropped counts them). Off by default.
 */
#ifndef KRO_PROBE_H_
#define KRO_PROBE_H_

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KRO_PROBE_JOURNAL_CAPACITY 4096u
#define KRO_PROBE_ENTRY_MAX 768u

/* Clears the journal and starts (or stops) recording. */
void kro_probe_journal_start(void);
void kro_probe_journal_stop(void);
size_t kro_probe_journal_count(void);
size_t kro_probe_journal_dropped(void);
/* Entry i (0-based, oldest first), valid until the next start; NULL past the end. */
const char *kro_probe_journal_entry(size_t i);
/* Appends a formatted entry when recording (cut at KRO_PROBE_ENTRY_MAX - 1 characters). Used by
 * the stand-in's own services. */
void kro_probe_journal_add(const char *fmt, ...)
#if defined(__GNUC__) || defined(__clang__)
    __attribute__((format(printf, 1, 2)))
#endif
    ;

#ifdef __cplusplus
}
#endif

#endif /* KRO_PROBE_H_ */
