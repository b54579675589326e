/* Inter-thread channels.
 *
 * Named channels between the threads of one process. A name has at most one server channel
 * (slot 0) and up to 255 client channels (slots 1 to 255). A client talks only to the server
 * of its name; the server talks to any client of its name.
 *
 * Handles. A channel's handle is the name-service handle of its binding: the name's id in bits
 * 16 to 31, the slot in bits 0 to 15 (slot 0 the server). Ids start at 1, so 0 never names a
 * channel. After a client closes, the next client of the same name may take the freed slot and
 * so receive the same handle. The names live in one process-wide name service guarded by one
 * process-wide channel mutex, both created by the first channel operation.
 *
 * Delivery. Each channel owns a watched queue of the dispatch manager given to lib_itc_open.
 * A send from any thread enqueues on the receiver's queue; the receiver's dispatch manager then
 * runs the channel's queue handler in its dispatch step, on the thread that runs that manager's
 * loop (the channel's "own thread" below). The handler drains the queue in one run and calls
 * the callback once per message, in queue order, with the message type:
 * - LIB_ITC_MSG_DATA: take the message with lib_itc_receive;
 * - LIB_ITC_MSG_CONNECT (servers only): read it with lib_itc_get_connection_event;
 * - LIB_ITC_MSG_CONNECTED, LIB_ITC_MSG_DISCONNECT (clients only): complete in the type alone.
 * A data or connection message the callback does not take is freed when the callback returns;
 * a data message freed this way gives its bytes back to the budget. Inside the callback,
 * lib_itc_receive and lib_itc_get_connection_event first return the message being delivered
 * ("current"); called again in the same callback they take further messages of their kind
 * directly from the queue (those are then not delivered through the callback). A message of
 * the other kind met that way is set aside ("pending"), the call returns 11, and both calls
 * keep returning 11 until the handler has delivered it through the callback: right after the
 * current callback returns, or at the next handler run when it was set aside between dispatch
 * steps. The callback runs with no library lock held and may call any channel operation,
 * close of its own channel included; after such a close no further message of that channel
 * reaches the callback (what is still queued is freed).
 *
 * Connection events. When a client and the server of its name are both open, the server gets
 * one LIB_ITC_MSG_CONNECT message naming the client's handle with event code
 * LIB_ITC_MSG_CONNECT, and the client one LIB_ITC_MSG_CONNECTED; whichever of the two opens
 * second posts both. A client that closes while the server is open sends the server a
 * LIB_ITC_MSG_CONNECT message with event code LIB_ITC_MSG_DISCONNECT; a server that closes
 * sends LIB_ITC_MSG_DISCONNECT to each open client. Notifications are best effort: one that
 * can't be allocated or queued (the receiver's queue full or closing) is dropped without a
 * report, and they are never charged to the receiver's byte budget.
 *   Consistency with concurrent opens and closes: every slot read happens under the channel
 * mutex, together with the slot store or release of the same open or close, so every pair of a
 * client and a server is told exactly once of its connection and at most once of its end. The
 * notifications are posted outside the channel mutex, on references taken under it (a peer
 * that closes meanwhile stays allocated until the posting is done). The posting phases of all
 * opens and closes are taken in turn in the order of their critical sections (a ticket drawn
 * under the mutex; a later phase waits for the earlier ones, which only allocate and enqueue),
 * so each channel receives its notifications in the order the opens and closes happened: a
 * client never sees a server's LIB_ITC_MSG_DISCONNECT before that server's
 * LIB_ITC_MSG_CONNECTED, nor a server a client's end before its start.
 *
 * Budget. Each channel has a receive budget, max_bytes: the payload bytes of data messages
 * accepted for it and not yet out of its queue (received, discarded or freed) never exceed it.
 * A send is refused with 28 when its length plus the bytes queued would exceed the budget
 * (equal is allowed; the sum is computed without wrap-around). The bytes are reserved with one
 * compare-and-swap before the enqueue and given back when the enqueue fails, so concurrent
 * senders never pass the budget together; a send racing a failed enqueue may see the budget
 * short by that message for a moment. The queue's own length limit (queue_len, default 50
 * messages, notifications included) applies besides: a send to a full queue returns
 * KRO_DM_EAGAIN (11) from the queue.
 *
 * Message ownership. A data message is one malloc block, header and payload together, handed
 * from sender to receiver by pointer. It belongs to the caller of lib_itc_alloc until a send
 * succeeds (a failed send leaves it the sender's); then to the destination's queue until it is
 * received (then the receiver's, who frees it with lib_itc_free) or discarded. Messages still
 * queued when a channel is cleaned up, or found by the handler of a closed channel, are freed.
 *
 * Close and clean-up. Close tells the peers, releases the binding and schedules the clean-up of
 * the channel's record as a one-shot timer (value {0, 0}) on the channel's own dispatch
 * manager: at its next dispatch step, on the channel's own thread, the queue is deregistered,
 * the messages still in it are freed, the queue destroyed and the record freed (by a late
 * sender instead, see below, if one still holds a reference), so a record is never freed while
 * its handler delivers from it. From the close on, the handle is unknown (22) to the operations
 * that need the channel itself (close, receive, connection events, sends to it); alloc and free
 * look only at the name. Failures of the timer calls are traced on
 * lib_amdt (error level): "kro_dm_timer_register failed\n" and "kro_dm_timer_settime failed\n"
 * from lib_itc_queue_entry_destroy, "kro_dm_timer_register (delete) failed\n" from
 * lib_itc_cleanup_timer_handler, each with the failing call's result as code. When the timer
 * can't be created or armed, the clean-up is not lost: after the trace point, a message
 * embedded in the record (no allocation) is queued on the channel's own queue, and the queue
 * handler performs the same clean-up on the channel's own thread. Nothing else traces.
 *   A send racing the close of its destination never touches freed memory: the sender takes a
 * reference on the destination's record under the channel mutex and drops it after its
 * enqueue and budget update; the record and its queue are freed by whoever drops the last
 * reference (the clean-up, or a late sender, which then frees the queue's remaining messages).
 * Such a late send either lands before the queue is deregistered (its message is then freed
 * by the clean-up) or fails with KRO_DM_ENOTCONN (107) and the message stays the sender's.
 *   A dispatch manager can be destroyed only after its channels are closed and a dispatch step
 * has run their clean-up (a registered queue keeps kro_dm_destroy refusing with EBUSY).
 *
 * Threads. lib_itc_open, lib_itc_close, lib_itc_alloc, lib_itc_free and lib_itc_send may be
 * called from any thread. lib_itc_receive and lib_itc_get_connection_event use the channel's
 * delivery state without a lock and must run on the channel's own thread: inside its callback,
 * or on that thread between dispatch steps. lib_itc_send takes the channel mutex only for the
 * lookup of its destination and a reference on it (a cached name entry and a slot read; a
 * sender that finds the mutex taken retries briefly before sleeping on it); everything else is
 * outside. Inside a callback, lib_itc_receive and lib_itc_get_connection_event of the channel
 * being delivered take no lock (they find its record through the handler; once the channel is
 * closed they return 22, even if a newer channel has taken the same handle meanwhile).
 * lib_itc_alloc and lib_itc_free take no lock for a name id the calling thread has already seen
 * bound, as long as no name has been released since.
 *
 * lib_itc_free needs a bound name: a message received on a channel must be freed while some
 * channel of its name is still open (or handed back through a send); once the name is
 * released, it can no longer be given back through lib_itc_free.
 *
 * Memory at rest, per open channel (32-bit / 64-bit Linux, before the allocator's own
 * per-block overhead): the record, 124 / 160 bytes (64 of them padding), and its watched
 * queue, 196 / 256 bytes (two cache-line paddings included), two blocks; a slot pointer in the
 * name's slot array, 4 / 8 bytes (the array grows 3 slots at a time and never shrinks); and, shared
 * by all channels of a name, the name's entry, 32 / 64 bytes, its slot array record, 20 / 32 bytes,
 * and its first 3 slots, 12 / 24 bytes, three blocks. A data message costs its payload plus the
 * header, 16 / 24 bytes, in one malloc block; a notification is a header alone. Nothing else is
 * allocated per message, nor per send. A closed channel holds a dispatch-manager timer
 * (52 / 80 bytes) until its clean-up has run.
 *
 * Left open by the contract and settled here:
 * - Open that fails after binding (record, queue creation or registration) releases what it
 *   bound and made: no name is left owned with an empty slot 0, no counted empty client slot,
 *   no queue. A record that can't be allocated fails the open with 12.
 * - lib_itc_alloc that can't allocate the message (or whose length plus header would overflow
 *   the address space) writes nothing and returns 12.
 * - NULL arguments beyond those listed return 22 and change nothing (open: name, dispatch
 *   manager, callback; alloc, receive, get_connection_event: the output addresses).
 * - The name's limits apply unchanged: 255 clients per name, 65535 name ids per process; a
 *   binding past them is refused with 16.
 * - A send racing the close of its destination: references (see "Close and clean-up").
 * - Notifications and concurrent opens and closes on one name: slot reads under the mutex,
 *   posting in turn (see "Connection events").
 * - Messages queued at clean-up or met by the handler of a closed channel: freed.
 * - A clean-up timer that can't be created or armed: traced, then the queue carries the
 *   clean-up (see "Close and clean-up"), so nothing is left behind.
 * - The budget check and the addition are one compare-and-swap (see "Budget").
 */
