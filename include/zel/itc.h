/* Inter-thread channels.
 *
 * Named channels between the threads of one process. A name has at most one server channel
 * (slot 0) and up to 255 client channels (slots 1 to 255). A client talks only to the server of
 * its name; the server talks to any client of its name.
 *
 * Handles. A channel's handle is the name's id in bits 16 to 31 and the slot in bits 0 to 7;
 * bits 8 to 15 are always 0, and every operation refuses with LIB_ITC_EINVAL a handle in which
 * they are set. 0 never names a channel. After a client closes, the next client of the same
 * name may take the freed slot and so receive the same handle.
 *
 * Names and ids. A name goes with its last channel, whatever the roles: its entry and id are
 * freed when the last channel of the name is closed. Ids 1 to 65535 are handed out fresh first,
 * then freed ids come back oldest first: a process can open and close channels forever, and a
 * just-released id is the last to come back. The name string is held by reference only while
 * the channel that gave it is open: its caller may free it once that channel's close returned.
 *
 * Delivery. Each channel owns a watched queue registered with the dispatch manager given to
 * lib_itc_open. The manager's owner thread (the channel's "own thread") runs the channel's
 * queue handler in its dispatch step, which drains the queue and calls the callback once per
 * message, in queue order, with the message type:
 * - LIB_ITC_MSG_DATA: take the message with lib_itc_receive;
 * - LIB_ITC_MSG_CONNECT (servers only): read it with lib_itc_get_connection_event;
 * - LIB_ITC_MSG_CONNECTED, LIB_ITC_MSG_DISCONNECT (clients only): complete in the type alone.
 * A data or connection message the callback does not take is freed when it returns (a data
 * message then gives its bytes back). Inside the callback, receive and get_connection_event
 * first return the message being delivered; called again they take further messages of their
 * kind from the queue. A message of the other kind met that way is set aside (LIB_ITC_EAGAIN
 * until the handler has delivered it, right after the current callback or at the next run).
 * The callback runs with no library lock held and may call any channel operation, close of its
 * own channel included; after that close no further message reaches the callback.
 *
 * Connection events. When a client and the server of its name are both open, the server gets
 * one LIB_ITC_MSG_CONNECT event (event code LIB_ITC_MSG_CONNECT, the client's handle) and the
 * client one LIB_ITC_MSG_CONNECTED; whichever opens second posts both. A client that closes
 * sends the server an event with code LIB_ITC_MSG_DISCONNECT; a server that closes sends
 * LIB_ITC_MSG_DISCONNECT to each open client. Each channel receives them in the order the opens
 * and closes happened. They count against neither the byte budget nor queue_len, so they are
 * never refused for want of room while the receiver lives (the platform queue's own limit,
 * KRO_DM_WATCHED_QUEUE_LEN_MAX, is what bounds them). One that still can't be posted is dropped
 * with an error trace point on lib_amdt from "lib_itc_post_msg": "malloc failed\n" (code
 * LIB_ITC_ENOMEM) or "kro_dm_watched_queue_enqueue failed\n" (the enqueue's code). Nothing is
 * traced for a receiver that is itself closing.
 *
 * Budget. A channel accepts data messages while the payload bytes queued for it (not yet
 * received, discarded or freed) stay within max_bytes (equal allowed; the sum never wraps) and
 * fewer than queue_len data messages are queued. One compare-and-swap checks and reserves both.
 *
 * Message ownership. A data message is one block, header and payload together, the payload
 * 16-byte aligned. It is the caller's from lib_itc_alloc until a send succeeds (a failed send
 * leaves it the sender's), then the destination queue's until received (then the receiver's) or
 * discarded. Whoever holds it can always give it back with lib_itc_free, on any thread, whatever
 * became of its channels or name since. Messages still queued at a channel's clean-up are freed.
 *
 * Message memory. Payloads up to 4096 bytes come from a cache of the allocating thread: a block
 * freed with lib_itc_free goes back to the thread that allocated it, to be handed out again
 * without the C allocator. Each thread keeps at most 1 MiB of such blocks, and at most 1 MiB
 * more waiting to come back to it; a thread that frees other threads' blocks holds up to 32 of
 * them per owner (a few owners at a time) before it hands them back. A thread's blocks go to
 * the C allocator when it exits (the rest as they are freed), and when an allocation finds the
 * C allocator out of memory (then retried once). Bigger payloads, notifications and messages
 * the library discards go straight to and from the C allocator.
 *
 * Close and clean-up. Close tells the peers, releases the binding and arms a one-shot timer on
 * the channel's own manager; at its next dispatch step, on the own thread, the queue is
 * deregistered and destroyed and the record freed (by a late sender instead if it still holds
 * the record; its send then fails with KRO_DM_ENOTCONN and the message stays its own). From the
 * close on, the handle is unknown (LIB_ITC_EINVAL) to close, receive, connection events and sends
 * to it. Timer failures are traced on lib_amdt (error level): "kro_dm_timer_register failed\n" and
 * "kro_dm_timer_settime failed\n" from "lib_itc_queue_entry_destroy",
 * "kro_dm_timer_register (delete) failed\n" from "lib_itc_cleanup_timer_handler", each with the
 * failing call's result; the clean-up then still happens, carried by the channel's own queue.
 * A thread that sent to a channel keeps its record (a few hundred bytes, its queue already
 * emptied) after the clean-up, until the thread sends elsewhere, closes that channel itself or
 * exits.
 *
 * Destroying a dispatch manager. Its owner may destroy it once the clean-up of every channel
 * opened on it has run there: the first dispatch step after each close. A close made on another
 * thread may still be returning then; it no longer touches the manager (kro_dm_destroy).
 *
 * Threads. open, close, alloc, free and send: any thread. receive and get_connection_event: the
 * channel's own thread only (inside its callback, or between dispatch steps). None blocks
 * beyond the channel mutex, which is held only for lookups and bindings.
 */
