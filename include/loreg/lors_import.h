/*
 * lors_import: reading the repository file back.
 *
 * The import builds a new tree aside and swaps it in only when the whole
 * file passed: a root named like the server's, a CRC line last with the
 * right checksum, and a commit count above the server's. Of the two files
 * of the default location the newest intact one wins. A damaged file
 * costs nothing: the tree and counters stay as they were. Runs on the
 * server's thread, or in lors_init before it exists.
 */
#ifndef LOREG_LORS_IMPORT_H
#define LOREG_LORS_IMPORT_H

#include <stdint.h>

#include "loreg/lnparse.h"
#include "loreg/loreg_export.h"
#include "loreg/lors.h"

#ifdef __cplusplus
extern "C" {
#endif

#define LORS_IMPORT_SCRATCH_SIZE 8192

/* One run of lors_import. */
typedef struct lors_import_ctx {
  void *handle;
  const char *file;
  const loreg_allocator *allocator;
  uint32_t crc;
  char *scratch;
  lnparse_ctx parser;
  lors_rp_node *new_root;
  lors_rp_node *current_dir;
  uint64_t commit_count;
  uint64_t key_count;
  uint32_t crc_seen;
} lors_import_ctx;

/* Loads from the default location, file 0 then file 1, each of which must
 * be newer than what the server holds by then. Returns 0 if at least one
 * file was taken (current_file names the last), else -9; -22 for a null or
 * invalid server. */
LOREG_EXPORT int lors_imprt_default(lors_ctx *server);

/* Reads one file and makes it the repository if it passes and its count
 * is above last_commit_count: the tree is swapped, commit_count taken from
 * the file and the repository marked clean. Returns 0, -95, -12, -5, a
 * read error, -9 for a refused file, or -22 for a null or invalid server.
 * On failure the server is left as it was. */
LOREG_EXPORT int lors_import(lors_ctx *server, const char *device, const char *file,
                             uint64_t last_commit_count);

/* The line parser's callback: one line of the file. Returns 0 or -9. */
LOREG_EXPORT int lors_imprt_lineHandler(char *line, uint32_t length, const char *lineend,
                                        uint32_t line_number, void *context);

/* Makes a node from the words of a KEY or DIR line. Returns 0, -9 or
 * -12. */
LOREG_EXPORT int lors_imprt_parseKeyLine(lors_rp_node **node, lors_import_ctx *context,
                                         int word_count, char **words);

#ifdef __cplusplus
}
#endif

#endif
