/* Host service stand-in: the services a feature process supplies to its event loop.
 *
 * - the system manager's heartbeat: supvd_heartbeat, supvd_heartbeat_timeout_get;
 * - the feature utility: its event record (fu_fsm_event_t, fu_fsm_event_init), the receive of
 *   one message from the process's message descriptor (fu_pmx_recv), the report that the
 *   loop's clean-up is finished (fu_condnal_postcleanup_done) and its global record fu_global
 *   with the process state word;
 * - the feature manager: the feature instance of a request (fm_get_feature_instance_req).
 *
 * Messages on a message descriptor are length-prefixed: a 32-bit length in host byte order
 * followed by that many bytes (at most FU_PMX_DATA_MAX). fu_pmx_send writes one in a single
 * write, so a message on a pipe arrives whole. The descriptor must be a stream (a pipe, a
 * SOCK_STREAM socket or socket pair): on a datagram socket the length would be read as a
 * datagram of its own.
 *
 * Threads: every service may be called from any thread. fu_global.state is written by the
 * feature utility (in tests: fu_probe_set_state) and read by the loop without a lock; both
 * sides use relaxed atomic accesses (__atomic_load_n / __atomic_store_n).
 */
#ifndef HOST_FU_H_
#define HOST_FU_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Messages and the event record ------------------------------------------------------- */

#define FU_PMX_DATA_MAX 4092u

/* One received message, as fu_pmx_recv stores it: 4096 bytes. */
typedef struct fu_pmx_msg {
  uint32_t len;                        /* bytes of data received */
  unsigned char data[FU_PMX_DATA_MAX]; /* the message; bytes past len are left as they were */
} fu_pmx_msg_t;

/* The feature utility's event record: 12 bytes of header and the message from byte 12 on
 * (4108 bytes in all, on every word size). */
typedef struct fu_fsm_event {
  uint32_t type;    /* byte 0: FU_FSM_EVENT_NONE after fu_fsm_event_init */
  uint32_t from_fd; /* byte 4: 1 when the event is a message from a descriptor, else 0 */
  int32_t fd;       /* byte 8: that descriptor */
  fu_pmx_msg_t msg; /* byte 12: the message */
} fu_fsm_event_t;

#define FU_FSM_EVENT_NONE 0u

/* Receive options: 40 bytes. */
typedef struct fu_pmx_recv_opts {
  uint32_t flags;       /* byte 0: reserved, 0 */
  uint32_t nonblock;    /* byte 4: 1: fail at once when no byte of a message has arrived yet */
  uint32_t reserved[8]; /* 0 */
} fu_pmx_recv_opts_t;

/* Zeroes the record's header words and its message length. Nothing for NULL. */
void fu_fsm_event_init(fu_fsm_event_t *event);

/* Receives one message from `fd` into *msg (the event record's bytes from 12 on): its length
 * word, then its data. Once the first byte has arrived the rest is waited for. Returns the
 * number of data bytes (0 for an empty message); -1 for a NULL msg or opts, a negative fd, a
 * failing read, end of file (the peer closed) before or within the message, a length above
 * FU_PMX_DATA_MAX (the stream is then out of step), or, with opts->nonblock, no message there
 * yet. After -1 the contents of *msg are not defined. */
int fu_pmx_recv(int fd, fu_pmx_msg_t *msg, const fu_pmx_recv_opts_t *opts);

/* Writes one message of `len` bytes (at most FU_PMX_DATA_MAX) to `fd` in one write: the sending
 * side of a message descriptor, for tests and demonstrations. No SIGPIPE on a socket whose peer
 * closed. Returns 0; -1 for a NULL data with a non-zero len, a len above FU_PMX_DATA_MAX or a
 * failing or short write. */
int fu_pmx_send(int fd, const void *data, uint32_t len);

/* ---- System manager heartbeat ------------------------------------------------------------ */

/* Reports the process alive. `flags` is 0. Returns 0. */
int supvd_heartbeat(uint32_t flags);

/* The heartbeat timeout in milliseconds (the timer leaf's unit); 0 when no heartbeat timer is
 * wanted. The stand-in answers FU_HEARTBEAT_TIMEOUT_DEFAULT until fu_probe_set_heartbeat_timeout
 * changes it. */
#define FU_HEARTBEAT_TIMEOUT_DEFAULT 1000u
uint32_t supvd_heartbeat_timeout_get(void);

/* ---- Feature utility global record ------------------------------------------------------- */

#define FU_STATE_EXIT 5u /* the process is to exit */

/* The feature utility's global record: only the process state word at byte 476 is read by the
 * loop; the rest belongs to the feature utility. 512 bytes. */
typedef struct fu_global {
  unsigned char reserved1[476];
  uint32_t state; /* byte 476: the process state; FU_STATE_EXIT asks the process to exit */
  unsigned char reserved2[32];
} fu_global_t;

extern fu_global_t fu_global;

/* Tells the feature utility that the loop's clean-up is finished. `flags` is 0. Returns 0. */
int fu_condnal_postcleanup_done(uint32_t flags);

/* ---- Feature manager --------------------------------------------------------------------- */

/* A feature manager request about one feature instance. */
typedef struct fm_feature_instance_req {
  uint32_t msg_type; /* the request's kind (enable, disable, ...); not interpreted here */
  uint32_t feature;  /* the feature's id */
  uint32_t instance; /* the feature instance */
} fm_feature_instance_req_t;

/* The request's feature instance; writes the request's feature id into *scratch when scratch is
 * not NULL. A NULL request gives 0 and leaves *scratch alone. */
uint32_t fm_get_feature_instance_req(const fm_feature_instance_req_t *req, uint32_t *scratch);

#ifdef __cplusplus
}
#endif

#endif /* HOST_FU_H_ */