#ifndef ZEL_ITC_H_
#define ZEL_ITC_H_

#include <stdint.h>

#include <kro/dm.h>
#include <zel/export.h>

ZEL_BEGIN_DECLS

/* Result codes. The dispatch manager's own codes pass through where noted: KRO_DM_EAGAIN (11,
 * send: the destination holds queue_len data messages), KRO_DM_ENOMSG (42, receive: nothing
 * queued), KRO_DM_ENOTCONN (107, send: the destination is being closed), and its creation and
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
  uint32_t queue_len; /* data messages queued at once (1 to KRO_DM_WATCHED_QUEUE_LEN_MAX) */
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
 * `name` is kept by reference until this channel's close returns. `attr` NULL means the
 * defaults. The channel's queue is registered with `dm`, which must outlive the channel's
 * clean-up; `callback(handle, type, cookie)` runs in dm's dispatch step. Peers are told as
 * described above.
 * Returns LIB_ITC_OK with *handle written. On failure nothing is written, nothing stays bound or
 * allocated (the process-wide name service excepted, which the first call creates even when it
 * rejects its arguments), and the result is: LIB_ITC_EINVAL for a NULL handle address, name,
 * dispatch manager or callback; LIB_ITC_ENOMEM when the name service or the record can't be
 * allocated; LIB_ITC_EBUSY when the name has a server, has no free client slot, or can't be bound
 * (all 65535 ids bound, or no memory for the name's entry); the dispatch manager's code when the
 * queue can't be created (e.g. KRO_DM_EINVAL for a queue_len of 0 or above
 * KRO_DM_WATCHED_QUEUE_LEN_MAX, KRO_DM_ENOMEM) or registered. Any thread. */
ZEL_API uint32_t lib_itc_open(uint32_t *handle, const char *name, int32_t role,
                              const lib_itc_attr_t *attr, kro_dm_t *dm, lib_itc_callback_t callback,
                              void *cookie);

/* Closes the channel *handle: tells the peers, releases the binding (a server leaving with no
 * client bound releases the name; one leaving clients keeps the name and its id for them) and
 * schedules the clean-up on the channel's own dispatch manager.
 * Returns LIB_ITC_OK and sets *handle to 0 (also when the clean-up's timer fails: that shows only
 * as a trace point, and the clean-up still happens). Returns LIB_ITC_EINVAL and changes nothing for
 * a NULL address, a missing name service or an unknown handle (closing twice included). Any thread,
 * the channel's own callback included. Once it has returned, the caller may free the name
 * string it opened with; the manager may be destroyed once the clean-up has run on it. */
