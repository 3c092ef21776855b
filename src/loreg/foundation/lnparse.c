#include "loreg/lnparse.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

const char *const LINEEND_NONE = "";
const char *const LINEEND_UNIX = "\n";
const char *const LINEEND_MAC = "\r";
const char *const LINEEND_REVDOS = "\n\r";
const char *const LINEEND_DOS = "\r\n";

static void _lnparse_set_chunk_state(lnparse_ctx *ctx, uint32_t chunk_state) {
  ctx->state = (ctx->state & ~LNPARSE_STATE_MASK) | chunk_state;
}

/* Hands one line to the callback: terminates it over the first byte of its
 * line end, counts it, and applies the skip options. */
static int _lnparse_emit_line(lnparse_ctx *ctx, char *line, uint32_t length, const char *marker) {
  line[length] = '\0';
  ctx->line_no++;
  uint32_t line_number = ctx->line_no;
  if ((ctx->flags & LNPARSE_SKIP_LEADING) != 0) {
    while (length > 0 && (unsigned char)*line <= 32) {
      line++;
      length--;
    }
  }
  if (length == 0 && (ctx->flags & LNPARSE_SKIP_EMPTY) != 0) return 0;
  return ctx->line_cb(line, length, marker, line_number, ctx->user);
}

/*
 * A chunk that ends a line: the bytes from the chunk's start up to and
 * including its line end (none at end of input). In the idle state the
 * line is cut in place; otherwise the chunk completes the line in scratch.
 */
static int parse_end_chunk(lnparse_ctx *ctx, char *chunk, uint32_t length, const char *marker) {
  uint32_t marker_len = (uint32_t)strlen(marker);
  switch (ctx->state & LNPARSE_STATE_MASK) {
    case LNPARSE_STATE_OVERFLOW:
      /* The end of a dropped line: count it so that later numbers stay right. */
      _lnparse_set_chunk_state(ctx, LNPARSE_STATE_IDLE);
      ctx->line_no++;
      return 0;
    case LNPARSE_STATE_PENDING: {
      /* The terminating zero needs one byte behind the line. */
      if (length >= ctx->scratch_size - ctx->pending) {
        printf("parse_end_chunk() scratch buffer overflow, (line %u length %u) line is ignored.\n",
               ctx->line_no, length + ctx->pending);
        ctx->line_no++;
        ctx->pending = 0;
        _lnparse_set_chunk_state(ctx, LNPARSE_STATE_IDLE);
        return 0;
      }
      if (chunk != NULL && length != 0) {
        lnparse_memcpy(ctx->scratch + ctx->pending, chunk, length);
        ctx->pending += length;
      }
      int rc = _lnparse_emit_line(ctx, ctx->scratch, ctx->pending - marker_len, marker);
      ctx->pending = 0;
      _lnparse_set_chunk_state(ctx, LNPARSE_STATE_IDLE);
      return rc;
    }
    default:
      if (chunk == NULL || length == 0) return 0;
      return _lnparse_emit_line(ctx, chunk, length - marker_len, marker);
  }
}

/* The tail of a block that holds no line end: it is kept in scratch until
 * the line ends, unless the line no longer fits. */
static void parse_mid_chunk(lnparse_ctx *ctx, const char *chunk, uint32_t length) {
  uint32_t chunk_state = ctx->state & LNPARSE_STATE_MASK;
  if (chunk_state == LNPARSE_STATE_OVERFLOW) return;
  if (chunk_state == LNPARSE_STATE_IDLE) {
    _lnparse_set_chunk_state(ctx, LNPARSE_STATE_PENDING);
    ctx->pending = 0;
  }
  if (ctx->scratch_size - ctx->pending <= length) {
    printf("parse_mid_chunk() scratch buffer overflow, (line %u length > %u) line is ignored.\n",
           ctx->line_no, ctx->scratch_size);
    ctx->pending = 0;
    _lnparse_set_chunk_state(ctx, LNPARSE_STATE_OVERFLOW);
    return;
  }
  /* When the caller read into read_ptr, source and target are the same
   * place and nothing is copied. */
  lnparse_memcpy(ctx->scratch + ctx->pending, chunk, length);
  ctx->pending += length;
}

static int _lnparse_end_of_input(lnparse_ctx *ctx) {
  const char *marker = LINEEND_NONE;
  if ((ctx->state & LNPARSE_AHEAD_LF) != 0) {
    marker = LINEEND_UNIX;
  } else if ((ctx->state & LNPARSE_AHEAD_CR) != 0) {
    marker = LINEEND_MAC;
  }
  int rc = parse_end_chunk(ctx, NULL, 0, marker);
  if (rc != 0) return rc;
  ctx->pending = 0;
  ctx->state = LNPARSE_STATE_IDLE;
  ctx->read_ptr = ctx->scratch;
  ctx->read_free = ctx->scratch_size;
  return 0;
}