#ifndef ZEL_ITC_H_
#define ZEL_ITC_H_

#include <stdint.h>

#include <kro/dm.h>
#include <zel/export.h>

ZEL_BEGIN_DECLS

/* Result codes. The dispatch manager's own codes pass through where noted: KRO_DM_EAGAIN (11,
 * send: the destination's queue is full), KRO_DM_ENOMSG (42, receive: nothing queued),
 * KRO_DM_ENOTCONN (107, send: the destination is being closed), and its creation and
 * registration codes from open. */
#define LIB_ITC_OK 0
#define LIB_ITC_EAGAIN 11 /* receive, connection event: the message at hand is of another kind */
#define LIB_ITC_ENOMEM 12 /* memory for the name service, the record or a message is lacking */
#define LIB_ITC_EBUSY 16  /* open: the name has a server, or no slot of the name can be bound */
#define LIB_ITC_EINVAL 22 /* invalid argument, unknown handle or wrong message */
#define LIB_ITC_ENOSPC 28 /* send: the destination's byte budget would be exceeded */

/* Roles given to lib_itc_open. Any value other than LIB_ITC_SERVER opens a client. */
#define LIB_ITC_CLIENT 0
#define LIB_ITC_SERVER 1

/* Message types (the `type` of a header, and the type handed to the callback). */
#define LIB_ITC_MSG_DATA 1u            /* data: handle = sender, length = payload bytes */
#define LIB_ITC_MSG_CONNECTED 0x800u   /* to a client: its server is there */
#define LIB_ITC_MSG_CONNECT 0x4000u    /* to the server: handle = the client, length = event */
#define LIB_ITC_MSG_DISCONNECT 0x8000u /* to a client: its server has gone; also an event code */