ZEL_API int lib_itc_close(uint32_t *handle);

/* Allocates a data message of `length` payload bytes for channel `handle` (any handle of a
 * bound name; its slot is not looked at, bits 8 to 15 must be 0) and writes the payload's address
 * (just past the header; length 0 gives an empty payload). The message is the caller's: send it or
 * free it. Returns LIB_ITC_OK; LIB_ITC_EINVAL with nothing written for a NULL address, a missing
 * name service or an unbound name id; LIB_ITC_ENOMEM with nothing written when the block can't be
 * allocated. Any thread. */
ZEL_API int lib_itc_alloc(uint32_t handle, uint32_t length, void **payload);

/* Frees a data message by its payload address: one allocated by lib_itc_alloc, or one taken by
 * lib_itc_receive. `handle` is any channel handle, whether or not its name is still bound: a
 * message can always be given back, even after every channel of its name has closed.
 * Returns LIB_ITC_OK; LIB_ITC_EINVAL and frees nothing for a missing name service, a handle never
 * handed out (id 0, or bits 8 to 15 set), a NULL payload or a header whose type is not
 * LIB_ITC_MSG_DATA (a notification's or a connection event's address). Any thread. */
ZEL_API int lib_itc_free(uint32_t handle, void *payload);

/* Sends a data message from channel `handle`. A client's message goes to the server of its
 * name (`destination` is ignored); the server's goes to `destination`, a client handle of its
 * own name. The receiver sees the handle the message was allocated with as its sender.
 * Returns LIB_ITC_OK and the message belongs to the destination. Otherwise the message is unchanged
 * and still the sender's, and the result is: LIB_ITC_EINVAL for a missing name service, a sender
 * whose name id is not bound (the sender's slot itself is not checked: any handle of a bound name
 * may send as a client of that name), a server sending to 0, to a handle of another name or to one
 * with bits 8 to 15 set, a missing destination channel (no server, or a free or not yet filled
 * slot), a NULL payload or a non-data header; LIB_ITC_ENOSPC when the destination's budget would be
 * exceeded; KRO_DM_EAGAIN when it holds queue_len data messages; the enqueue's code
 * (KRO_DM_ENOTCONN for a destination being closed). Any thread. */
ZEL_API int lib_itc_send(uint32_t handle, uint32_t destination, void *payload);

/* Takes the next data message of channel `handle`: the one being delivered to the callback
 * (current), else the next one in the queue. Writes the sender's handle, the payload address
 * and its length; the message is then the caller's, to free with lib_itc_free, and its bytes
 * leave the budget.
 * Returns LIB_ITC_OK with all three written. Otherwise nothing is written: LIB_ITC_EINVAL for NULL
 * addresses, a missing name service or an unknown handle; LIB_ITC_EAGAIN when a message is set
 * aside (pending), when the current one is of another kind (it stays current), or when the one
 * dequeued is of another kind (it is set aside and delivered later by the handler); KRO_DM_ENOMSG
 * when nothing is queued. The channel's own thread only. */
ZEL_API int lib_itc_receive(uint32_t handle, uint32_t *sender, void **payload, uint32_t *length);

/* Takes the next connection event of server channel `handle`, as lib_itc_receive takes data
 * messages. *event is first set to 0 (when the address is not NULL).
 * Returns LIB_ITC_OK with *event (LIB_ITC_MSG_CONNECT: the client came; LIB_ITC_MSG_DISCONNECT: it
 * left) and *client written, the event's message freed. Otherwise *client is untouched and the
 * result is: LIB_ITC_EINVAL for a NULL address, a missing name service or an unknown handle;
 * LIB_ITC_EAGAIN for a message of another kind (as for lib_itc_receive); KRO_DM_ENOMSG when nothing
 * is queued. A client channel, whose queue never holds connection events, gets LIB_ITC_EAGAIN or
 * KRO_DM_ENOMSG. The channel's own thread only. */
ZEL_API int lib_itc_get_connection_event(uint32_t handle, uint32_t *event, uint32_t *client);

ZEL_END_DECLS

#endif /* ZEL_ITC_H_ */
