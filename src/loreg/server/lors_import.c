#include "loreg/lors_import.h"

#include <stdio.h>
#include <string.h>

#include "common/loreg_debug.h"
#include "loreg/crc.h"
#include "loreg/lors_commit.h"
#include "server/lors_private.h"

/* Words of a line that the reader looks at: token, flags, name, value. */
#define LORS_IMPORT_MAX_WORDS 4

/* The "%s:%d:%s()" arguments of a line: file, line and function. */
#define LORS_IMPRT_WHERE loreg_basename(__FILE__), __LINE__, __func__
/* The same for a helper that reports on behalf of the function named. */
#define LORS_IMPRT_WHERE_OF(function) loreg_basename(__FILE__), __LINE__, (function)

/* One digit of an escape. Digits are not validated: anything up to "9"
 * counts from "0", anything up to "F" from "A", anything above from "a",
 * so a damaged escape yields some byte and the checksum decides. */
static unsigned _lors_imprt_digit(unsigned char c) {
  if (c <= '9') return (unsigned)(c - 0x30u);
  if (c <= 'F') return (unsigned)(c - 55u);
  return (unsigned)(c - 87u);
}

/* Decodes a zero-terminated word in place and returns its length. An
 * escape cut off by the word's end is dropped. */
static uint32_t _lors_imprt_decode(char *word) {
  const unsigned char *in = (const unsigned char *)word;
  char *out = word;
  while (*in != '\0') {
    if (*in != '%') {
      *out++ = (char)*in++;
      continue;
    }
    if (in[1] == '\0' || in[2] == '\0') break;
    *out++ = (char)((_lors_imprt_digit(in[1]) * 16u + _lors_imprt_digit(in[2])) & 0xFFu);
    in += 3;
  }
  return (uint32_t)(out - word);
}

int lors_imprt_parseKeyLine(lors_rp_node **node, lors_import_ctx *context, int word_count,
                            char **words) {
  if (node == NULL || context == NULL || words == NULL) return -22;
  *node = NULL;
  if (word_count < 3) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER,
              "Import: '%s' too few tokens in '%s'-line (only %d of 3)\n",
              _lors_text(context->file), words[0], word_count);
    return -9;
  }

  unsigned flags = 0;
  if (sscanf(words[1], "0x%x", &flags) != 1) flags = 0;

  lstr name = {words[2], _lors_imprt_decode(words[2])};
  lstr value = {NULL, 0};
  if (word_count > 3) {
    value.ptr = words[3];
    value.len = _lors_imprt_decode(words[3]);
  }

  lors_rp_node *made = lors_rp_new(context->allocator, &name, word_count > 3 ? &value : NULL);
  if (made == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER,
              "Import: '%s' '%s'-line: failed to alloc new key node\n",
              _lors_text(context->file), words[0]);
    return -12;
  }
  /* Only the user bit is the file's to say; the rest is derived again or
   * belongs to the running server. */
  made->flags |= flags & KEYF_USER;
  made->flags &= ~KEYF_CHANGED;

  context->crc = crc_update(context->crc, made->name.ptr, made->name.len);
  context->crc = crc_update(context->crc, made->value.ptr, made->value.len);
  *node = made;
  return 0;
}

/* A KEY line: a plain key into the open directory. */
static int _lors_imprt_key(lors_import_ctx *context, uint32_t line_number, int word_count,
                           char **words) {
  context->crc_seen = 0;
  if (context->current_dir == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER, "Import: %s:%u found KEY outside DIR token\n",
              _lors_text(context->file), (unsigned)line_number);
    return -9;
  }
  lors_rp_node *node;
  int rc = lors_imprt_parseKeyLine(&node, context, word_count, words);
  if (rc != 0) return rc;
  if (node->flags & KEYF_DIR) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER,
              "Import: %s:%u DIR instead of KEY expected for '%s'\n",
              _lors_text(context->file), (unsigned)line_number, node->name.ptr);
    lors_rp_delete(context->allocator, node);
    return -9;
  }
  lors_rp_LinkToParent(node, context->current_dir);
  context->key_count++;
  return 0;
}

/* A DIR line: the root, or a directory into the open one, which it then
 * replaces as the open directory. */
static int _lors_imprt_dir(lors_import_ctx *context, uint32_t line_number, int word_count,
                           char **words) {
  context->crc_seen = 0;
  lors_rp_node *node;
  int rc = lors_imprt_parseKeyLine(&node, context, word_count, words);
  if (rc != 0) return rc;
  if (!(node->flags & KEYF_DIR)) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER,
              "Import: %s:%u KEY instead of DIR expected for '%s'\n",
              _lors_text(context->file), (unsigned)line_number, node->name.ptr);
    lors_rp_delete(context->allocator, node);
    return -9;
  }
  if (context->new_root == NULL) {
    context->new_root = node;
  } else if (context->current_dir != NULL) {
    lors_rp_LinkToParent(node, context->current_dir);
  } else {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER,
              "Import: %s:%u found more than one top-level DIR token!\n",
              _lors_text(context->file), (unsigned)line_number);
    lors_rp_delete(context->allocator, node);
    return -9;
  }
  context->current_dir = node;
  context->key_count++;
  return 0;
}

