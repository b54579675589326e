// Message blocks and the per-thread cache of data-message blocks (see lib/itc_block.h).
#include "lib/itc_block.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include "lib/lib_internal.h"

namespace {

// Payload sizes of the classes: two per doubling, so a block wastes at most a third.
constexpr uint32_t lib_itc_block_classes = 13;
constexpr uint32_t lib_itc_block_size[lib_itc_block_classes] = {
    64, 96, 128, 192, 256, 384, 512, 768, 1024, 1536, 2048, 3072, 4096};
// The owner word's low bits hold the class; the record is aligned to keep them clear.
constexpr uintptr_t lib_itc_block_class_mask = 15;
constexpr uintptr_t lib_itc_block_abandoned = 1;  // `returned` of a record whose owner has left
constexpr unsigned lib_itc_block_owners = 4;      // owners a freeing thread gathers for at once

constexpr uint32_t lib_itc_block_class_of(uint32_t length) {
  if (length <= lib_itc_block_size[0]) {
    return 0;
  }
  const uint32_t n = length - 1;
  const auto bits = static_cast<uint32_t>(32 - __builtin_clz(n));  // 7 for 65 to 128
  return 2 * (bits - 7) + ((n >> (bits - 2)) & 1) + 1;
}

constexpr bool lib_itc_block_classes_fit() {
  for (uint32_t length = 0; length <= lib_itc_block_max_cached; ++length) {
    const uint32_t cls = lib_itc_block_class_of(length);
    if (cls >= lib_itc_block_classes || lib_itc_block_size[cls] < length ||
        (cls > 0 && lib_itc_block_size[cls - 1] >= length)) {
      return false;
    }
  }
  return true;
}
static_assert(lib_itc_block_classes_fit(), "every length in the smallest class that holds it");
static_assert(lib_itc_block_classes <= lib_itc_block_class_mask + 1);
static_assert((lib_itc_block_prefix + sizeof(lib_itc_msg_hdr_t)) % 16 == 0);

struct lib_itc_block_cache {
  // The owner's.
  lib_itc_msg_hdr_t *free_list[lib_itc_block_classes] = {};
  uint32_t bytes = 0;   // payload bytes in the free lists
  uintptr_t out = 0;    // blocks handed out and not back in a free list or freed by the owner
  void *raw = nullptr;  // what calloc returned
  // Other threads push returned batches here: kept off the owner's line.
  alignas(64) std::atomic<uintptr_t> returned{0};  // first header of the top batch, or abandoned
  std::atomic<intptr_t> returned_bytes{0};         // payload bytes pushed and not yet taken
  std::atomic<intptr_t> settle{0};                 // who frees the record (lib/itc_block.h)
};

// A batch a freeing thread gathers for one owner.
struct lib_itc_block_gather {
  lib_itc_block_cache *to;
  lib_itc_msg_hdr_t *first;  // chained by link
  uint32_t count;
  uint32_t bytes;
};

struct lib_itc_block_thread {
  lib_itc_block_cache *cache;  // made at the thread's first data-message allocation
  bool exited;                 // the thread's exit hook has run: no cache any more
  bool exit_armed;
  unsigned victim;  // the gathering slot to push when a new owner needs one
  lib_itc_block_gather gather[lib_itc_block_owners];
};
thread_local lib_itc_block_thread lib_itc_blocks LIB_ITC_TLS = {};

void lib_itc_block_thread_exit();

// Runs lib_itc_block_thread_exit when the thread exits; armed when the thread first holds
// something there (a cache or a gathered batch).
struct lib_itc_block_exit_hook {
  bool armed = false;
  lib_itc_block_exit_hook() = default;
  lib_itc_block_exit_hook(const lib_itc_block_exit_hook &) = delete;
  lib_itc_block_exit_hook &operator=(const lib_itc_block_exit_hook &) = delete;
  ~lib_itc_block_exit_hook() {
    if (armed) {
      lib_itc_block_thread_exit();
    }
  }
};
thread_local lib_itc_block_exit_hook lib_itc_block_exit;

void lib_itc_block_arm_exit(lib_itc_block_thread &t) {
  if (!t.exit_armed) {
    t.exit_armed = true;
    lib_itc_block_exit.armed = true;
  }
}

void *lib_itc_block_of(lib_itc_msg_hdr_t *msg) {
  return reinterpret_cast<char *>(msg) - lib_itc_block_prefix;
}

lib_itc_msg_hdr_t *lib_itc_block_msg(void *block) {
  return reinterpret_cast<lib_itc_msg_hdr_t *>(static_cast<char *>(block) + lib_itc_block_prefix);
}

uintptr_t lib_itc_block_word(lib_itc_msg_hdr_t *msg) {
  uintptr_t word = 0;
  memcpy(&word, lib_itc_block_of(msg), sizeof word);
  return word;
}

lib_itc_block_cache *lib_itc_block_owner(uintptr_t word) {
  // NOLINTNEXTLINE(performance-no-int-to-ptr)
  return reinterpret_cast<lib_itc_block_cache *>(word & ~lib_itc_block_class_mask);
}

uint32_t lib_itc_block_bytes(uintptr_t word) {
  return lib_itc_block_size[word & lib_itc_block_class_mask];
}

lib_itc_msg_hdr_t *lib_itc_block_next(const lib_itc_msg_hdr_t *msg) {
  return static_cast<lib_itc_msg_hdr_t *>(msg->link);
}

// The next batch of a stack, linked from the first payload word of a batch's first block.
lib_itc_msg_hdr_t *lib_itc_block_next_batch(lib_itc_msg_hdr_t *first) {
  uintptr_t next = 0;
  memcpy(&next, static_cast<void *>(first + 1), sizeof next);
  // NOLINTNEXTLINE(performance-no-int-to-ptr)
  return reinterpret_cast<lib_itc_msg_hdr_t *>(next);
}

void lib_itc_block_set_next_batch(lib_itc_msg_hdr_t *first, uintptr_t next) {
  memcpy(static_cast<void *>(first + 1), &next, sizeof next);
}

void lib_itc_block_cache_free(lib_itc_block_cache *c) {
  void *raw = c->raw;
  c->~lib_itc_block_cache();
  free(raw);
}

// Frees a chain of `n` blocks of `c` to the C allocator on a thread that is not their owner's
// (or after the owner has left), and settles their account; the last block frees the record.
void lib_itc_block_release_chain(lib_itc_block_cache *c, lib_itc_msg_hdr_t *first, uint32_t n) {
  while (first != nullptr) {
    lib_itc_msg_hdr_t *next = lib_itc_block_next(first);
    free(lib_itc_block_of(first));
    first = next;
  }
  if (c->settle.fetch_sub(static_cast<intptr_t>(n), std::memory_order_acq_rel) ==
      static_cast<intptr_t>(n)) {
    lib_itc_block_cache_free(c);
  }
}

// Hands a batch of `c`'s blocks back to it. Room in its stack is reserved first: once the batch
// is in, the owner may take it, leave and free the record at any time.
void lib_itc_block_push(lib_itc_block_cache *c, lib_itc_msg_hdr_t *first, uint32_t n,
                        uint32_t bytes) {
  const auto b = static_cast<intptr_t>(bytes);
  if (c->returned_bytes.fetch_add(b, std::memory_order_relaxed) + b >
      static_cast<intptr_t>(lib_itc_block_cache_bytes)) {
    c->returned_bytes.fetch_sub(b, std::memory_order_relaxed);
    lib_itc_block_release_chain(c, first, n);
    return;
  }
  uintptr_t top = c->returned.load(std::memory_order_relaxed);
  do {
    if (top == lib_itc_block_abandoned) {
      c->returned_bytes.fetch_sub(b, std::memory_order_relaxed);
      lib_itc_block_release_chain(c, first, n);
      return;
    }
    lib_itc_block_set_next_batch(first, top);
  } while (!c->returned.compare_exchange_weak(top, reinterpret_cast<uintptr_t>(first),
                                              std::memory_order_release,
                                              std::memory_order_relaxed));
}

void lib_itc_block_flush(lib_itc_block_gather &g) {
  if (g.count != 0) {
    lib_itc_block_push(g.to, g.first, g.count, g.bytes);
  }
  g = {};
}

void lib_itc_block_flush_all(lib_itc_block_thread &t) {
  for (lib_itc_block_gather &g : t.gather) {
    lib_itc_block_flush(g);
  }
}

// A block of the owner's back in its free list, or to the C allocator beyond the bound.
void lib_itc_block_put(lib_itc_block_cache *c, lib_itc_msg_hdr_t *msg, uintptr_t word) {
  --c->out;
  const uint32_t bytes = lib_itc_block_bytes(word);
  if (c->bytes + bytes > lib_itc_block_cache_bytes) {
    free(lib_itc_block_of(msg));
    return;
  }
  lib_itc_msg_hdr_t *&list = c->free_list[word & lib_itc_block_class_mask];
  msg->link = list;
  list = msg;
  c->bytes += bytes;
}

// Puts every block of a stack of returned batches (`top`, taken by the owner) in the owner's
// free lists. Returns their payload bytes.
intptr_t lib_itc_block_put_all(lib_itc_block_cache *c, uintptr_t top) {
  intptr_t bytes = 0;
  // NOLINTNEXTLINE(performance-no-int-to-ptr)
  for (auto *batch = reinterpret_cast<lib_itc_msg_hdr_t *>(top); batch != nullptr;) {
    lib_itc_msg_hdr_t *next_batch = lib_itc_block_next_batch(batch);
    for (lib_itc_msg_hdr_t *msg = batch; msg != nullptr;) {
      lib_itc_msg_hdr_t *next = lib_itc_block_next(msg);
      const uintptr_t word = lib_itc_block_word(msg);
      bytes += lib_itc_block_bytes(word);
      lib_itc_block_put(c, msg, word);
      msg = next;
    }
    batch = next_batch;
  }
  return bytes;
}

// Takes every batch pushed back to the owner's record into its free lists. False when there
// was none.
bool lib_itc_block_take_returned(lib_itc_block_cache *c) {
  if (c->returned.load(std::memory_order_relaxed) == 0) {
    return false;
  }
  const uintptr_t top = c->returned.exchange(0, std::memory_order_acquire);
  c->returned_bytes.fetch_sub(lib_itc_block_put_all(c, top), std::memory_order_relaxed);
  return true;
}

// Frees the owner's free lists. True when they held anything.
bool lib_itc_block_free_lists(lib_itc_block_cache *c) {
  bool any = false;
  for (lib_itc_msg_hdr_t *&list : c->free_list) {
    while (list != nullptr) {
      lib_itc_msg_hdr_t *next = lib_itc_block_next(list);
      free(lib_itc_block_of(list));
      list = next;
      any = true;
    }
  }
  c->bytes = 0;
  return any;
}

// Frees the owner's free lists and what waits in its stack. True when anything was freed.
bool lib_itc_block_trim_own(lib_itc_block_cache *c) {
  const bool returned = lib_itc_block_take_returned(c);
  return lib_itc_block_free_lists(c) || returned;
}

lib_itc_block_cache *lib_itc_block_cache_make(lib_itc_block_thread &t) {
  constexpr size_t align = alignof(lib_itc_block_cache);
  void *raw = calloc(1, sizeof(lib_itc_block_cache) + align - 1);
  if (raw == nullptr) {
    return nullptr;
  }
  const uintptr_t at = (reinterpret_cast<uintptr_t>(raw) + align - 1) & ~uintptr_t{align - 1};
  // NOLINTNEXTLINE(performance-no-int-to-ptr)
  auto *c = new (reinterpret_cast<void *>(at)) lib_itc_block_cache();
  c->raw = raw;
  t.cache = c;
  lib_itc_block_arm_exit(t);
  return c;
}

void lib_itc_block_thread_exit() {
  lib_itc_block_thread &t = lib_itc_blocks;
  lib_itc_block_flush_all(t);
  lib_itc_block_cache *c = t.cache;
  t.cache = nullptr;
  t.exited = true;
  if (c == nullptr) {
    return;
  }
  // Whoever frees one of its blocks from now on frees it to the C allocator.
  lib_itc_block_put_all(c,
                        c->returned.exchange(lib_itc_block_abandoned, std::memory_order_acq_rel));
  lib_itc_block_free_lists(c);
  const auto out = static_cast<intptr_t>(c->out);
  if (c->settle.fetch_add(out, std::memory_order_acq_rel) + out == 0) {
    lib_itc_block_cache_free(c);
  }
}

// Writes a fresh block's prefix word (its owner and class; 0: a plain block) and gives its message.
lib_itc_msg_hdr_t *lib_itc_block_stamp(void *block, uintptr_t word) {
  memcpy(block, &word, sizeof word);
  return lib_itc_block_msg(block);
}

lib_itc_msg_hdr_t *lib_itc_block_fresh(lib_itc_block_cache *c, uint32_t cls) {
  const size_t size = lib_itc_block_prefix + sizeof(lib_itc_msg_hdr_t) + lib_itc_block_size[cls];
  void *block = malloc(size);
  if (block == nullptr && lib_itc_block_trim_own(c)) {
    block = malloc(size);  // memory is short: what this thread kept is back, try once more
  }
  if (block == nullptr) {
    return nullptr;
  }
  return lib_itc_block_stamp(block, reinterpret_cast<uintptr_t>(c) | cls);
}

}  // namespace

