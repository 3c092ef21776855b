/*
 * Receive queue of an lmq client: a ring buffer of whole messages inside
 * memory that the client's creator provides.
 *
 * Each queued message is an entry record (its size and reply address, in
 * host order) followed by the message bytes. Entries are packed without
 * padding and may wrap around the end of the memory; all access goes
 * through memcpy, so the memory needs no alignment. A message is written
 * or refused whole: the ring never holds part of one.
 *
 * The queue does no locking: the owning client's mutex guards it.
 */
#ifndef PLATFORM_LMQ_LMQ_QUEUE_H
#define PLATFORM_LMQ_LMQ_QUEUE_H

#include <stdint.h>

#include "platform/lmq.h"

typedef struct lmq_queue {
  unsigned char *base; /* caller's memory */
  uint32_t capacity;   /* its size in bytes */
  uint32_t head;       /* offset of the oldest entry */
  uint32_t used;       /* bytes taken by entries */
  uint32_t entries;    /* messages queued */
} lmq_queue;

/* Bytes of the entry record in front of each message. */
#define LMQ_QUEUE_RECORD_SIZE (4u + (uint32_t)sizeof(lmq_address))

/* Sets up an empty queue over size bytes of memory. */
void lmq_queue_init(lmq_queue *queue, void *memory, uint32_t size);

/* Forgets every queued message. */
void lmq_queue_clear(lmq_queue *queue);

/* Appends one message of size bytes gathered from the vector, with its
 * reply address. Returns 0, -90 when the message can never fit the queue,
 * -105 when it does not fit now (the queue is left as it was). */
int lmq_queue_put(lmq_queue *queue, const lmq_address *reply, const lmq_iovec *vector,
                  uint32_t count, uint32_t size);

/* Reads the size and reply address of the oldest message. Returns 1 when
 * there is one, 0 when the queue is empty. */
int lmq_queue_peek(const lmq_queue *queue, uint32_t *size, lmq_address *reply);

/* Copies the oldest message (size bytes, as peeked) into the vector's
 * buffers in order and removes it. The buffers must hold size bytes. */
void lmq_queue_take(lmq_queue *queue, const lmq_iovec *vector, uint32_t count, uint32_t size);

/* Removes the oldest message of size bytes (as peeked) without copying. */
void lmq_queue_drop(lmq_queue *queue, uint32_t size);

#endif
