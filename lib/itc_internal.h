// Internals of the inter-thread channels shared by lib/itc_*.cpp.
//
// The mechanisms, where each lives, why it exists and what shows it is needed:
// - Record reference count (refs; lib_itc_channel_ref/_unref, itc_channel.cpp): whoever uses a
//   record outside the channel mutex holds a reference, so a close on another thread never
//   frees it under them; the last reference destroys the queue and frees the record.
//   Test: ItcInternal.LastReferenceHolderFreesRecordQueueAndMessages, the soak.
// - Sender's pin (lib_itc_send_pin, itc_msg.cpp): a thread keeps one reference on the record it
//   last sent to and uses it without the mutex while it is not closed. Bench: bench_itc 4->1
//   64 B went from 1.06-1.12x to 1.33-1.57x ZeroMQ with it.
// - Published records (`published`; lib_itc_open): the record is in its slot from the binding
//   on, so no concurrent binding takes the slot, and counts for lookups once its queue is up.
//   Test: ItcFault.OpenReleasesWhatItBoundWhenAnAllocationFails.
// - Names and ids (lib_itc_release, itc_channel.cpp; lib_name_service_ids): a name goes with its
//   last channel, its entry moves to a string that stays, ids come back oldest first.
//   Tests: ItcLifetime.NameStrings..., IdsAreRecycled..., OpenCloseRoundsRunForever...
// - Handler's own-queue check (lib_itc_queue_handler, itc_handler.cpp): under the mutex, the
//   record must own the queue being dispatched. Test: ItcLifetime.HandlerOfAClosedChannel...
// - Delivery record (lib_itc_delivery_scope; lib_itc_own_record): inside a callback, receive and
//   get_connection_event find the channel being delivered without the mutex, and a closed one
//   even when a newer channel took its handle. Test: ItcPair.TwoReceivesInOneCallback.
// - Current and pending messages (itc_handler.cpp, itc_receive.cpp): the documented delivery
//   rules. Tests: ItcPair.ReceiveMeetingAConnectionEvent..., TwoReceivesInOneCallback.
// - Message blocks (lib/itc_block.h): data messages come from a cache of the allocating thread
//   and go back to it in batches, so sender and receiver don't fight over glibc's arena lock.
//   Bench: bench_itc 1 KiB 1->1 went from 0.65x to about 2x ZeroMQ. Tests: ItcBlock.*.
// - Admission word (`queued`: data messages and bytes; lib_itc_admit, itc_msg.cpp): one CAS
//   holds both bounds, so notifications never meet a full queue. Test:
//   ItcLifetime.ConnectionEventsAreNeverDropped...
// - Ticketed notifications (lib_itc_notice, itc_notify.cpp): peers are collected under the
//   mutex with the slot change and posted in that order after it, so every channel hears of
//   opens and closes in the order they happened. Test: ItcStress.ClientsChurnWhile...
// - Orphan list and wake message (lib_itc_orphan_add, itc_channel.cpp; itc_close.cpp): a close
//   whose clean-up timer can't be had is cleaned up through the channel's own queue. Test:
//   ItcFault.CloseCleansUpWithoutItsTimer.
// - Per-thread entry cache (lib_itc_entry, lib_itc_id_bound): alloc checks its name without the
//   mutex while no name has been released since. Bench: bench_itc streams (one alloc a message).
// - Spinning acquisition (lib_mutex::lock_spinning): the send path's lookups when the pin
//   misses (a server answering many clients).
//
// Locking. The channel mutex (lib_itc_channel_mutex, lib/lib_mutex.h) guards every name-service
// lookup, binding, release and slot store, `published`, the `closed` flag's setting, the ids
// and the orphan list (checked by clang's -Wthread-safety in the tsa preset). It is never held
// across a platform queue or timer call, an allocation of a message or a callback. The
// channel's own thread reads its record without a reference: only that thread drops the
// channel's own reference, in the clean-up.
#ifndef ZEL_LIB_ITC_INTERNAL_H_
#define ZEL_LIB_ITC_INTERNAL_H_

#include <kro/dm.h>
#include <zel/itc.h>
#include <zel/name_service.h>

#include <atomic>
#include <cstdint>

#include "lib/itc_block.h"
#include "lib/lib_internal.h"

// The message embedded in each record that wakes the queue handler of a closed channel whose
// clean-up timer failed. Never handed to a callback, never freed on its own.
constexpr uint32_t lib_itc_msg_wake = 0;

// `queued` of a record: the data messages accepted and not yet out of the queue in the high 32
// bits, their payload bytes in the low 32. One compare-and-swap admits a message against both
// bounds.
constexpr uint64_t lib_itc_queued_one = uint64_t{1} << 32;
constexpr uint64_t lib_itc_queued_msg(uint32_t length) {
  return lib_itc_queued_one + length;
}

