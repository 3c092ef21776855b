/*
 * Ring buffer of whole messages; see lmq_queue.h.
 */
#include "lmq/lmq_queue.h"

#include <assert.h>
#include <errno.h>
#include <string.h>

/* Copies len bytes to the ring at offset pos, wrapping at the end. Returns
 * the offset after them. */
static uint32_t _lmq_ring_write(lmq_queue *queue, uint32_t pos, const void *source, uint32_t len) {
  const unsigned char *src = (const unsigned char *)source;
  uint32_t first = queue->capacity - pos;

  if (len < first) {
    memcpy(queue->base + pos, src, len);
    return pos + len;
  }
  memcpy(queue->base + pos, src, first);
  memcpy(queue->base, src + first, len - first);
  return len - first;
}

/* Copies len bytes out of the ring from offset pos, wrapping at the end.
 * Returns the offset after them. */
static uint32_t _lmq_ring_read(const lmq_queue *queue, uint32_t pos, void *destination,
                               uint32_t len) {
  unsigned char *dst = (unsigned char *)destination;
  uint32_t first = queue->capacity - pos;

  if (len < first) {
    memcpy(dst, queue->base + pos, len);
    return pos + len;
  }
  memcpy(dst, queue->base + pos, first);
  memcpy(dst + first, queue->base, len - first);
  return len - first;
}

/* Advances the head past an entry of size message bytes. An emptied queue
 * starts again at offset 0, so that small messages are rarely split. */
static void _lmq_queue_advance(lmq_queue *queue, uint32_t size) {
  uint32_t need = LMQ_QUEUE_RECORD_SIZE + size;

  assert(queue->entries > 0 && queue->used >= need);
  queue->entries--;
  queue->used -= need;
  if (queue->entries == 0) {
    queue->head = 0;
    queue->used = 0;
  } else {
    queue->head = (uint32_t)(((uint64_t)queue->head + need) % queue->capacity);
  }
}

void lmq_queue_init(lmq_queue *queue, void *memory, uint32_t size) {
  queue->base = (unsigned char *)memory;
  queue->capacity = size;
  lmq_queue_clear(queue);
}

void lmq_queue_clear(lmq_queue *queue) {
  queue->head = 0;
  queue->used = 0;
  queue->entries = 0;
}

int lmq_queue_put(lmq_queue *queue, const lmq_address *reply, const lmq_iovec *vector,
                  uint32_t count, uint32_t size) {
  uint64_t need = (uint64_t)LMQ_QUEUE_RECORD_SIZE + size;
  uint32_t pos;
  uint32_t i;

  if (need > queue->capacity) return -EMSGSIZE;
  if (need > (uint64_t)(queue->capacity - queue->used)) return -ENOBUFS;

  pos = (uint32_t)(((uint64_t)queue->head + queue->used) % queue->capacity);
  pos = _lmq_ring_write(queue, pos, &size, sizeof(size));
  pos = _lmq_ring_write(queue, pos, reply, (uint32_t)sizeof(*reply));
  for (i = 0; i < count; i++) {
    if (vector[i].len > 0) pos = _lmq_ring_write(queue, pos, vector[i].base, vector[i].len);
  }
  queue->used += (uint32_t)need;
  queue->entries++;
  return 0;
}

int lmq_queue_peek(const lmq_queue *queue, uint32_t *size, lmq_address *reply) {
  uint32_t pos;

  if (queue->entries == 0) return 0;
  pos = _lmq_ring_read(queue, queue->head, size, sizeof(*size));
  _lmq_ring_read(queue, pos, reply, (uint32_t)sizeof(*reply));
  return 1;
}

void lmq_queue_take(lmq_queue *queue, const lmq_iovec *vector, uint32_t count, uint32_t size) {
  uint32_t pos = (uint32_t)(((uint64_t)queue->head + LMQ_QUEUE_RECORD_SIZE) % queue->capacity);
  uint32_t left = size;
  uint32_t i;

  for (i = 0; i < count && left > 0; i++) {
    uint32_t len = vector[i].len < left ? vector[i].len : left;
    if (len == 0) continue;
    pos = _lmq_ring_read(queue, pos, vector[i].base, len);
    left -= len;
  }
  assert(left == 0);
  _lmq_queue_advance(queue, size);
}

void lmq_queue_drop(lmq_queue *queue, uint32_t size) {
  _lmq_queue_advance(queue, size);
}
