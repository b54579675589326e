/* Test inspection of the host service stand-ins: set what the checks answer, read back the
 * event history and count module registrations. The calls themselves are journalled through
 * kro/probe.h. */
#ifndef HOST_PROBE_H_
#define HOST_PROBE_H_

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* What hvlog_hist_event_subtype_check returns (default 0: record). */
void host_probe_set_subtype_check(int answer);
/* What hvlog_chk_int returns (default 0: no debug print). */
void host_probe_set_chk_int(int answer);

size_t host_probe_history_count(void);
void host_probe_history_clear(void);
/* Copies event i (oldest first): its id, its length and up to `cap` of its bytes into `buf`.
 * Returns 0, or -1 past the end. */
int host_probe_history_get(size_t i, uint32_t *event_id, uint32_t *len, void *buf, size_t cap);

/* Times any_module_dt_init was called with this module name since the process started. */
unsigned host_probe_registrations(const char *name);
/* Number of trcout calls since the process started. */
unsigned host_probe_trcout_calls(void);

#ifdef __cplusplus
}
#endif

#endif /* HOST_PROBE_H_ */
