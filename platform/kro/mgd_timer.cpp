// Managed timer trees: the running leaves of a tree sit in a min-heap by (deadline, start
// order); one manager timer is armed for the top. Its handler collects the expired leaves
// first and then reports them one by one, so that handlers may stop, restart or free leaves
// (the reported one included) and even free or detach the tree.
//
// Deferred releases: a leaf freed while its handler runs is released when the handler
// returns; a tree freed with leaves left (or from inside its own expiry) is released with the
// last leaf (or when the expiry ends).
#include <kro/mgd_timer.h>

#include <new>

#include "kro/dm_internal.h"

namespace {

constexpr uint64_t kro_mgd_ns_per_ms = 1000000u;

enum kro_mgd_leaf_state : uint8_t { KRO_MGD_STOPPED, KRO_MGD_RUNNING, KRO_MGD_DUE };

}  // namespace

struct kro_mgd_timer_leaf {
  kro_mgd_timer_tree *tree = nullptr;
  uint32_t tag = 0;
  uint32_t mode = 0;
  void *context = nullptr;
  uint64_t period = 0;  // ns of the last start
  uint64_t deadline = 0;
  uint64_t seq = 0;
  uint32_t heap_index = 0;
  kro_mgd_leaf_state state = KRO_MGD_STOPPED;
  bool firing = false;  // its handler runs
  bool freed = false;   // freed while firing
  kro_mgd_timer_leaf *due_prev = nullptr;
  kro_mgd_timer_leaf *due_next = nullptr;
};

struct kro_mgd_timer_tree {
  kro_dm_t *dm = nullptr;  // NULL while detached
  kro_dm_timer_t *timer = nullptr;
  kro_mgd_timer_fn handler = nullptr;
  kro_mgd_timer_leaf **heap = nullptr;
  uint32_t heap_len = 0;
  uint32_t heap_cap = 0;
  uint64_t seq = 0;
  uint32_t leaves = 0;            // allocated and not freed
  bool freed = false;             // kro_mgd_timer_tree_free was called
  bool expiring = false;          // inside kro_mgd_timer_expire
  uint64_t armed = kro_dm_never;  // deadline the manager timer is armed for
  kro_mgd_timer_leaf *due_head = nullptr;
  kro_mgd_timer_leaf *due_tail = nullptr;
};