int lnparse_init(lnparse_ctx *ctx, lnparse_line_cb line_cb, char *scratch, uint32_t scratch_size,
                 uint32_t flags, void *user) {
  if (ctx == NULL || line_cb == NULL || scratch == NULL || scratch_size == 0) return -EINVAL;
  ctx->line_cb = line_cb;
  ctx->scratch = scratch;
  ctx->scratch_size = scratch_size;
  ctx->flags = flags;
  ctx->user = user;
  ctx->read_ptr = scratch;
  ctx->read_free = scratch_size;
  ctx->pending = 0;
  ctx->state = LNPARSE_STATE_IDLE;
  ctx->line_no = 0;
  return 0;
}

int lnparse_data(lnparse_ctx *ctx, char *data, uint32_t len) {
  if (ctx == NULL) return -EINVAL;
  if (data == NULL || len == 0) return _lnparse_end_of_input(ctx);

  uint32_t start = 0; /* first byte of the current chunk */
  uint32_t cursor = 0;
  for (;;) {
    if (cursor == len) {
      parse_mid_chunk(ctx, data + start, len - start);
      break;
    }
    const char *marker = NULL;
    if ((ctx->state & LNPARSE_AHEAD_LF) != 0) {
      ctx->state &= ~LNPARSE_AHEAD_LF;
      if (data[cursor] == '\r') {
        cursor++;
        marker = LINEEND_REVDOS;
      } else {
        marker = LINEEND_UNIX;
      }
    } else if ((ctx->state & LNPARSE_AHEAD_CR) != 0) {
      ctx->state &= ~LNPARSE_AHEAD_CR;
      if (data[cursor] == '\n') {
        cursor++;
        marker = LINEEND_DOS;
      } else {
        marker = LINEEND_MAC;
      }
    } else {
      char byte = data[cursor++];
      if (byte == '\n') {
        if ((ctx->flags & LNPARSE_LF_ENDS) != 0) {
          marker = LINEEND_UNIX;
        } else {
          ctx->state |= LNPARSE_AHEAD_LF;
        }
      } else if (byte == '\r') {
        if ((ctx->flags & LNPARSE_CR_ENDS) != 0) {
          marker = LINEEND_MAC;
        } else {
          ctx->state |= LNPARSE_AHEAD_CR;
        }
      }
    }
    if (marker == NULL) continue;

    int rc = parse_end_chunk(ctx, data + start, cursor - start, marker);
    if (rc != 0) return rc;
    start = cursor;
    /* A chunk that ends with the block leaves no tail to keep. */
    if (start == len) break;
  }
  ctx->read_ptr = ctx->scratch + ctx->pending;
  ctx->read_free = ctx->scratch_size - ctx->pending;
  return 0;
}

int lnparse_has_data_pending(const lnparse_ctx *ctx) {
  if (ctx == NULL) return -EINVAL;
  return (ctx->state & LNPARSE_STATE_MASK) == LNPARSE_STATE_PENDING ? 1 : 0;
}

static int _lnparse_is_blank(char byte) { return (unsigned char)byte <= 32; }

int lnparse_arg_count(const char *text) {
  if (text == NULL) return -EINVAL;
  int count = 0;
  int after_blank = 1;
  for (const char *p = text; *p != '\0'; p++) {
    if (_lnparse_is_blank(*p)) {
      after_blank = 1;
    } else {
      if (after_blank) count++;
      after_blank = 0;
    }
  }
  return count;
}

int lnparse_arg_separate(char *text, char **argv, int max) {
  if (text == NULL || (argv == NULL && max > 0)) return -EINVAL;
  int count = 0;
  int after_blank = 1; /* the byte before the text counts as a blank */
  for (char *p = text; *p != '\0'; p++) {
    if (!_lnparse_is_blank(*p)) {
      if (after_blank) {
        count++;
        if (count <= max) argv[count - 1] = p;
      }
      after_blank = 0;
      continue;
    }
    /* Only words that were stored are cut; the rest stays joined. */
    if (!after_blank && count <= max) *p = '\0';
    after_blank = 1;
  }
  return count;
}

void *lnparse_memcpy(void *dst, const void *src, size_t n) {
  unsigned char *d = (unsigned char *)dst;
  const unsigned char *s = (const unsigned char *)src;
  if ((uintptr_t)d < (uintptr_t)s) {
    for (size_t i = 0; i < n; i++) d[i] = s[i];
  } else if ((uintptr_t)d > (uintptr_t)s) {
    for (size_t i = n; i > 0; i--) d[i - 1] = s[i - 1];
  }
  return dst;
}
