#include "loreg/lors_export.h"

#include <stdio.h>
#include <string.h>

#include "common/loreg_debug.h"
#include "loreg/crc.h"
#include "loreg/lors_commit.h"
#include "server/lors_private.h"

/* Token and flags of a node line ("KEY 0x05"), and the closing line of a
 * directory without its indentation. */
#define LORS_EXPORT_HEADER_LEN 8
#define LORS_EXPORT_DIREND "/DIR\n"
#define LORS_EXPORT_DIREND_LEN 5

/* Index of the last byte of the line buffer: a line and its LF must end
 * before it, so the longest line is LORS_EXPORT_SCRATCH_SIZE - 1 bytes. */
#define LORS_EXPORT_LIMIT (LORS_EXPORT_SCRATCH_SIZE - 1)

/* Bytes that the file cannot hold as they are: the blanks and controls
 * that would split or end a word, and the escape character itself. */
static int _lors_exprt_needs_escape(unsigned char byte) { return byte <= 0x20 || byte == '%'; }

/* Writes all of buffer once; returns the count the table's write gave. */
static int32_t _lors_exprt_write(lors_export_ctx *context, const char *buffer, int32_t size) {
  return context->write(context->handle, buffer, (uint32_t)size);
}

int lors_exprt_escape(char *target, const char *bytes, uint32_t length, int32_t room) {
  static const char hex[] = "0123456789ABCDEF";
  if (length == 0) return 0;

  int64_t size = (int64_t)length + 1;
  for (uint32_t i = 0; i < length; i++) {
    if (_lors_exprt_needs_escape((unsigned char)bytes[i])) size += 2;
  }
  /* The caller adds the size to its position whether or not it was
   * written, so an oversized field carries the position past the limit;
   * clamping keeps that true without overflowing the result. */
  int result = size > INT32_MAX ? INT32_MAX : (int)size;
  if (room <= size) return result;

  char *out = target;
  *out++ = ' ';
  for (uint32_t i = 0; i < length; i++) {
    unsigned char byte = (unsigned char)bytes[i];
    if (_lors_exprt_needs_escape(byte)) {
      *out++ = '%';
      *out++ = hex[byte >> 4];
      *out++ = hex[byte & 15];
    } else {
      *out++ = (char)byte;
    }
  }
  *out = '\0';
  return result;
}

int32_t lors_exprt_clearChanged(lors_rp_node *node, lors_rp_walk *walk) {
  (void)walk;
  if (node != NULL) node->flags &= ~KEYF_CHANGED;
  return 0;
}

/* Room before the limit at a position of the line, none once the
 * position has passed it. */
static int32_t _lors_exprt_room(int64_t pos) {
  return pos < LORS_EXPORT_LIMIT ? (int32_t)(LORS_EXPORT_LIMIT - pos) : 0;
}

/* Where a field at pos would go; a position past the limit is kept at the
 * limit, since nothing is written there anyway. */
static char *_lors_exprt_at(char *scratch, int64_t pos) {
  return scratch + (pos < LORS_EXPORT_LIMIT ? pos : LORS_EXPORT_LIMIT);
}

/* Formats token and flags of a node line, "KEY 0x05" as by "%s 0x%02x",
 * into 8 bytes at target. Done by hand: it runs once per key of every
 * export, where a printf costs more than the rest of the line. */
static void _lors_exprt_header(char *target, uint32_t flags) {
  static const char hex[] = "0123456789abcdef";
  memcpy(target, (flags & KEYF_DIR) ? "DIR 0x" : "KEY 0x", 6);
  target[6] = hex[(flags >> 4) & 15u];
  target[7] = hex[flags & 15u];
}

/* Writes the closing line of a directory at the current depth. */
static int _lors_exprt_dirend(lors_export_ctx *context, const lors_rp_node *node) {
  int32_t indent = 2 * context->depth;
  memset(context->scratch, ' ', (size_t)indent);
  memcpy(context->scratch + indent, LORS_EXPORT_DIREND, LORS_EXPORT_DIREND_LEN);
  int32_t size = indent + LORS_EXPORT_DIREND_LEN;
  int32_t written = _lors_exprt_write(context, context->scratch, size);
  if (written != size) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER,
              "Export:(%.*s) only %d of %d dirend-token byte(s) written - abort\n",
              (int)node->name.len, node->name.ptr, (int)written, (int)size);
    return -5;
  }
  return 0;
}

/* Writes the line of one node at the current depth, counts it and adds
 * it to the checksum. Returns 0, or -5 for a short write; *open is set for
 * a directory whose line was written, whose children and closing line
 * must follow. A volatile node, or one whose line doesn't fit, is left out
 * with everything below it: no line, *open clear. */
