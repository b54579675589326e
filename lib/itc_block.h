// Message blocks: the memory of every channel message, and the per-thread cache of data-message
// blocks.
//
// Why a cache. In a stream the sender allocates every message and the receiver frees it. glibc
// keeps freed blocks per thread only up to 1,032 bytes (tcache); bigger ones, and every block
// once the receiver's tcache bin is full, go back through the arena under its lock, which the
// sender's malloc takes too. So a 1 KiB stream spends a third of its time waiting on that lock.
// Here a block goes back to the cache of the thread that allocated it:
// - each thread that allocates data messages has a cache record: free lists per size class,
//   touched by that thread alone, and a stack of returned batches that other threads push on;
// - a thread that frees another thread's block gathers it into a batch for that owner (a few
//   owners at once) and pushes the batch with one compare-and-swap when it is full;
// - the owner takes the whole stack with one exchange when a free list runs dry.
// A stream thus costs the sender no lock and one atomic exchange per batch, and the receiver one
// compare-and-swap per batch.
//
// Bounds. A thread caches at most lib_itc_block_cache_bytes in its free lists, and at most as
// much waits in its stack of returned batches (beyond, blocks go to the C allocator at once);
// a freeing thread holds at most lib_itc_block_batch blocks per owner it is gathering for, a few
// owners at a time. Payloads above lib_itc_block_max_cached and every notification are plain C
// allocator blocks.
//
// Thread exit and memory pressure. At exit a thread pushes its batches, frees its free lists and
// what its stack holds, and marks its record abandoned: from then on whoever frees one of its
// blocks frees it to the C allocator. The record itself goes with its last block: a signed
// count settles who frees it (the owner adds the blocks still out when it leaves, every free to
// the C allocator of one of its blocks by another thread subtracts; before the owner's addition
// the count is negative, after it falls to zero exactly with the last block). When malloc fails,
// the thread returns its cached blocks to the C allocator and tries once more.
//
// Layout of a block: a one-word prefix (the owner record with the size class in its low bits,
// or 0 for a plain block), padded so that the payload is 16-byte aligned on 32- and 64-bit
// targets, then the public header, then the payload. While cached, the header's link word chains
// the blocks of a list or batch, and the first payload word of a batch's first block links the
// next batch of the stack.
#ifndef ZEL_LIB_ITC_BLOCK_H_
#define ZEL_LIB_ITC_BLOCK_H_

#include <zel/itc.h>

#include <cstddef>
#include <cstdint>

// Bytes before the header.
constexpr size_t lib_itc_block_prefix = 16 - sizeof(lib_itc_msg_hdr_t) % 16;
constexpr uint32_t lib_itc_block_max_cached = 4096;
constexpr uint32_t lib_itc_block_cache_bytes = 1024 * 1024;
constexpr uint32_t lib_itc_block_batch = 32;

// A data message of `length` payload bytes (header filled), from this thread's cache when it
// fits a size class. nullptr when memory can't be had.
lib_itc_msg_hdr_t *lib_itc_block_alloc(uint32_t length);
// Gives a data message back to the cache of the thread that allocated it (any thread).
void lib_itc_block_free(lib_itc_msg_hdr_t *msg);
// A plain block for a notification (header only; `length` payload bytes for a data message)
// or nullptr.
lib_itc_msg_hdr_t *lib_itc_block_alloc_plain(size_t length);
// Frees any message block to the C allocator at once (notifications, and messages the library
// discards), settling a cached block's account with its owner.
void lib_itc_block_release(lib_itc_msg_hdr_t *msg);

extern "C" {
// Returns this thread's cached blocks, and the batches it gathers for other threads, to the C
// allocator and their owners. Its cache record stays, and is made if the thread has none, so
// that counts of live blocks taken around a call are not disturbed by the cache (the tests'
// allocation counts call it). Not exported.
void lib_itc_block_trim(void);
}

#endif  // ZEL_LIB_ITC_BLOCK_H_
