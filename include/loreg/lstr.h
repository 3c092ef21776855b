/*
 * lstr: the length-counted string in which key names and values travel.
 *
 * An lstr points at bytes it does not own; it may hold any bytes, zero
 * bytes included, and needs no terminating zero. Whoever fills ptr with a
 * writable buffer sizes it: no operation here checks a capacity, reports
 * an error or allocates. Pointers must be valid unless stated otherwise.
 */
#ifndef LOREG_LSTR_H
#define LOREG_LSTR_H

#include <stdint.h>

#include "loreg/loreg_export.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct lstr {
  char *ptr;    /* first byte; not owned */
  uint32_t len; /* bytes, terminator not counted */
} lstr;

/* Points l at text (not null) with its strlen as length; returns it. */
LOREG_EXPORT uint32_t lstr_init(lstr *l, char *text);

/* The same for a constant text; the bytes must then not be written. */
LOREG_EXPORT uint32_t lstr_cinit(lstr *l, const char *text);

/* Stores a zero byte at ptr[len] (the buffer must have room) and returns
 * ptr. */
LOREG_EXPORT char *lstr_zterm(lstr *l);

/* Copies src's bytes to dst->ptr and sets dst->len; a null src sets the
 * length to 0. dst->ptr is unchanged; no terminator is written. */
LOREG_EXPORT void lstr_cpy(lstr *dst, const lstr *src);

/* Appends src's bytes at dst->ptr + dst->len. A null src changes nothing. */
LOREG_EXPORT void lstr_append(lstr *dst, const lstr *src);

/*
 * Compares at most n bytes. With m the smaller length: when m < n, m bytes
 * are compared and a full match gives -1 if a is shorter, 1 if b is
 * shorter, 0 if equal; otherwise n bytes are compared and a full match
 * gives 0. The first differing pair gives byte of a minus byte of b, as
 * unsigned bytes. Only the sign carries meaning.
 */
LOREG_EXPORT int lstr_ncmp(const lstr *a, const lstr *b, uint32_t n);

/* lstr_ncmp with n the largest unsigned value. */
LOREG_EXPORT int lstr_cmp(const lstr *a, const lstr *b);

/* Pointer to the first byte equal to c (compared as a 32-bit value with
 * the zero-extended byte, so c > 255 is never found), else NULL. A null or
 * empty l gives NULL. */
LOREG_EXPORT char *lstr_chr(const lstr *l, uint32_t c);

/* Walks the len bytes in front of ptr, from ptr - 1 down to ptr - len, and
 * returns the first byte equal to c, else NULL. A null or empty l gives
 * NULL. The walk covers the bytes before the string, not the string. */
LOREG_EXPORT char *lstr_rchr(const lstr *l, uint32_t c);

#ifdef __cplusplus
}
#endif

#endif
