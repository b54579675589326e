/* Test inspection of the feature process host services (host/fu.h): set what the heartbeat
 * timeout and the process state read, and count the calls a loop makes. Counters are atomic;
 * every function may be called from any thread. supvd_heartbeat and fu_condnal_postcleanup_done
 * are also journalled through kro/probe.h ("supvd_heartbeat 0", "fu_condnal_postcleanup_done 0").
 */
#ifndef HOST_FU_PROBE_H_
#define HOST_FU_PROBE_H_

#include <stdint.h>

#include <host/fu.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Counters to 0, the heartbeat timeout to FU_HEARTBEAT_TIMEOUT_DEFAULT, the state word to 0.
 * Not while a loop runs. */
void fu_probe_reset(void);

/* What supvd_heartbeat_timeout_get answers from now on (milliseconds, 0: no timer). */
void fu_probe_set_heartbeat_timeout(uint32_t ms);
/* Writes fu_global.state (a relaxed atomic store): FU_STATE_EXIT asks the loop to exit at its
 * next heartbeat timer expiry. */
void fu_probe_set_state(uint32_t state);

/* supvd_heartbeat calls since the last reset. */
unsigned fu_probe_heartbeats(void);
/* Blocks the calling thread until supvd_heartbeat has been called at least `n` times since the
 * last reset (a futex wait, no polling). */
void fu_probe_wait_heartbeats(unsigned n);
/* fu_condnal_postcleanup_done calls since the last reset. */
unsigned fu_probe_postcleanup_calls(void);
/* fu_fsm_event_init calls since the last reset. */
unsigned fu_probe_event_inits(void);
/* fm_get_feature_instance_req calls since the last reset. */
unsigned fu_probe_instance_reqs(void);
/* Copies the options record of the last fu_pmx_recv call (all zero before the first) into
 * *opts; nothing for NULL. */
void fu_probe_last_recv_opts(fu_pmx_recv_opts_t *opts);

#ifdef __cplusplus
}
#endif

#endif /* HOST_FU_PROBE_H_ */