// The channel record. The first fields are the documented record, in order (the byte budget
// shares its word with the count of data messages).
struct lib_itc_channel_t {
  kro_dm_watched_queue_t *queue;  // the channel's queue of incoming messages
  uint32_t max_bytes;             // receive budget
  uint32_t queue_len;             // data messages queued at once
  std::atomic<uint64_t> queued;   // see lib_itc_queued_msg
  kro_dm_t *dm;                   // the queue and the clean-up timer are registered here
  lib_itc_callback_t callback;
  void *cookie;
  lib_itc_msg_hdr_t *current;  // being delivered to the callback (own thread only)
  lib_itc_msg_hdr_t *pending;  // set aside by a receive of the other kind (own thread only)
  const char *name;            // the opener's string; the name's entry may point at it
  bool published ZEL_GUARDED_BY(lib_itc_channel_mutex);  // open has set the channel up
  // Beyond the documented fields. The reference count, changed twice by every send, keeps off
  // the line the receiver writes per message (queued, current, pending): a whole line of
  // padding puts it on another line whatever the block's alignment.
  char pad[64];
  std::atomic<uint32_t> refs;  // see "Record lifetime"
  std::atomic<bool> closed;    // set under the mutex when close takes the record out
  lib_itc_channel_t *orphan_next ZEL_GUARDED_BY(lib_itc_channel_mutex);  // in the orphan list
  lib_itc_msg_hdr_t wake;                                                // type lib_itc_msg_wake
  // The queue's copy of the name follows the record in the same block: the queue outlives the
  // close, after which the opener may free its string.
};

// The record a slot's value stands for, or nullptr: a slot holds its record from the binding
// on (so that no concurrent binding of the name can take it), but the channel exists for
// everyone else only once open has published it.
inline lib_itc_channel_t *lib_itc_record_in(void *value) ZEL_REQUIRES(lib_itc_channel_mutex) {
  auto *rec = static_cast<lib_itc_channel_t *>(value);
  return rec != nullptr && rec->published ? rec : nullptr;
}

// The record in slot `slot` of an entry, or nullptr.
inline lib_itc_channel_t *lib_itc_entry_record(const lib_name_service_entry_t *entry, uint32_t slot)
    ZEL_REQUIRES(lib_itc_channel_mutex) {
  const lib_array_t *slots = entry->slots;
  return slot < slots->used ? lib_itc_record_in(slots->data[slot]) : nullptr;
}

// A data message of `length` bytes has left the channel's queue (received or discarded).
inline void lib_itc_queued_leave(lib_itc_channel_t *rec, uint32_t length) {
  rec->queued.fetch_sub(lib_itc_queued_msg(length), std::memory_order_relaxed);
}

// Whether a handle has the shape of one handed out: a name id, and a slot below 256 (bits 8 to
// 15 clear). Lookups read only the slot's low 8 bits, so anything else would alias a live slot.
inline bool lib_itc_handle_shaped(uint32_t handle) {
  return (handle & 0xFF00u) == 0 && lib_name_service_handle_id(handle) != 0;
}

inline lib_itc_msg_hdr_t *lib_itc_hdr_of(void *payload) {
  return static_cast<lib_itc_msg_hdr_t *>(payload) - 1;
}

inline void *lib_itc_payload_of(lib_itc_msg_hdr_t *hdr) {
  return hdr + 1;
}

// ---- Lookups (itc_channel.cpp) ----------------------------------------------------------

// The record in the slot that `handle` names, or nullptr (id unbound, slot beyond the array,
// slot empty or reserved). Call with the channel mutex held.
lib_itc_channel_t *lib_itc_slot_record(lib_name_service_t *service, uint32_t handle)
    ZEL_REQUIRES(lib_itc_channel_mutex);

// The entry of the handle's name id, or nullptr. Call with the channel mutex held. The last
// entry found is remembered per thread together with the count of names released so far; while
// that count stands, the entry is still linked and is returned without a hash lookup.
lib_name_service_entry_t *lib_itc_entry(lib_name_service_t *service, uint32_t handle)
    ZEL_REQUIRES(lib_itc_channel_mutex);

// Whether the handle's name id is bound. Takes the channel mutex unless this thread has seen
// the id bound since the last release of a whole name (then it is still bound).
bool lib_itc_id_bound(lib_name_service_t *service, uint32_t handle);

// Releases the binding of `handle`, whose slot holds `rec` (published or not), and settles the
// name: freed with its id when no binding is left (whatever the roles), else named by the string
// of a channel that stays when it was named by `rec`'s. Call with the channel mutex held.
void lib_itc_release(lib_name_service_t *service, uint32_t handle, const lib_itc_channel_t *rec)
    ZEL_REQUIRES(lib_itc_channel_mutex);

// The record of `handle` for the channel's own thread: when the handler on this thread is
// delivering for that handle, its record (nullptr once closed); else a lookup under the mutex.
// nullptr for an unknown handle.
lib_itc_channel_t *lib_itc_own_record(lib_name_service_t *service, uint32_t handle);

// What the queue handler on this thread is delivering; swapped in for a handler run and
// restored after it, so that nested dispatch steps of other managers keep theirs.
struct lib_itc_delivery {
  uint32_t handle;
  lib_itc_channel_t *rec;
};
lib_itc_delivery lib_itc_delivery_swap(lib_itc_delivery next);

