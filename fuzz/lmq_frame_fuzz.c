/*
 * The bus frame decoder against arbitrary bytes. The first byte picks the
 * direction (toward the hub or toward a peer), the rest is one frame
 * without its length word. A frame that decodes must encode again to the
 * very same bytes.
 */
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "lmq/lmq_bytes.h"
#include "lmq/lmq_frame.h"

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  unsigned char head[LMQ_FRAME_HEAD_MAX];
  char why[64];
  lmq_frame frame;
  uint32_t direction;
  uint32_t length;
  uint32_t head_len;

  if (size < 1 || size - 1 > UINT32_MAX) return 0;
  direction = (data[0] & 1u) ? LMQ_FRAME_TO_HUB : LMQ_FRAME_TO_PEER;
  length = (uint32_t)(size - 1);
  if (lmq_frame_decode(&frame, data + 1, length, direction, why, sizeof(why)) != 0) return 0;
  head_len = lmq_frame_encode(head, &frame, frame.tail_len);
  if (head_len < LMQ_FRAME_LENGTH_SIZE || lmq_get_be32(head) != length ||
      head_len - LMQ_FRAME_LENGTH_SIZE + frame.tail_len != length ||
      memcmp(head + LMQ_FRAME_LENGTH_SIZE, data + 1, head_len - LMQ_FRAME_LENGTH_SIZE) != 0 ||
      (frame.tail_len > 0 && memcmp(frame.tail, data + 1 + head_len - LMQ_FRAME_LENGTH_SIZE,
                                    frame.tail_len) != 0)) {
    abort();
  }
  return 0;
}