lib_itc_msg_hdr_t *lib_itc_block_alloc_plain(size_t length) {
  size_t size = 0;  // only a 32-bit size_t can overflow here
  if (__builtin_add_overflow(lib_itc_block_prefix + sizeof(lib_itc_msg_hdr_t), length, &size)) {
    return nullptr;
  }
  void *block = malloc(size);
  if (block == nullptr) {
    return nullptr;
  }
  return lib_itc_block_stamp(block, 0);
}

lib_itc_msg_hdr_t *lib_itc_block_alloc(uint32_t length) {
  lib_itc_block_thread &t = lib_itc_blocks;
  lib_itc_block_cache *c = t.cache;
  if (length > lib_itc_block_max_cached || (c == nullptr && t.exited)) {
    return lib_itc_block_alloc_plain(length);
  }
  if (c == nullptr && (c = lib_itc_block_cache_make(t)) == nullptr) {
    return nullptr;
  }
  const uint32_t cls = lib_itc_block_class_of(length);
  lib_itc_msg_hdr_t *msg = c->free_list[cls];
  if (msg == nullptr && lib_itc_block_take_returned(c)) {
    msg = c->free_list[cls];
  }
  if (msg != nullptr) {
    c->free_list[cls] = lib_itc_block_next(msg);
    c->bytes -= lib_itc_block_size[cls];
  } else if ((msg = lib_itc_block_fresh(c, cls)) == nullptr) {
    return nullptr;
  }
  ++c->out;
  return msg;
}