// Makes `rec` the record this thread delivers for, for the guard's scope.
class lib_itc_delivery_scope {
 public:
  lib_itc_delivery_scope(uint32_t handle, lib_itc_channel_t *rec)
      : outer_(lib_itc_delivery_swap({handle, rec})) {}
  ~lib_itc_delivery_scope() { lib_itc_delivery_swap(outer_); }
  lib_itc_delivery_scope(const lib_itc_delivery_scope &) = delete;
  lib_itc_delivery_scope &operator=(const lib_itc_delivery_scope &) = delete;

 private:
  lib_itc_delivery outer_;
};

// ---- Record lifetime (itc_channel.cpp) --------------------------------------------------

// Allocates a record for `name` (not yet published, one reference). nullptr when memory can't
// be had.
lib_itc_channel_t *lib_itc_channel_alloc(const char *name, const lib_itc_attr_t &attr, kro_dm_t *dm,
                                         lib_itc_callback_t callback, void *cookie);
// Creates the record's queue and registers it with the record's manager, the handle as cookie.
// 0, or the platform's code with no queue left.
int lib_itc_channel_start(lib_itc_channel_t *rec, uint32_t handle);
// Frees a record that was never started.
void lib_itc_channel_free(lib_itc_channel_t *rec);

// Takes a reference (with the channel mutex held, the record found in its slot), drops one.
inline void lib_itc_channel_ref(lib_itc_channel_t *rec) {
  rec->refs.fetch_add(1, std::memory_order_relaxed);
}
void lib_itc_channel_unref(lib_itc_channel_t *rec);

// The clean-up proper, on the channel's own thread: deregisters the queue, frees the messages
// set aside, drops the channel's own reference. A failed deregistration leaves the record as
// it is. Returns the deregistration's result.
int lib_itc_channel_retire(lib_itc_channel_t *rec);

// Frees a message left in a closed channel (a notification or a data message); the embedded
// wake message is left alone.
void lib_itc_msg_discard(lib_itc_msg_hdr_t *msg);

// Drops this thread's pin on the destination of its last send if that channel is closed.
void lib_itc_send_unpin_closed();

// Frees every message in a queue that no handler runs for any more (its own thread).
void lib_itc_queue_discard_all(kro_dm_watched_queue_t *queue);

// The orphan list: closed records whose clean-up timer could not be set up.
void lib_itc_orphan_add(lib_itc_channel_t *rec);
// Drains a closed channel's queue (own thread), freeing every message, and cleans the channel
// up when it is an orphan. The queue may be gone on return.
void lib_itc_queue_closed_drain(kro_dm_watched_queue_t *queue);
// Puts a wake message that a receive dequeued back, so that the handler meets it.
void lib_itc_wake_requeue(lib_itc_channel_t *rec, lib_itc_msg_hdr_t *msg);

// ---- Notifications (itc_notify.cpp) -----------------------------------------------------

// Allocates a header-only message (a data message gets `length` payload bytes after it),
// fills it and enqueues it on the record's queue. Best effort: a message that can't be
// allocated is not sent, one that can't be queued is freed; the budget is not charged.
void lib_itc_post_msg(lib_itc_channel_t *rec, uint32_t type, uint32_t handle, uint32_t length);

// The notifications of one open or close: collected under the channel mutex (peers' records
// with a reference each, and a ticket for the posting phase), posted after it is released.
class lib_itc_notice {
 public:
  enum kind { client_open, server_open, client_close, server_close };
  lib_itc_notice(kind k, lib_itc_channel_t *self, uint32_t self_handle)
      : kind_(k), self_(self), self_handle_(self_handle) {}
  lib_itc_notice(const lib_itc_notice &) = delete;
  lib_itc_notice &operator=(const lib_itc_notice &) = delete;

  // With the mutex held: reads the entry's slots (this channel's slot already stored, or
  // already released for a close), takes the references and, when anything is to be posted, a
  // ticket.
  void collect(const lib_name_service_entry_t *entry) ZEL_REQUIRES(lib_itc_channel_mutex);
  // Without the mutex: waits for the ticket's turn, posts, drops the references.
  void post();

 private:
  struct peer {
    lib_itc_channel_t *rec;
    uint32_t handle;
  };
  void add(lib_itc_channel_t *rec, uint32_t handle);

  kind kind_;
  lib_itc_channel_t *self_;
  uint32_t self_handle_;
  uint32_t count_ = 0;
  uint32_t ticket_ = 0;
  peer peers_[LIB_NAME_SERVICE_MAX_SLOTS - 1];
};

// ---- The queue handler (itc_handler.cpp) ------------------------------------------------

// Registered with each channel's queue, the channel's handle as cookie.
void lib_itc_queue_handler(kro_dm_watched_queue_t *queue, void *cookie);

#endif  // ZEL_LIB_ITC_INTERNAL_H_
