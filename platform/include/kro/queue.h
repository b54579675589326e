/* libkro stand-in: bounded FIFO queues embedded in their owner.
 *
 * Elements begin with a kro_queue_link_t that the queue manages; an element is in at most one
 * queue at a time. A queue record that was never initialised (all zero) is an empty queue for
 * every operation, and refuses enqueues (its bound is 0). Nothing here locks or allocates.
 */
#ifndef KRO_QUEUE_H_
#define KRO_QUEUE_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct kro_queue_link {
  struct kro_queue_link *next;
} kro_queue_link_t;

typedef struct kro_queue {
  kro_queue_link_t *head;
  kro_queue_link_t *tail;
  uint32_t size;
  uint32_t max; /* bound on size; 0 for a queue never initialised */
} kro_queue_t;

/* Makes `q` an empty queue holding at most `max` elements. Whatever it held is forgotten
 * (not freed): callers re-initialise only empty queues. */
void kro_queue_init(kro_queue_t *q, uint32_t max);
/* Appends at the tail. Returns 1 when appended, 0 when refused (full, NULL arguments). */
int kro_queue_enqueue(kro_queue_t *q, void *elem);
/* Removes and returns the head, or NULL when empty. */
void *kro_queue_dequeue(kro_queue_t *q);
/* The head without removing it, or NULL. */
void *kro_queue_peek_head(const kro_queue_t *q);
/* The element after `elem`, or NULL after the tail (or for NULL). */
void *kro_queue_get_next(const void *elem);
/* Number of elements (0 for NULL). */
uint32_t kro_queue_size(const kro_queue_t *q);
/* Removes `elem` wherever it stands. Returns 1 when removed, 0 when not in the queue. */
int kro_queue_unqueue(kro_queue_t *q, void *elem);
/* Non-zero when empty (also for NULL). */
int kro_queue_empty(const kro_queue_t *q);

#ifdef __cplusplus
}
#endif

#endif /* KRO_QUEUE_H_ */