namespace {

void kro_mgd_tree_release(kro_mgd_timer_tree *tree) {
  free(tree->heap);
  tree->~kro_mgd_timer_tree();
  free(tree);
}

void kro_mgd_leaf_release(kro_mgd_timer_leaf *leaf) {
  leaf->~kro_mgd_timer_leaf();
  free(leaf);
}

void kro_mgd_due_unlink(kro_mgd_timer_tree *tree, kro_mgd_timer_leaf *leaf) {
  (leaf->due_prev != nullptr ? leaf->due_prev->due_next : tree->due_head) = leaf->due_next;
  (leaf->due_next != nullptr ? leaf->due_next->due_prev : tree->due_tail) = leaf->due_prev;
  leaf->due_prev = nullptr;
  leaf->due_next = nullptr;
}

void kro_mgd_due_append(kro_mgd_timer_tree *tree, kro_mgd_timer_leaf *leaf) {
  leaf->due_next = nullptr;
  leaf->due_prev = tree->due_tail;
  (tree->due_tail != nullptr ? tree->due_tail->due_next : tree->due_head) = leaf;
  tree->due_tail = leaf;
}

void kro_mgd_leaf_halt(kro_mgd_timer_leaf *leaf) {
  kro_mgd_timer_tree *tree = leaf->tree;
  if (leaf->state == KRO_MGD_RUNNING) {
    kro_dm_heap_remove(tree->heap, &tree->heap_len, leaf);
  } else if (leaf->state == KRO_MGD_DUE) {
    kro_mgd_due_unlink(tree, leaf);
  }
  leaf->state = KRO_MGD_STOPPED;
}

void kro_mgd_leaf_schedule(kro_mgd_timer_leaf *leaf, uint64_t deadline) {
  kro_mgd_timer_tree *tree = leaf->tree;
  leaf->deadline = deadline;
  leaf->seq = ++tree->seq;
  leaf->state = KRO_MGD_RUNNING;
  kro_dm_heap_push(tree->heap, &tree->heap_len, leaf);
}

// Points the manager timer at the nearest leaf (or disarms it). Not during an expiry: the
// expiry re-arms once at its end.
void kro_mgd_tree_rearm(kro_mgd_timer_tree *tree) {
  if (tree->dm == nullptr || tree->expiring) {
    return;
  }
  const uint64_t want = tree->heap_len != 0 ? tree->heap[0]->deadline : kro_dm_never;
  if (want == tree->armed) {
    return;
  }
  if (want == kro_dm_never) {
    kro_dm_timer_cancel(tree->dm, tree->timer);
  } else {
    kro_dm_timer_set_deadline(tree->dm, tree->timer, want);
  }
  tree->armed = want;
}

// The manager timer's handler.
int kro_mgd_timer_expire(kro_dm_t *dm, kro_dm_timer_t *, void *arg) {
  auto *tree = static_cast<kro_mgd_timer_tree *>(arg);
  tree->armed = kro_dm_never;  // the manager timer has fired
  const uint64_t now = kro_dm_clock_now(dm);
  while (tree->heap_len != 0 && tree->heap[0]->deadline <= now) {
    kro_mgd_timer_leaf *leaf = tree->heap[0];
    kro_dm_heap_remove(tree->heap, &tree->heap_len, leaf);
    leaf->state = KRO_MGD_DUE;
    kro_mgd_due_append(tree, leaf);
  }
  tree->expiring = true;
  // Detach and tree_free empty the due list, so the loop ends when either happens.
  while (kro_mgd_timer_leaf *leaf = tree->due_head) {
    kro_mgd_due_unlink(tree, leaf);
    leaf->state = KRO_MGD_STOPPED;
    if (leaf->mode == KRO_MGD_TIMER_PERIODIC) {
      const uint64_t next = leaf->deadline + leaf->period;
      kro_mgd_leaf_schedule(leaf, next > now ? next : now + leaf->period);
    }
    leaf->firing = true;
    tree->handler(tree, leaf, leaf->context);
    leaf->firing = false;
    if (leaf->freed) {
      kro_mgd_leaf_release(leaf);
    }
  }
  tree->expiring = false;
  if (tree->freed) {
    if (tree->leaves == 0) {
      kro_mgd_tree_release(tree);
    }
    return 0;
  }
  kro_mgd_tree_rearm(tree);
  return 0;
}

}  // namespace