int lors_imprt_lineHandler(char *line, uint32_t length, const char *lineend, uint32_t line_number,
                           void *user) {
  (void)length;
  (void)lineend;
  lors_import_ctx *context = user;
  if (line == NULL || context == NULL) return -22;

  char *words[LORS_IMPORT_MAX_WORDS];
  int word_count = lnparse_arg_separate(line, words, LORS_IMPORT_MAX_WORDS);
  if (word_count <= 0) return 0;
  const char *file = _lors_text(context->file);

  if (strcmp(words[0], "KEY") == 0) return _lors_imprt_key(context, line_number, word_count, words);
  if (strcmp(words[0], "DIR") == 0) return _lors_imprt_dir(context, line_number, word_count, words);

  if (strcmp(words[0], "/DIR") == 0) {
    context->crc_seen = 0;
    if (context->current_dir == NULL) {
      LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER,
                "Import: %s:%u found /DIR without preceeding DIR token\n", file,
                (unsigned)line_number);
      return -9;
    }
    context->current_dir = context->current_dir->parent;
    return 0;
  }

  if (strcmp(words[0], "CRC") == 0) {
    context->crc_seen = 1;
    if (word_count < 2) {
      LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER, "Import: %s:%u missing value in CRC token!\n",
                file, (unsigned)line_number);
      return -9;
    }
    unsigned crc = 0;
    if (sscanf(words[1], "0x%x", &crc) != 1) crc = 0;
    if (crc != context->crc) {
      LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER,
                "Import: %s:%u CRC failure! file:0x%08x, imported keys:0x%08x\n", file,
                (unsigned)line_number, crc, (unsigned)context->crc);
      return -9;
    }
    return 0;
  }

  if (strcmp(words[0], "COMMIT_COUNT") == 0) {
    if (word_count < 2) {
      LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER,
                "Import: %s:%u missing value in COMMIT_COUNT token!\n", file,
                (unsigned)line_number);
      return -9;
    }
    unsigned long long count;
    if (sscanf(words[1], "%llu", &count) == 1) context->commit_count = count;
    return 0;
  }

  if (strcmp(words[0], "INVALID") == 0) {
    context->crc_seen = 0;
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER, "Import: %s:%u marked to be invalid\n", file,
              (unsigned)line_number);
    return -9;
  }

  /* Unknown words leave room for lines a later writer may add. */
  return 0;
}

/* Reads the whole file through the parser, each read landing directly in
 * the parser's buffer behind the unfinished line. Returns 0, a read error
 * or the handler's error. */
static int _lors_imprt_read(const lors_fio *fio, lors_import_ctx *context) {
  for (;;) {
    int32_t got = fio->read(context->handle, context->parser.read_ptr, context->parser.read_free);
    if (got < 0) return got;
    /* A read of 0 bytes is the end of input, which flushes a last line
     * that has no LF. */
    int rc = lnparse_data(&context->parser, context->parser.read_ptr, (uint32_t)got);
    if (rc != 0) return rc;
    if (got == 0) return 0;
  }
}

/* The checks of a fully read file, in order, reported in the name of the
 * caller, function. Returns 0 or -9. */
static int _lors_imprt_check(const lors_ctx *server, const lors_import_ctx *context,
                             uint64_t last_commit_count, const char *function) {
  const char *file = _lors_text(context->file);
  if (context->new_root == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER, "Import: '%s' no new root key read from file.\n",
              file);
    return -9;
  }
  if (lstr_cmp(&context->new_root->name, &server->root->name) != 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER,
              "Import: '%s' invalid root key name ('%.*s' instead '%.*s')\n", file,
              (int)context->new_root->name.len, context->new_root->name.ptr,
              (int)server->root->name.len, server->root->name.ptr);
    return -9;
  }
  if (context->crc_seen == 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER, "Import: '%s' file does not end with CRC token.\n",
              file);
    return -9;
  }
  if (last_commit_count >= context->commit_count) {
    int rc = -9;
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER, "Import: '%s' file commit count too low (%llu).\n",
              file, (unsigned long long)context->commit_count);
    LOREG_LOG(
        LOREG_LVL_DETAIL, LOREG_MOD_SERVER,
        "%s:%d:%s(): Import: '%s' file commit count too low (%llu) according to (%llu), res = %d.\n",
        LORS_IMPRT_WHERE_OF(function), file, (unsigned long long)context->commit_count,
        (unsigned long long)last_commit_count, rc);
    LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_SERVER,
              "%s:%d:%s(): @@@@@ BUT WE WILL IGNORE THIS ERROR IN STD RELOAD-FLOW.@@@@@ \n",
              LORS_IMPRT_WHERE_OF(function));
    return rc;
  }
  return 0;
}