/* Open attributes. */
typedef struct lib_itc_attr {
  uint32_t reserved;  /* not read */
  uint32_t queue_len; /* length limit of the channel's watched queue, in messages */
  uint32_t max_bytes; /* receive budget: payload bytes of data messages queued at once */
} lib_itc_attr_t;

/* The attributes used when lib_itc_open gets NULL: {0, 50, 8192}. */
#define LIB_ITC_DEFAULT_QUEUE_LEN 50u
#define LIB_ITC_DEFAULT_MAX_BYTES 8192u

/* The header every message starts with. A data message's payload follows it directly; the
 * library hands out the payload's address and finds the header just before it. */
typedef struct lib_itc_msg_hdr {
  void *link;      /* the watched queue's link word; 0 when the message is built */
  uint32_t type;   /* LIB_ITC_MSG_* */
  uint32_t handle; /* data: the handle given to lib_itc_alloc; connection event: the client */
  uint32_t length; /* data: payload bytes; connection event: the event code; otherwise 0 */
} lib_itc_msg_hdr_t;

/* The opener's callback: the channel's handle, the message type and the opener's cookie. It
 * runs inside the dispatch step of the channel's dispatch manager. */
typedef void (*lib_itc_callback_t)(uint32_t handle, uint32_t type, void *cookie);

/* Opens a channel on `name`: the server (role LIB_ITC_SERVER) or a client (any other role).
 * `name` is kept by reference (by the name service when this open creates the name's entry, and
 * by the queue) and must stay valid while the name is bound. `attr` NULL means the defaults.
 * The channel's queue is registered with `dm`; `callback(handle, type, cookie)` runs in dm's
 * dispatch step. Peers are told as described above.
 * Returns 0 with *handle written. On failure nothing is written, nothing stays bound or
 * allocated (the process-wide name service excepted, which the first call creates even when it
 * rejects its arguments), and the result is: 22 for a NULL handle address, name, dispatch
 * manager or callback; 12 when the name service or the record can't be allocated; 16 when the
 * name has a server, has no free client slot, or can't be bound (ids used up, or no memory for
 * the name's entry); the dispatch manager's code when the queue can't be created (e.g.
 * KRO_DM_EINVAL for a queue_len of 0 or above KRO_DM_WATCHED_QUEUE_LEN_MAX, KRO_DM_ENOMEM)
 * or registered. Any thread. */