extern "C" {

kro_mgd_timer_tree_t *kro_mgd_timer_tree_alloc(void) {
  void *mem = calloc(1, sizeof(kro_mgd_timer_tree));
  if (mem == nullptr) {
    return nullptr;
  }
  auto *tree = new (mem) kro_mgd_timer_tree();
  // Room for a few leaves up front; kro_mgd_timer_leaf_alloc grows it as leaves are added.
  if (!kro_dm_heap_reserve(&tree->heap, &tree->heap_cap, kro_dm_heap_initial)) {
    kro_mgd_tree_release(tree);
    return nullptr;
  }
  return tree;
}

int kro_mgd_timer_tree_free(kro_mgd_timer_tree_t **ptree) {
  if (ptree == nullptr) {
    return KRO_MGD_TIMER_EINVAL;
  }
  kro_mgd_timer_tree *tree = *ptree;
  if (tree == nullptr) {
    return KRO_MGD_TIMER_OK;
  }
  if (tree->dm != nullptr) {
    kro_mgd_timer_detach_xdm(tree);
  }
  tree->freed = true;
  if (tree->leaves == 0 && !tree->expiring) {
    kro_mgd_tree_release(tree);
  }
  *ptree = nullptr;
  return KRO_MGD_TIMER_OK;
}

int kro_mgd_timer_attach_xdm(kro_mgd_timer_tree_t *tree, kro_dm_t *dm, kro_mgd_timer_fn handler) {
  if (tree == nullptr || dm == nullptr || handler == nullptr || tree->freed) {
    return KRO_MGD_TIMER_EINVAL;
  }
  if (tree->dm != nullptr) {
    return KRO_MGD_TIMER_EBUSY;
  }
  if (kro_dm_timer_register(dm, &tree->timer, kro_mgd_timer_expire, tree) != KRO_DM_OK) {
    return KRO_MGD_TIMER_ENOMEM;
  }
  tree->dm = dm;
  tree->handler = handler;
  tree->armed = kro_dm_never;
  ++dm->trees;
  return KRO_MGD_TIMER_OK;
}

int kro_mgd_timer_detach_xdm(kro_mgd_timer_tree_t *tree) {
  if (tree == nullptr) {
    return KRO_MGD_TIMER_EINVAL;
  }
  if (tree->dm == nullptr) {
    return KRO_MGD_TIMER_ENOTCONN;
  }
  while (tree->heap_len != 0) {
    kro_mgd_leaf_halt(tree->heap[0]);
  }
  while (tree->due_head != nullptr) {
    kro_mgd_leaf_halt(tree->due_head);
  }
  kro_dm_timer_register(tree->dm, &tree->timer, nullptr, nullptr);
  --tree->dm->trees;
  tree->dm = nullptr;
  tree->handler = nullptr;
  tree->armed = kro_dm_never;
  return KRO_MGD_TIMER_OK;
}

kro_mgd_timer_leaf_t *kro_mgd_timer_leaf_alloc(kro_mgd_timer_tree_t *tree, uint32_t tag,
                                               uint32_t mode, void *context) {
  if (tree == nullptr || tree->freed ||
      (mode != KRO_MGD_TIMER_PERIODIC && mode != KRO_MGD_TIMER_ONESHOT)) {
    return nullptr;
  }
  // Room in the heap for every leaf, so that starting never allocates.
  if (!kro_dm_heap_reserve(&tree->heap, &tree->heap_cap, tree->leaves + 1)) {
    return nullptr;
  }
  void *mem = calloc(1, sizeof(kro_mgd_timer_leaf));
  if (mem == nullptr) {
    return nullptr;
  }
  auto *leaf = new (mem) kro_mgd_timer_leaf();
  leaf->tree = tree;
  leaf->tag = tag;
  leaf->mode = mode;
  leaf->context = context;
  ++tree->leaves;
  return leaf;
}

int kro_mgd_timer_leaf_free(kro_mgd_timer_leaf_t **pleaf) {
  if (pleaf == nullptr) {
    return KRO_MGD_TIMER_EINVAL;
  }
  kro_mgd_timer_leaf *leaf = *pleaf;
  if (leaf == nullptr) {
    return KRO_MGD_TIMER_OK;
  }
  *pleaf = nullptr;
  if (leaf->freed) {
    return KRO_MGD_TIMER_OK;  // freed already from inside its handler
  }
  kro_mgd_timer_tree *tree = leaf->tree;
  kro_mgd_leaf_halt(leaf);
  kro_mgd_tree_rearm(tree);
  --tree->leaves;
  if (leaf->firing) {
    leaf->freed = true;
  } else {
    kro_mgd_leaf_release(leaf);
  }
  if (tree->freed && tree->leaves == 0 && !tree->expiring) {
    kro_mgd_tree_release(tree);
  }
  return KRO_MGD_TIMER_OK;
}

int kro_mgd_timer_leaf_start(kro_mgd_timer_leaf_t *leaf, uint32_t timeout_ms, uint32_t flags) {
  if (leaf == nullptr || flags != 0 || leaf->freed) {
    return KRO_MGD_TIMER_EINVAL;
  }
  kro_mgd_timer_tree *tree = leaf->tree;
  if (tree->dm == nullptr) {
    return KRO_MGD_TIMER_ENOTCONN;
  }
  kro_mgd_leaf_halt(leaf);
  if (timeout_ms != 0) {
    leaf->period = static_cast<uint64_t>(timeout_ms) * kro_mgd_ns_per_ms;
    kro_mgd_leaf_schedule(leaf, kro_dm_clock_now(tree->dm) + leaf->period);
  }
  kro_mgd_tree_rearm(tree);
  return KRO_MGD_TIMER_OK;
}

int kro_mgd_timer_leaf_stop(kro_mgd_timer_leaf_t *leaf) {
  if (leaf == nullptr || leaf->freed) {
    return KRO_MGD_TIMER_EINVAL;
  }
  kro_mgd_leaf_halt(leaf);
  kro_mgd_tree_rearm(leaf->tree);
  return KRO_MGD_TIMER_OK;
}

int kro_mgd_timer_leaf_running(const kro_mgd_timer_leaf_t *leaf) {
  return leaf != nullptr && !leaf->freed && leaf->state != KRO_MGD_STOPPED ? 1 : 0;
}

uint32_t kro_mgd_timer_leaf_tag(const kro_mgd_timer_leaf_t *leaf) {
  return leaf == nullptr ? 0 : leaf->tag;
}

}  // extern "C"
