/*
 * lors_export: writing the repository file.
 *
 * The file is text: the tree depth first ("KEY"/"DIR" lines indented two
 * blanks per level, "/DIR" closing a directory), then "COMMIT_COUNT n"
 * and "CRC 0x........" as the last line. Names and values are encoded
 * (bytes up to 0x20 and "%" as "%XX"). The checksum is crc_update from
 * 0xFFFFFFFF without final inversion over the raw names and values of all
 * node lines. Volatile keys are not written. Two files are written in
 * turn, never the one with the newest good state. Server thread only (or
 * shutdown after the thread ended).
 */
#ifndef LOREG_LORS_EXPORT_H
#define LOREG_LORS_EXPORT_H

#include <stdint.h>

#include "loreg/loreg_export.h"
#include "loreg/lors.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Size of the export's line buffer. The longest line is one byte less. */
#define LORS_EXPORT_SCRATCH_SIZE 8192

/* One run of lors_export. */
typedef struct lors_export_ctx {
  int32_t (*write)(void *handle, const void *buffer, uint32_t size);
  void *handle;
  uint32_t crc;     /* running checksum */
  int32_t depth;
  char *scratch;    /* LORS_EXPORT_SCRATCH_SIZE bytes */
  uint32_t keys;    /* nodes written */
  uint32_t changed; /* nodes written that had KEYF_CHANGED */
} lors_export_ctx;

/*
 * Saves the tree to the default location: the file other than
 * current_file (both, the other first, for the first export with
 * LORS_OPT_EXPORT_BOTH). On success current_file, commit_count and
 * export_count advance, the repository turns clean and every KEYF_CHANGED
 * is cleared. A clean repository is not written (0). Returns 0 or the
 * writes' results or-ed together (-22 for a null server); on failure
 * nothing changes but the file, so the next export retries the same file
 * with the same count. The server's magic is not checked: lors_shutdown
 * commits after it has cleared it.
 */
LOREG_EXPORT int lors_exprt_default(lors_ctx *server, const char *label);

/* Writes one file with the count commit_count + 1 (the server's counters
 * are not touched). Returns 0, -95 (no i/o functions), -12, -5, the
 * close's non-zero result (which replaces any other), or -22 for a null
 * server. */
LOREG_EXPORT int lors_export(lors_ctx *server, const char *device, const char *file,
                             const char *label);

/*
 * Writes a node and all below it at context->depth. A volatile node is
 * skipped with its subtree; so is, with one message, a node whose line
 * would not end before the buffer's last byte, because its name and value
 * are too long or because the indentation of its depth leaves no room.
 * context->depth is as it was on return. Needs no stack per level of the
 * tree. Returns 0, -5 for a short write, or -22 for a null argument.
 */
LOREG_EXPORT int lors_exprt_node(lors_export_ctx *context, const lors_rp_node *node);

/*
 * Encodes length bytes into target as one blank, the encoded bytes and a
 * terminating zero (not counted), if room is more than the encoded size.
 * Returns the encoded size (length + 1 + 2 per escaped byte), also when
 * nothing was written for lack of room; 0 for length 0.
 */
LOREG_EXPORT int lors_exprt_escape(char *target, const char *bytes, uint32_t length, int32_t room);

/* Tree walk callback that clears KEYF_CHANGED. Returns 0. */
LOREG_EXPORT int32_t lors_exprt_clearChanged(lors_rp_node *node, lors_rp_walk *walk);

#ifdef __cplusplus
}
#endif

#endif