static int _lors_exprt_line(lors_export_ctx *context, const lors_rp_node *node, int *open) {
  *open = 0;
  if (node->flags & KEYF_VOLATILE) return 0;

  /* Guard against depth. A node needs 2 * depth blanks and the 8 bytes of
   * token and flags in front of its name, and when these alone reach the
   * last byte of the buffer its line cannot be complete. Such a node is
   * treated exactly like a key whose name or value is too long: it is left
   * out with its subtree, with one message, and the export goes on. That
   * keeps the file valid (its "/DIR" lines balanced, since an omitted
   * directory writes neither line, and the checksum over what was
   * written), and it saves the rest of the tree. Failing the export
   * instead would make one unreachable branch block every later commit and
   * leave the repository dirty for good; writing the line with a shorter
   * indentation would break the format's fixed indentation. An export
   * from the root never gets here: a directory needs at least 2 bytes for
   * its name, so none deeper than 4090 levels fits its own line, and one
   * that doesn't fit is left out before its children are visited. The
   * check is what keeps any depth a caller hands in, however large, from
   * writing past the buffer, instead of that subtle bound. */
  int64_t header_end = 2 * (int64_t)context->depth + LORS_EXPORT_HEADER_LEN;
  if (context->depth < 0 || header_end >= LORS_EXPORT_LIMIT) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER,
              "Export:(%.*s) tree too deep (depth %d) - ignore key\n", (int)node->name.len,
              node->name.ptr, (int)context->depth);
    return 0;
  }

  char *scratch = context->scratch;
  int32_t indent = 2 * context->depth;
  memset(scratch, ' ', (size_t)indent);
  _lors_exprt_header(scratch + indent, node->flags);

  /* Name and value each take the room left before the limit. A field that
   * doesn't fit writes nothing but still moves the position past the
   * limit; the target pointer is kept inside the buffer meanwhile. */
  int64_t pos = header_end;
  pos += lors_exprt_escape(_lors_exprt_at(scratch, pos), node->name.ptr, node->name.len,
                           _lors_exprt_room(pos));
  pos += lors_exprt_escape(_lors_exprt_at(scratch, pos), node->value.ptr, node->value.len,
                           _lors_exprt_room(pos));
  if (pos >= LORS_EXPORT_LIMIT) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER, "Export:(%.*s) name/value to long - ignore key\n",
              (int)node->name.len, node->name.ptr);
    return 0;
  }

  scratch[pos] = '\n';
  int32_t size = (int32_t)pos + 1;
  int32_t written = _lors_exprt_write(context, scratch, size);
  if (written != size) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER,
              "Export:(%.*s) only %d of %d header byte(s) written - abort\n", (int)node->name.len,
              node->name.ptr, (int)written, (int)size);
    return -5;
  }

  context->keys++;
  if (node->flags & KEYF_CHANGED) context->changed++;
  context->crc = crc_update(context->crc, node->name.ptr, node->name.len);
  context->crc = crc_update(context->crc, node->value.ptr, node->value.len);
  *open = (node->flags & KEYF_DIR) != 0;
  return 0;
}

/* Leaves a node of the export, closing each directory whose last child it
 * was, and returns in *next the next sibling found on the way up, or null
 * once start is done. Returns 0 or -5 for a short write. */
static int _lors_exprt_leave(lors_export_ctx *context, const lors_rp_node *start,
                             const lors_rp_node *node, const lors_rp_node **next) {
  for (;;) {
    *next = NULL;
    if (node == start) return 0;
    *next = TAILQ_NEXT(node, link);
    if (*next != NULL) return 0;
    node = node->parent;
    context->depth--;
    int rc = _lors_exprt_dirend(context, node);
    if (rc != 0) return rc;
  }
}

/* The tree is written depth first along its own links rather than by
 * recursion: a path of one message reaches thousands of levels, more than
 * the server thread's stack would hold as frames. */
int lors_exprt_node(lors_export_ctx *context, const lors_rp_node *node) {
  if (context == NULL || node == NULL || context->scratch == NULL || context->write == NULL)
    return -22;

  const lors_rp_node *start = node;
  const int32_t start_depth = context->depth;
  int rc = 0;
  while (node != NULL) {
    int open;
    rc = _lors_exprt_line(context, node, &open);
    if (rc != 0) break;
    if (open) {
      const lors_rp_node *child = TAILQ_FIRST(&node->children);
      if (child != NULL) {
        context->depth++;
        node = child;
        continue;
      }
      rc = _lors_exprt_dirend(context, node);
      if (rc != 0) break;
    }
    rc = _lors_exprt_leave(context, start, node, &node);
    if (rc != 0) break;
  }
  context->depth = start_depth;
  return rc;
}