ZEL_API uint32_t lib_itc_open(uint32_t *handle, const char *name, int32_t role,
                              const lib_itc_attr_t *attr, kro_dm_t *dm, lib_itc_callback_t callback,
                              void *cookie);

/* Closes the channel *handle: tells the peers, releases the binding (a server leaving with no
 * client bound releases the name; one leaving clients keeps the name and its id for them) and
 * schedules the clean-up on the channel's own dispatch manager.
 * Returns 0 and sets *handle to 0 (also when the clean-up's timer fails: that shows only as a
 * trace point, and the clean-up still happens). Returns 22 and changes nothing for a NULL
 * address, a missing name service or an unknown handle (closing twice included). Any thread,
 * the channel's own callback included. */
ZEL_API int lib_itc_close(uint32_t *handle);

/* Allocates a data message of `length` payload bytes for channel `handle` (any handle of a
 * bound name; its slot is not looked at) and writes the payload's address (just past the
 * header; length 0 gives an empty payload). The message is the caller's: send it or free it.
 * Returns 0; 22 with nothing written for a NULL address, a missing name service or an unbound
 * name id; 12 with nothing written when the block can't be allocated. Any thread. */
ZEL_API int lib_itc_alloc(uint32_t handle, uint32_t length, void **payload);

/* Frees a data message by its payload address: one allocated by lib_itc_alloc, or one taken by
 * lib_itc_receive. `handle` may be any handle of a bound name.
 * Returns 0; 22 and frees nothing for a missing name service, an unbound name id, a NULL
 * payload or a header whose type is not LIB_ITC_MSG_DATA (a notification's or a connection
 * event's address). Any thread. */
ZEL_API int lib_itc_free(uint32_t handle, void *payload);

/* Sends a data message from channel `handle`. A client's message goes to the server of its
 * name (`destination` is ignored); the server's goes to `destination`, a client handle of its
 * own name. The receiver sees the handle the message was allocated with as its sender.
 * Returns 0 and the message belongs to the destination. Otherwise the message is unchanged and
 * still the sender's, and the result is: 22 for a missing name service, a sender whose name
 * id is not bound (the sender's slot itself is not checked: any handle of a bound name may
 * send as a client of that name), a server sending to 0 or to a handle of another name, a missing
 * destination channel (no server, or a free or not yet filled slot), a NULL payload or a non-data
 * header; 28 when the destination's budget would be exceeded; the enqueue's code (KRO_DM_EAGAIN for
 * a full queue, KRO_DM_ENOTCONN for a destination being closed). Any thread. */
ZEL_API int lib_itc_send(uint32_t handle, uint32_t destination, void *payload);

/* Takes the next data message of channel `handle`: the one being delivered to the callback
 * (current), else the next one in the queue. Writes the sender's handle, the payload address
 * and its length; the message is then the caller's, to free with lib_itc_free, and its bytes
 * leave the budget.
 * Returns 0 with all three written. Otherwise nothing is written: 22 for NULL addresses, a
 * missing name service or an unknown handle; 11 when a message is set aside (pending), when
 * the current one is of another kind (it stays current), or when the one dequeued is of
 * another kind (it is set aside and delivered later by the handler); KRO_DM_ENOMSG when
 * nothing is queued. The channel's own thread only. */
ZEL_API int lib_itc_receive(uint32_t handle, uint32_t *sender, void **payload, uint32_t *length);

/* Takes the next connection event of server channel `handle`, as lib_itc_receive takes data
 * messages. *event is first set to 0 (when the address is not NULL).
 * Returns 0 with *event (LIB_ITC_MSG_CONNECT: the client came; LIB_ITC_MSG_DISCONNECT: it
 * left) and *client written, the event's message freed. Otherwise *client is untouched and the
 * result is: 22 for a NULL address, a missing name service or an unknown handle; 11 for a
 * message of another kind (as for lib_itc_receive); KRO_DM_ENOMSG when nothing is queued. A
 * client channel, whose queue never holds connection events, gets 11 or KRO_DM_ENOMSG. The
 * channel's own thread only. */
ZEL_API int lib_itc_get_connection_event(uint32_t handle, uint32_t *event, uint32_t *client);

ZEL_END_DECLS

#endif /* ZEL_ITC_H_ */