int lors_import(lors_ctx *server, const char *device, const char *file,
                uint64_t last_commit_count) {
  if (server == NULL || server->magic != LORS_MAGIC || server->root == NULL) return -22;

  lors_import_ctx context;
  memset(&context, 0, sizeof(context));
  const lors_fio *fio = server->fio;
  if (fio == NULL || fio->open == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER, "Import: no file i/o functions available!\n");
    return -95;
  }
  context.file = file;
  context.allocator = server->allocator;
  context.crc = 0xFFFFFFFFu;

  int rc = 0;
  context.scratch = loreg_malloc(server->allocator, LORS_IMPORT_SCRATCH_SIZE);
  if (context.scratch == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER,
              "Import: failed to allocate %d bytes scratch buffer!\n", LORS_IMPORT_SCRATCH_SIZE);
    rc = -12;
  }
  if (rc == 0) {
    context.handle = fio->open(device, file, LORS_FIO_MODE_READ);
    if (context.handle == NULL) {
      LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER,
                "Import: failed to open '%s' on '%s' for reading!\n", _lors_text(file),
                _lors_text(device));
      rc = -5;
    }
  }
  if (rc == 0) {
    rc =
        lnparse_init(&context.parser, lors_imprt_lineHandler, context.scratch,
                     LORS_IMPORT_SCRATCH_SIZE, LNPARSE_SKIP_LEADING | LNPARSE_SKIP_EMPTY, &context);
    if (rc != 0) {
      LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER,
                "Import: failed to initialize line parser! (code %d)\n", rc);
    }
  }
  if (rc == 0) rc = _lors_imprt_read(fio, &context);
  if (rc == 0) rc = _lors_imprt_check(server, &context, last_commit_count, __func__);

  const char *name = _lors_text(file);
  if (rc != 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER,
              "%s:%d:%s():  Import file (%s) failed !!! res = %d.\n", LORS_IMPRT_WHERE, name, rc);
    /* Everything read so far hangs below the new root; a node refused by
     * the handler was freed there. */
    lors_rp_DeleteRecursive(context.allocator, context.new_root, NULL);
  } else {
    LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_SERVER,
              "%s:%d:%s():  @@@@@@ Import: pass all checking when import loreg data @@@@@@ \n",
              LORS_IMPRT_WHERE);
    LOREG_LOG(
        LOREG_LVL_DETAIL, LOREG_MOD_SERVER,
        "%s:%d:%s(): Import: '%s' file commit count is: (%llu) more than last  (%llu), res = %d.\n",
        LORS_IMPRT_WHERE, name, (unsigned long long)context.commit_count,
        (unsigned long long)last_commit_count, rc);
    lors_rp_DeleteRecursive(server->allocator, server->root, NULL);
    context.new_root->flags |= KEYF_ROOT;
    server->root = context.new_root;
    server->commit_count = context.commit_count;
    lors_repositorySetDirty(server, 0);
    LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_SERVER,
              "%s:%d:%s(): Import: %llu key(s) read from '%s', commit_count=%llu.\n",
              LORS_IMPRT_WHERE, (unsigned long long)context.key_count, name,
              (unsigned long long)context.commit_count);
    LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_SERVER, "%s:%d:%s():  Import file (%s) successfully!\n",
              LORS_IMPRT_WHERE, name);
  }

  if (context.handle != NULL) {
    int32_t closed = fio->close(context.handle);
    if (closed != 0) {
      LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER,
                "Import: failed to close '%s' on '%s' after reading! (code %d)\n", name,
                _lors_text(device), (int)closed);
    }
  }
  loreg_free(server->allocator, context.scratch);
  return rc;
}

int lors_imprt_default(lors_ctx *server) {
  if (server == NULL || server->magic != LORS_MAGIC) return -22;
  const lors_fio *fio = server->fio;
  const char *device = fio != NULL ? fio->device : NULL;

  int success = 0;
  int rc = 0;
  for (int32_t index = 0; index < 2; index++) {
    const char *file = fio == NULL ? NULL : index != 0 ? fio->file1 : fio->file0;
    LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_SERVER, "%s:%d:%s(): Import: repository [%s] ...\n",
              LORS_IMPRT_WHERE, _lors_text(file));
    /* Each file must be newer than what the server holds by now, so file
     * 1 replaces file 0 only if it is newer still. */
    rc = lors_import(server, device, file, server->commit_count);
    if (rc == 0) {
      success++;
      server->current_file = index;
    }
  }

  if (success == 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER,
              "%s:%d:%s():  Import: WARNING: no default repository loaded.\n", LORS_IMPRT_WHERE);
    return -9;
  }
  LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_SERVER,
            "%s:%d:%s():  Import: repository lores completely ,res = %d, success_count = %d.\n",
            LORS_IMPRT_WHERE, rc, success);
  return 0;
}
