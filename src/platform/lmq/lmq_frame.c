/*
 * Frames of the lmq bus; the format is described in lmq_frame.h.
 *
 * One table gives each type its fixed fields, its tail and the directions
 * it may travel in; encoding and decoding both walk it, so that the two
 * can never disagree.
 */
#include "lmq/lmq_frame.h"

#include <assert.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>

enum { _LMQ_TAIL_NONE, _LMQ_TAIL_NAME, _LMQ_TAIL_MESSAGE };

typedef struct _lmq_frame_layout {
  const char *fields;
  uint8_t tail;
  uint8_t directions;
} _lmq_frame_layout;

#define _LMQ_BOTH (LMQ_FRAME_TO_HUB | LMQ_FRAME_TO_PEER)

/* Indexed by type; entry 0 is no type. */
static const _lmq_frame_layout g_lmq_frame_layouts[] = {
    {NULL, _LMQ_TAIL_NONE, 0},
    {"MVn", _LMQ_TAIL_NONE, LMQ_FRAME_TO_HUB},        /* HELLO */
    {"MVn", _LMQ_TAIL_NONE, LMQ_FRAME_TO_PEER},       /* WELCOME */
    {"e", _LMQ_TAIL_NONE, LMQ_FRAME_TO_PEER},         /* REFUSED */
    {"t", _LMQ_TAIL_NONE, _LMQ_BOTH},                 /* PING */
    {"t", _LMQ_TAIL_NONE, _LMQ_BOTH},                 /* PONG */
    {"nc", _LMQ_TAIL_NONE, _LMQ_BOTH},                /* CLIENT_ADD */
    {"nc", _LMQ_TAIL_NONE, _LMQ_BOTH},                /* CLIENT_DEL */
    {"n", _LMQ_TAIL_NONE, LMQ_FRAME_TO_PEER},         /* NODE_DEL */
    {"t", _LMQ_TAIL_NAME, LMQ_FRAME_TO_HUB},          /* REGISTER */
    {"tei", _LMQ_TAIL_NAME, LMQ_FRAME_TO_PEER},       /* REGISTERED */
    {"i", _LMQ_TAIL_NONE, LMQ_FRAME_TO_HUB},          /* UNREGISTER */
    {"irc", _LMQ_TAIL_NONE, LMQ_FRAME_TO_HUB},        /* JOIN */
    {"irc", _LMQ_TAIL_NONE, LMQ_FRAME_TO_HUB},        /* LEAVE */
    {"irnc", _LMQ_TAIL_NONE, LMQ_FRAME_TO_PEER},      /* MEMBER_ADD */
    {"irnc", _LMQ_TAIL_NONE, LMQ_FRAME_TO_PEER},      /* MEMBER_DEL */
    {"iycNC", _LMQ_TAIL_NONE, LMQ_FRAME_TO_PEER},     /* SYSMSG */
    {"iNCs", _LMQ_TAIL_MESSAGE, _LMQ_BOTH},           /* COMMAND */
    {"iNCs", _LMQ_TAIL_MESSAGE, _LMQ_BOTH},           /* NOTIFY */
    {"nciNCs", _LMQ_TAIL_MESSAGE, _LMQ_BOTH},         /* REPLY */
};

#define _LMQ_FRAME_TYPES (sizeof(g_lmq_frame_layouts) / sizeof(g_lmq_frame_layouts[0]))

void lmq_frame_put32(unsigned char *p, uint32_t v) {
  p[0] = (unsigned char)(v >> 24);
  p[1] = (unsigned char)(v >> 16);
  p[2] = (unsigned char)(v >> 8);
  p[3] = (unsigned char)v;
}

uint32_t lmq_frame_get32(const unsigned char *p) {
  return ((uint32_t)p[0] << 24) | ((uint32_t)p[1] << 16) | ((uint32_t)p[2] << 8) | p[3];
}

static void _lmq_frame_put16(unsigned char *p, uint16_t v) {
  p[0] = (unsigned char)(v >> 8);
  p[1] = (unsigned char)v;
}