/* Writes a trailer line of size bytes that lies formatted in the scratch
 * buffer. what names the line in the message of a short write. */
static int _lors_exprt_trailer(lors_export_ctx *context, int32_t size, const char *what) {
  int32_t written = _lors_exprt_write(context, context->scratch, size);
  if (written != size) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER,
              "Export: only %d of %d %s token byte(s) written - abort\n", (int)written, (int)size,
              what);
    return -5;
  }
  return 0;
}

int lors_export(lors_ctx *server, const char *device, const char *file, const char *label) {
  if (server == NULL) return -22;
  label = _lors_text(label);
  const lors_fio *fio = server->fio;
  if (fio == NULL || fio->open == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER, "Export (%s): no file i/o functions available!\n",
              label);
    return -95;
  }

  lors_export_ctx context;
  memset(&context, 0, sizeof(context));
  context.scratch = loreg_malloc(server->allocator, LORS_EXPORT_SCRATCH_SIZE);
  if (context.scratch == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER,
              "Export (%s): failed to allocate %d bytes scratch buffer!\n", label,
              LORS_EXPORT_SCRATCH_SIZE);
    return -12;
  }

  int rc = 0;
  context.handle = fio->open(device, file, LORS_FIO_MODE_WRITE);
  if (context.handle == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER,
              "Export (%s): failed to open '%s' on '%s' for writing!\n", label,
              _lors_text(file), _lors_text(device));
    loreg_free(server->allocator, context.scratch);
    return -5;
  }

  context.write = fio->write;
  context.crc = 0xFFFFFFFFu;
  uint64_t count = server->commit_count + 1;
  rc = lors_exprt_node(&context, server->root);
  if (rc == 0) {
    int size = snprintf(context.scratch, LORS_EXPORT_SCRATCH_SIZE, "%s %llu\n", "COMMIT_COUNT",
                        (unsigned long long)count);
    rc = _lors_exprt_trailer(&context, size, "commit count");
  }
  if (rc == 0) {
    int size = snprintf(context.scratch, LORS_EXPORT_SCRATCH_SIZE, "%s 0x%08x\n", "CRC",
                        (unsigned)context.crc);
    rc = _lors_exprt_trailer(&context, size, "crc");
  }

  /* The file is closed on every path once it was opened. A table whose
   * close reports an error has the last word: the data may not be on the
   * medium. */
  int32_t closed = fio->close(context.handle);
  if (closed != 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER,
              "Export (%s): failed to close '%s' on '%s' after writing! (code %d)\n", label,
              _lors_text(file), _lors_text(device), (int)closed);
    rc = closed;
  } else if (rc == 0) {
    LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_SERVER,
              "Export (%s): used '%s', %u of %u keys changed, commit_count=%llu\n", label,
              _lors_text(file), (unsigned)context.changed, (unsigned)context.keys,
              (unsigned long long)count);
  }

  loreg_free(server->allocator, context.scratch);
  return rc;
}

/* The file of a slot of the default location. */
static const char *_lors_exprt_slot(const lors_fio *fio, int32_t index) {
  return index != 0 ? fio->file1 : fio->file0;
}

int lors_exprt_default(lors_ctx *server, const char *label) {
  if (server == NULL) return -22;
  label = _lors_text(label);

  int both = (server->options & LORS_OPT_EXPORT_BOTH) && server->export_count == 0;
  if (!both && server->dirty == 0) {
    LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_SERVER,
              "Export (%s): repository is clean, no need to export\n", label);
    return 0;
  }

  const lors_fio *fio = server->fio;
  const char *device = fio != NULL ? fio->device : NULL;
  int32_t other = server->current_file != 0 ? 0 : 1;

  /* The file with the newest good state is written last, if at all, so
   * that a power cut during a write leaves one intact file behind. */
  int32_t last = other;
  int rc = lors_export(server, device, fio != NULL ? _lors_exprt_slot(fio, other) : NULL, label);
  if (both) {
    last = server->current_file;
    rc |= lors_export(server, device, fio != NULL ? _lors_exprt_slot(fio, last) : NULL, label);
  }

  if (rc != 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER,
              "Export (%s): WARNING: failed to save repository to default location!\n", label);
    return rc;
  }

  server->current_file = last;
  server->commit_count++;
  server->export_count++;
  lors_repositorySetDirty(server, 0);

  lors_rp_walk walk;
  memset(&walk, 0, sizeof(walk));
  walk.mask = LORS_RP_MASK_ALL;
  walk.callback = lors_exprt_clearChanged;
  lors_rp_TreeWalk(server->root, &walk);
  return 0;
}
