/*
 * Frames of the lmq bus; the format is described in lmq_frame.h.
 *
 * One table gives each type its fixed fields (where each lies in lmq_frame
 * and its size on the wire), its tail and the directions it may travel in;
 * encoding and decoding both walk it, so that the two can never disagree.
 */
#include "lmq/lmq_frame.h"

#include <assert.h>
#include <errno.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "lmq/lmq_bytes.h"

enum { _LMQ_TAIL_NONE, _LMQ_TAIL_NAME, _LMQ_TAIL_MESSAGE };

/* One fixed field: where it lies in lmq_frame and its bytes on the wire. */
typedef struct _lmq_frame_field {
  uint8_t offset;
  uint8_t size; /* 1, 2 or 4 */
} _lmq_frame_field;

#define _LMQ_FRAME_FIELDS_MAX 6

typedef struct _lmq_frame_layout {
  _lmq_frame_field fields[_LMQ_FRAME_FIELDS_MAX];
  uint8_t count;
  uint8_t tail;
  uint8_t directions;
} _lmq_frame_layout;

#define _LMQ_MEMBER_SIZE(member) sizeof(((lmq_frame *)0)->member)
#define _LMQ_FIELD(member) {(uint8_t)offsetof(lmq_frame, member), (uint8_t)_LMQ_MEMBER_SIZE(member)}

/* A field's bytes on the wire are those of its member in lmq_frame: a
 * member of another type would change the format. */
