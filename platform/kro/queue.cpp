// Bounded singly linked FIFO queues embedded in their owner.
#include <kro/queue.h>

extern "C" {

void kro_queue_init(kro_queue_t *q, uint32_t max) {
  if (q == nullptr) {
    return;
  }
  q->head = nullptr;
  q->tail = nullptr;
  q->size = 0;
  q->max = max;
}

int kro_queue_enqueue(kro_queue_t *q, void *elem) {
  if (q == nullptr || elem == nullptr || q->size >= q->max) {
    return 0;
  }
  auto *l = static_cast<kro_queue_link_t *>(elem);
  l->next = nullptr;
  if (q->tail == nullptr) {
    q->head = l;
  } else {
    q->tail->next = l;
  }
  q->tail = l;
  ++q->size;
  return 1;
}

void *kro_queue_dequeue(kro_queue_t *q) {
  if (q == nullptr || q->head == nullptr) {
    return nullptr;
  }
  kro_queue_link_t *l = q->head;
  q->head = l->next;
  if (q->head == nullptr) {
    q->tail = nullptr;
  }
  l->next = nullptr;
  --q->size;
  return l;
}

void *kro_queue_peek_head(const kro_queue_t *q) {
  return q == nullptr ? nullptr : q->head;
}

void *kro_queue_get_next(const void *elem) {
  return elem == nullptr ? nullptr : static_cast<const kro_queue_link_t *>(elem)->next;
}

uint32_t kro_queue_size(const kro_queue_t *q) {
  return q == nullptr ? 0 : q->size;
}

int kro_queue_unqueue(kro_queue_t *q, void *elem) {
  if (q == nullptr || elem == nullptr) {
    return 0;
  }
  kro_queue_link_t *prev = nullptr;
  for (kro_queue_link_t *l = q->head; l != nullptr; prev = l, l = l->next) {
    if (l != elem) {
      continue;
    }
    if (prev == nullptr) {
      q->head = l->next;
    } else {
      prev->next = l->next;
    }
    if (q->tail == l) {
      q->tail = prev;
    }
    l->next = nullptr;
    --q->size;
    return 1;
  }
  return 0;
}

int kro_queue_empty(const kro_queue_t *q) {
  return q == nullptr || q->head == nullptr ? 1 : 0;
}

}  // extern "C"