static uint16_t _lmq_frame_get16(const unsigned char *p) {
  return (uint16_t)((p[0] << 8) | p[1]);
}

/* Bytes of one field code. */
static uint32_t _lmq_frame_field_size(char code) {
  switch (code) {
    case 'r':
      return 1;
    case 'V':
    case 'i':
      return 2;
    default:
      return 4;
  }
}

/* Bytes of a layout's fixed part, type byte included. */
static uint32_t _lmq_frame_fixed_size(const _lmq_frame_layout *layout) {
  uint32_t size = 1;
  const char *code;

  for (code = layout->fields; *code != '\0'; code++) size += _lmq_frame_field_size(*code);
  return size;
}

static const _lmq_frame_layout *_lmq_frame_layout_of(uint32_t type) {
  return type > 0 && type < _LMQ_FRAME_TYPES ? &g_lmq_frame_layouts[type] : NULL;
}

/* The 32-bit fields by code; null for the 8 and 16-bit ones. */
static uint32_t *_lmq_frame_word(lmq_frame *frame, char code) {
  switch (code) {
    case 'M':
      return &frame->magic;
    case 'n':
      return &frame->node;
    case 'c':
      return &frame->client;
    case 'N':
      return &frame->peer_node;
    case 'C':
      return &frame->peer_client;
    case 'e':
      return (uint32_t *)(void *)&frame->result;
    case 't':
      return &frame->token;
    case 'y':
      return &frame->sysmsg_type;
    case 's':
      return &frame->sequence;
    default:
      return NULL;
  }
}

int lmq_frame_length_ok(uint32_t length) {
  return length >= 1 && length <= LMQ_FRAME_MAX;
}

uint32_t lmq_frame_encode(unsigned char *head, const lmq_frame *frame, uint32_t tail_len) {
  const _lmq_frame_layout *layout = _lmq_frame_layout_of(frame->type);
  lmq_frame copy = *frame; /* _lmq_frame_word hands out writable fields */
  unsigned char *p = head + LMQ_FRAME_LENGTH_SIZE;
  const char *code;

  assert(layout != NULL);
  *p++ = frame->type;
  for (code = layout->fields; *code != '\0'; code++) {
    uint32_t *word = _lmq_frame_word(&copy, *code);
    if (word != NULL) {
      lmq_frame_put32(p, *word);
    } else if (*code == 'V') {
      _lmq_frame_put16(p, copy.version);
    } else if (*code == 'i') {
      _lmq_frame_put16(p, (uint16_t)copy.service_id);
    } else {
      *p = copy.role;
    }
    p += _lmq_frame_field_size(*code);
  }
  lmq_frame_put32(head, (uint32_t)(p - head) - LMQ_FRAME_LENGTH_SIZE + tail_len);
  return (uint32_t)(p - head);
}

int lmq_frame_decode(lmq_frame *frame, const unsigned char *bytes, uint32_t length,
                     uint32_t direction, char *why, size_t why_size) {
  const _lmq_frame_layout *layout;
  const unsigned char *p = bytes + 1;
  const char *code;
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
  for (code = layout->fields; *code != '\0'; code++) {
    uint32_t *word = _lmq_frame_word(frame, *code);
    if (word != NULL) {
      *word = lmq_frame_get32(p);
    } else if (*code == 'V') {
      frame->version = _lmq_frame_get16(p);
    } else if (*code == 'i') {
      frame->service_id = (int16_t)_lmq_frame_get16(p);
    } else {
      frame->role = *p;
    }
    p += _lmq_frame_field_size(*code);
  }
  if (frame->role > LMQ_FRAME_ROLE_SUBSCRIBER) {
    snprintf(why, why_size, "bad role %u", (unsigned)frame->role);
    return -EBADMSG;
  }
  frame->tail = tail_len > 0 ? bytes + fixed : NULL;
  frame->tail_len = tail_len;
  return 0;
}