#define _LMQ_WIRE_SIZE(member, bytes) \
  _Static_assert(_LMQ_MEMBER_SIZE(member) == (bytes), #member " takes " #bytes " bytes on the wire")
_LMQ_WIRE_SIZE(magic, 4);
_LMQ_WIRE_SIZE(version, 2);
_LMQ_WIRE_SIZE(node, 4);
_LMQ_WIRE_SIZE(client, 4);
_LMQ_WIRE_SIZE(peer_node, 4);
_LMQ_WIRE_SIZE(peer_client, 4);
_LMQ_WIRE_SIZE(result, 4);
_LMQ_WIRE_SIZE(token, 4);
_LMQ_WIRE_SIZE(service_id, 2);
_LMQ_WIRE_SIZE(role, 1);
_LMQ_WIRE_SIZE(sysmsg_type, 4);
_LMQ_WIRE_SIZE(sequence, 4);

/* The field codes of lmq_frame.h, for the table below only. */
#define M _LMQ_FIELD(magic)
#define V _LMQ_FIELD(version)
#define n _LMQ_FIELD(node)
#define c _LMQ_FIELD(client)
#define N _LMQ_FIELD(peer_node)
#define C _LMQ_FIELD(peer_client)
#define e _LMQ_FIELD(result)
#define t _LMQ_FIELD(token)
#define i _LMQ_FIELD(service_id)
#define r _LMQ_FIELD(role)
#define y _LMQ_FIELD(sysmsg_type)
#define s _LMQ_FIELD(sequence)
#define _LMQ_LAYOUT(tail, directions, ...)                                                      \
  {{__VA_ARGS__},                                                                             \
   (uint8_t)(sizeof((_lmq_frame_field[]){__VA_ARGS__}) / sizeof(_lmq_frame_field)),           \
   tail,                                                                                      \
   directions}

#define _LMQ_BOTH (LMQ_FRAME_TO_HUB | LMQ_FRAME_TO_PEER)

/* Indexed by type; entry 0 is no type. */
static const _lmq_frame_layout g_lmq_frame_layouts[] = {
    {{{0, 0}}, 0, _LMQ_TAIL_NONE, 0},
    _LMQ_LAYOUT(_LMQ_TAIL_NONE, LMQ_FRAME_TO_HUB, M, V, n),          /* HELLO */
    _LMQ_LAYOUT(_LMQ_TAIL_NONE, LMQ_FRAME_TO_PEER, M, V, n),         /* WELCOME */
    _LMQ_LAYOUT(_LMQ_TAIL_NONE, LMQ_FRAME_TO_PEER, e),               /* REFUSED */
    _LMQ_LAYOUT(_LMQ_TAIL_NONE, _LMQ_BOTH, t),                       /* PING */
    _LMQ_LAYOUT(_LMQ_TAIL_NONE, _LMQ_BOTH, t),                       /* PONG */
    _LMQ_LAYOUT(_LMQ_TAIL_NONE, _LMQ_BOTH, n, c),                    /* CLIENT_ADD */
    _LMQ_LAYOUT(_LMQ_TAIL_NONE, _LMQ_BOTH, n, c),                    /* CLIENT_DEL */
    _LMQ_LAYOUT(_LMQ_TAIL_NONE, LMQ_FRAME_TO_PEER, n),               /* NODE_DEL */
    _LMQ_LAYOUT(_LMQ_TAIL_NAME, LMQ_FRAME_TO_HUB, t),                /* REGISTER */
    _LMQ_LAYOUT(_LMQ_TAIL_NAME, LMQ_FRAME_TO_PEER, t, e, i),         /* REGISTERED */
    _LMQ_LAYOUT(_LMQ_TAIL_NONE, LMQ_FRAME_TO_HUB, i),                /* UNREGISTER */
    _LMQ_LAYOUT(_LMQ_TAIL_NONE, LMQ_FRAME_TO_HUB, i, r, c),          /* JOIN */
    _LMQ_LAYOUT(_LMQ_TAIL_NONE, LMQ_FRAME_TO_HUB, i, r, c),          /* LEAVE */
    _LMQ_LAYOUT(_LMQ_TAIL_NONE, LMQ_FRAME_TO_PEER, i, r, n, c),      /* MEMBER_ADD */
    _LMQ_LAYOUT(_LMQ_TAIL_NONE, LMQ_FRAME_TO_PEER, i, r, n, c),      /* MEMBER_DEL */
    _LMQ_LAYOUT(_LMQ_TAIL_NONE, LMQ_FRAME_TO_PEER, i, y, c, N, C),   /* SYSMSG */
    _LMQ_LAYOUT(_LMQ_TAIL_MESSAGE, _LMQ_BOTH, i, N, C, s),           /* COMMAND */
    _LMQ_LAYOUT(_LMQ_TAIL_MESSAGE, _LMQ_BOTH, i, N, C, s),           /* NOTIFY */
    _LMQ_LAYOUT(_LMQ_TAIL_MESSAGE, _LMQ_BOTH, n, c, i, N, C, s),     /* REPLY */
};

#undef M
#undef V
#undef n
#undef c
#undef N
#undef C
#undef e
#undef t
#undef i
#undef r
#undef y
#undef s

#define _LMQ_FRAME_TYPES (sizeof(g_lmq_frame_layouts) / sizeof(g_lmq_frame_layouts[0]))

/* Bytes of a layout's fixed part, type byte included. */
static uint32_t _lmq_frame_fixed_size(const _lmq_frame_layout *layout) {
  uint32_t size = 1;

  for (uint8_t k = 0; k < layout->count; k++) size += layout->fields[k].size;
  return size;
}

static const _lmq_frame_layout *_lmq_frame_layout_of(uint32_t type) {
  return type > 0 && type < _LMQ_FRAME_TYPES ? &g_lmq_frame_layouts[type] : NULL;
}

/* Copies one field from the record to the wire, most significant byte
 * first. */
static void _lmq_frame_field_put(unsigned char *p, const lmq_frame *frame,
                                 const _lmq_frame_field *field) {
  const unsigned char *at = (const unsigned char *)frame + field->offset;
  uint16_t v16;
  uint32_t v32;

  switch (field->size) {
    case 1:
      *p = *at;
      break;
    case 2:
      memcpy(&v16, at, sizeof v16);
      lmq_put_be16(p, v16);
      break;
    default:
      memcpy(&v32, at, sizeof v32);
      lmq_put_be32(p, v32);
      break;
  }
}

/* Copies one field from the wire to the record. */
static void _lmq_frame_field_get(lmq_frame *frame, const unsigned char *p,
                                 const _lmq_frame_field *field) {
  unsigned char *at = (unsigned char *)frame + field->offset;
  uint16_t v16;
  uint32_t v32;

  switch (field->size) {
    case 1:
      *at = *p;
      break;
    case 2:
      v16 = lmq_get_be16(p);
      memcpy(at, &v16, sizeof v16);
      break;
    default:
      v32 = lmq_get_be32(p);
      memcpy(at, &v32, sizeof v32);
      break;
  }
}

int lmq_frame_length_ok(uint32_t length) {
  return length >= 1 && length <= LMQ_FRAME_MAX;
}

uint32_t lmq_frame_encode(unsigned char *head, const lmq_frame *frame, uint32_t tail_len) {
  const _lmq_frame_layout *layout = _lmq_frame_layout_of(frame->type);
  unsigned char *p = head + LMQ_FRAME_LENGTH_SIZE;

  assert(layout != NULL);
  *p++ = frame->type;
  for (uint8_t k = 0; k < layout->count; k++) {
    _lmq_frame_field_put(p, frame, &layout->fields[k]);
    p += layout->fields[k].size;
  }
  lmq_put_be32(head, (uint32_t)(p - head) - LMQ_FRAME_LENGTH_SIZE + tail_len);
  return (uint32_t)(p - head);
}

int lmq_frame_decode(lmq_frame *frame, const unsigned char *bytes, uint32_t length,
                     uint32_t direction, char *why, size_t why_size) {
  const _lmq_frame_layout *layout;
  const unsigned char *p = bytes + 1;
  uint32_t fixed;
  uint32_t tail_len;

  if (!lmq_frame_length_ok(length)) {
    snprintf(why, why_size, "bad length %u", (unsigned)length);
    return -EBADMSG;
  }
  layout = _lmq_frame_layout_of(bytes[0]);
  if (layout == NULL || (layout->directions & direction) == 0) {
    snprintf(why, why_size, "unknown type %u", (unsigned)bytes[0]);
    return -EBADMSG;
  }
  fixed = _lmq_frame_fixed_size(layout);
  tail_len = length >= fixed ? length - fixed : 0;
  if (length < fixed || (layout->tail == _LMQ_TAIL_NONE && tail_len != 0) ||
      (layout->tail == _LMQ_TAIL_NAME &&
       (tail_len == 0 || tail_len > LMQ_SERVICE_NAME_MAX ||
        memchr(bytes + fixed, 0, tail_len) != NULL)) ||
      (layout->tail == _LMQ_TAIL_MESSAGE && (tail_len == 0 || tail_len > LMQ_MAX_MESSAGE_SIZE))) {
    snprintf(why, why_size, "bad size %u for type %u", (unsigned)length, (unsigned)bytes[0]);
    return -EBADMSG;
  }

  memset(frame, 0, sizeof(*frame));
  frame->type = bytes[0];
  for (uint8_t k = 0; k < layout->count; k++) {
    _lmq_frame_field_get(frame, p, &layout->fields[k]);
    p += layout->fields[k].size;
  }
  if (frame->role > LMQ_FRAME_ROLE_SUBSCRIBER) {
    snprintf(why, why_size, "bad role %u", (unsigned)frame->role);
    return -EBADMSG;
  }
  frame->tail = tail_len > 0 ? bytes + fixed : NULL;
  frame->tail_len = tail_len;
  return 0;
}