void lib_itc_block_free(lib_itc_msg_hdr_t *msg) {
  const uintptr_t word = lib_itc_block_word(msg);
  lib_itc_block_cache *c = lib_itc_block_owner(word);
  if (c == nullptr) {
    free(lib_itc_block_of(msg));
    return;
  }
  lib_itc_block_thread &t = lib_itc_blocks;
  if (c == t.cache) {
    lib_itc_block_put(c, msg, word);
    return;
  }
  if (t.exited) {
    msg->link = nullptr;
    lib_itc_block_push(c, msg, 1, lib_itc_block_bytes(word));
    return;
  }
  lib_itc_block_gather *g = nullptr;
  lib_itc_block_gather *empty = nullptr;
  for (lib_itc_block_gather &slot : t.gather) {
    if (slot.to == c) {
      g = &slot;
      break;
    }
    empty = empty == nullptr && slot.to == nullptr ? &slot : empty;
  }
  if (g == nullptr) {
    g = empty;
    if (g == nullptr) {  // gathering for as many owners as it can: hand one batch over
      g = &t.gather[t.victim++ % lib_itc_block_owners];
      lib_itc_block_flush(*g);
    }
    g->to = c;
    lib_itc_block_arm_exit(t);
  }
  msg->link = g->first;
  g->first = msg;
  g->bytes += lib_itc_block_bytes(word);
  if (++g->count == lib_itc_block_batch) {
    lib_itc_block_flush(*g);
  }
}

void lib_itc_block_release(lib_itc_msg_hdr_t *msg) {
  const uintptr_t word = lib_itc_block_word(msg);
  lib_itc_block_cache *c = lib_itc_block_owner(word);
  if (c == nullptr) {
    free(lib_itc_block_of(msg));
  } else if (c == lib_itc_blocks.cache) {
    --c->out;
    free(lib_itc_block_of(msg));
  } else {
    msg->link = nullptr;
    lib_itc_block_release_chain(c, msg, 1);
  }
}

extern "C" void lib_itc_block_trim(void) {
  lib_itc_block_thread &t = lib_itc_blocks;
  lib_itc_block_flush_all(t);
  if (t.cache != nullptr) {
    lib_itc_block_trim_own(t.cache);
  } else if (!t.exited) {
    lib_itc_block_cache_make(t);
  }
}
