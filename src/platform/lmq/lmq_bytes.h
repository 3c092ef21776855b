/*
 * Big-endian integers in byte buffers at any alignment: the bus frames
 * and the message headers lmq puts on the wire.
 */
#ifndef PLATFORM_LMQ_LMQ_BYTES_H
#define PLATFORM_LMQ_LMQ_BYTES_H

#include <endian.h>
#include <stdint.h>
#include <string.h>

static inline void lmq_put_be16(unsigned char *p, uint16_t v) {
  v = htobe16(v);
  memcpy(p, &v, sizeof v);
}

static inline void lmq_put_be32(unsigned char *p, uint32_t v) {
  v = htobe32(v);
  memcpy(p, &v, sizeof v);
}

static inline uint16_t lmq_get_be16(const unsigned char *p) {
  uint16_t v;
  memcpy(&v, p, sizeof v);
  return be16toh(v);
}

static inline uint32_t lmq_get_be32(const unsigned char *p) {
  uint32_t v;
  memcpy(&v, p, sizeof v);
  return be32toh(v);
}

#endif
