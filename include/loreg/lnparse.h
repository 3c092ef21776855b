/*
 * lnparse: cuts a byte stream into lines and lines into words, with one
 * fixed buffer, however long the stream.
 *
 * The caller owns the context and the scratch buffer; the parser allocates
 * nothing. The intended way of reading is to read the next input directly
 * into the scratch buffer at read_ptr, at most read_free bytes, and to pass
 * that same place to lnparse_data: lines that end inside a block are then
 * cut in place and never copied, and only the unfinished tail of a block
 * stays behind, with the next read landing right behind it. Any other
 * writable buffer may be passed as well; its finished lines are cut in
 * place in it (a zero byte overwrites each line end), and its tail is
 * copied into the scratch buffer.
 *
 * Each finished line goes to the callback, zero-terminated and without its
 * line end, with the marker of the line end that closed it: one of the
 * LINEEND_* pointers below, which the callback may compare by address.
 * An LF or CR is only classified by the byte that follows it (LF CR and
 * CR LF are single line ends), so a line whose end is the last byte of a
 * block is handed over with the next block or at end of input, unless the
 * LNPARSE_LF_ENDS / LNPARSE_CR_ENDS options end lines at once.
 *
 * A line that does not fit into the scratch buffer (its bytes plus a
 * terminating zero) is dropped and counted; the parser prints a message to
 * standard output and goes on with the next line. That is not an error to
 * the caller.
 *
 * Errors come back as negative errno values: -22 (EINVAL) for a null
 * context or bad arguments. A context belongs to one thread; the word
 * functions and lnparse_memcpy have no state and may be called from any
 * thread.
 */
#ifndef LOREG_LNPARSE_H
#define LOREG_LNPARSE_H

#include <stddef.h>
#include <stdint.h>

#include "loreg/loreg_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Options of lnparse_init. */
#define LNPARSE_SKIP_LEADING 1u /* bytes up to 32 at a line's start are not handed over */
#define LNPARSE_SKIP_EMPTY 2u   /* a line with no bytes left is not handed over */
#define LNPARSE_LF_ENDS 4u      /* LF ends a line at once, the next byte is not looked at */
#define LNPARSE_CR_ENDS 8u      /* CR ends a line at once, the next byte is not looked at */

/* Chunk states, in the low four bits of state. */
#define LNPARSE_STATE_IDLE 1u     /* no unfinished line */
#define LNPARSE_STATE_PENDING 2u  /* an unfinished line lies in scratch */
#define LNPARSE_STATE_OVERFLOW 3u /* the current line overflowed; dropped up to its end */
#define LNPARSE_STATE_MASK 15u
/* Line-end look-ahead bits of state: an LF (CR) was passed and the next
 * byte decides its kind. */
#define LNPARSE_AHEAD_LF 16u
#define LNPARSE_AHEAD_CR 32u

/* Line-end markers: "" (input ended without a line end), LF, CR, LF CR,
 * CR LF. */
LOREG_EXPORT extern const char *const LINEEND_NONE;
LOREG_EXPORT extern const char *const LINEEND_UNIX;
LOREG_EXPORT extern const char *const LINEEND_MAC;
LOREG_EXPORT extern const char *const LINEEND_REVDOS;
LOREG_EXPORT extern const char *const LINEEND_DOS;

/*
 * Receives one finished line: line is writable and zero-terminated, length
 * bytes long without the line end, lineend one of the LINEEND_* markers,
 * line_number counted from 1 (skipped and dropped lines are counted too),
 * user as given to lnparse_init. The text is valid only during the call.
 * A non-zero result stops the parsing and is returned by lnparse_data.
 */
typedef int (*lnparse_line_cb)(char *line, uint32_t length, const char *lineend,
                               uint32_t line_number, void *user);

/* Parser context, filled by lnparse_init. */
typedef struct lnparse_ctx {
  lnparse_line_cb line_cb;
  char *scratch;         /* caller's buffer; holds an unfinished line between calls */
  uint32_t scratch_size; /* bytes in scratch */
  uint32_t flags;        /* LNPARSE_* options */
  void *user;            /* handed to line_cb unchanged */
  char *read_ptr;        /* where the next input is to go, behind the unfinished line */
  uint32_t read_free;    /* bytes that fit at read_ptr */
  uint32_t pending;      /* bytes of the unfinished line in scratch */
  uint32_t state;        /* chunk state and look-ahead bits */
  uint32_t line_no;      /* lines finished so far, skipped and dropped ones included */
} lnparse_ctx;

/*
 * Prepares ctx to parse with the given callback, scratch buffer (owned by
 * the caller, to outlive the parsing), options and user pointer. Returns 0,
 * or -22 if ctx, line_cb or scratch is null or scratch_size is 0.
 */
LOREG_EXPORT int lnparse_init(lnparse_ctx *ctx, lnparse_line_cb line_cb, char *scratch,
                              uint32_t scratch_size, uint32_t flags, void *user);

/*
 * Feeds len bytes at data, which must be writable. A null data or a len of
 * 0 means end of input: the held-back line, if any, is handed over and the
 * context is ready for a new stream. Returns 0, -22 for a null ctx, or the
 * first non-zero result of the callback; in that case the rest of the block
 * is not looked at and read_ptr/read_free are not refreshed.
 */
LOREG_EXPORT int lnparse_data(lnparse_ctx *ctx, char *data, uint32_t len);

/* Returns 1 if an unfinished line lies in scratch, 0 if not, -22 for a
 * null ctx. */
LOREG_EXPORT int lnparse_has_data_pending(const lnparse_ctx *ctx);

/* Returns the number of words in a zero-terminated text, a word being a
 * longest run of bytes above 32 (as unsigned bytes); -22 for a null text. */
LOREG_EXPORT int lnparse_arg_count(const char *text);

/*
 * Cuts a zero-terminated text into words in place. The first max words are
 * stored in argv and each is terminated by overwriting the first byte of
 * 32 or below behind it with zero; further words are counted only, so the
 * max-th word is cut and the rest of the text stays joined. Returns the
 * number of all words, which may exceed max; -22 for a null text, or a null
 * argv with max above 0.
 */
LOREG_EXPORT int lnparse_arg_separate(char *text, char **argv, int max);

/* Copies n bytes from src to dst, correctly also when the two overlap in
 * either direction (nothing happens when they are equal). Returns dst. */
LOREG_EXPORT void *lnparse_memcpy(void *dst, const void *src, size_t n);

#ifdef __cplusplus
}
#endif

#endif
