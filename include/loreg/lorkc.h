/*
 * lorkc: a list of keys (path, flags, value) packed one behind the other
 * in a single buffer of fixed size.
 *
 * The container owns its record and buffer, both taken from the allocator
 * given at creation; the buffer never grows, and an operation that would
 * overflow it fails with -12 (ENOMEM) and changes nothing. Records are
 * contiguous, so changing a record's size moves all records behind it.
 * Keys are found by a linear walk; there is no stored count.
 *
 * Errors come back as negative errno values: -22 (EINVAL) for a null or
 * destroyed container handle, a null iterator or another null argument,
 * -2 (ENOENT) for an unknown path or an iterator that stands on no key,
 * -12 (ENOMEM) when the buffer is full. Misuse is also logged.
 *
 * Iterators are owned by the caller and hold pointers into the buffer: the
 * view of the current key (it->key) points at the record's own bytes, and
 * any change of the container other than through that iterator makes view
 * and position stale. Input keys are only read; their path and value may
 * point anywhere, also into the container's own buffer (such as another
 * iterator's view).
 *
 * A container has no lock: it belongs to its owner's locking, and one
 * thread at a time may use it and its iterators.
 */
#ifndef LOREG_LORKC_H
#define LOREG_LORKC_H

#include <stdint.h>

#include "loreg/loreg_alloc.h"
#include "loreg/loreg_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The bytes "LOKC" in memory while alive, 0 after destruction. */
#define LORKC_MAGIC 0x434B4F4Cu

/*
 * Layout of one key record in the buffer, at an offset that is a multiple
 * of LORKC_ALIGN:
 *
 *   0   magic, the bytes "KEYH"
 *   4   flags, stored for the user
 *   8   value offset from the record's start: 17 plus the path's length
 *   12  value length, not counting the terminating zero
 *   16  path, zero-terminated
 *   value offset: value bytes, then a zero byte
 *
 * The next record starts at (record + value offset + value length + 4)
 * with the low two bits cleared. The list ends at the first word that is
 * not the magic, or at the end of the buffer; free bytes are kept zero.
 */
#define LORKC_KEY_MAGIC 0x4859454Bu
#define LORKC_KEY_OFF_MAGIC 0u
#define LORKC_KEY_OFF_FLAGS 4u
#define LORKC_KEY_OFF_VALUE_OFFSET 8u
#define LORKC_KEY_OFF_VALUE_LEN 12u
#define LORKC_KEY_OFF_PATH 16u
#define LORKC_ALIGN 4u

/* A key as callers see it. */
typedef struct lorc_key_struct {
  const char *path;   /* zero-terminated; null is stored as an empty path */
  uint32_t flags;     /* free for the user */
  const void *value;  /* value_len bytes; null means an empty value */
  uint32_t value_len; /* bytes at value, ignored when value is null */
} lorc_key_struct;

/* The container record. */
typedef struct lorkc_container {
  uint32_t magic;                   /* LORKC_MAGIC while alive */
  const loreg_allocator *allocator; /* for the record and the buffer */
  uint8_t *data;                    /* the buffer, null if created with size 0 */
  uint32_t size;                    /* bytes in data, fixed at creation */
} lorkc_container;

/* An iterator, owned by the caller. */
typedef struct lorkc_it {
  lorc_key_struct key;        /* view of the current key, pointing into the buffer; all
                                 zero when the iterator stands on no key */
  int32_t index;              /* position counted from 0 */
  lorkc_container *container; /* the container walked */
  uint8_t *position;          /* the current record, or where the list ends */
} lorkc_it;

/* Result of lorkc_stat. */
typedef struct lorkc_stat_info {
  const loreg_allocator *allocator;
  uint32_t size;  /* buffer size */
  uint32_t used;  /* bytes taken by records */
  uint32_t count; /* records */
} lorkc_stat_info;

/*
 * Creates a container with a zeroed buffer of size bytes (none for size
 * 0, in which case every insertion fails with -12). allocator may be null
 * or LOREG_ALLOCATOR_DEFAULT for malloc/free. Returns the container, to be
 * freed by lorkc_destroy, or null when an allocation failed.
 */
LOREG_EXPORT lorkc_container *lorkc_create(uint32_t size, const loreg_allocator *allocator);

/* Invalidates the handle, zeroes and frees the buffer and frees the record.
 * Returns 0, or -22 for an invalid handle. */
LOREG_EXPORT int lorkc_destroy(lorkc_container *container);

/* Removes all keys by zeroing the buffer. Returns 0, or -22 for an invalid
 * handle. */
LOREG_EXPORT int lorkc_reset(lorkc_container *container);

/* Fills *stat with allocator, size, used bytes and key count; a non-null
 * stat is zeroed first. Returns 0, or -22 for an invalid handle or a null
 * stat. */
LOREG_EXPORT int lorkc_stat(lorkc_container *container, lorkc_stat_info *stat);

/* Returns the bytes a record for key takes in the buffer (a multiple of 4;
 * the sum over all keys is enough for a container), 0 for a null key. */
LOREG_EXPORT uint32_t lorkc_predict_size(const lorc_key_struct *key);

/* Stores key: the record with the same path is replaced in place, or else
 * the key is appended. Returns 0, -12 when it does not fit (nothing
 * changed), -22 for an invalid handle or a null key. */
LOREG_EXPORT int lorkc_insert(lorkc_container *container, const lorc_key_struct *key);

/* Replaces the record with key's path. Returns 0, -2 if the path is not
 * there, -12 when it does not fit (nothing changed), -22 as above. */
LOREG_EXPORT int lorkc_modify(lorkc_container *container, const lorc_key_struct *key);

/* Removes the record with this path (null means the empty path). Returns
 * 0, -2 if it is not there, -22 for an invalid handle. */
LOREG_EXPORT int lorkc_remove(lorkc_container *container, const char *path);

/* Sets it on the first key, with index 0. Returns 1 if there is one, 0 for
 * an empty list (view cleared), -22 for a null it or an invalid handle. */
LOREG_EXPORT int lorkc_it_first(lorkc_container *container, lorkc_it *it);

/* Steps to the next key and adds 1 to index. Returns 1 on a key, 0 at the
 * end of the list (view cleared; once there, further calls change
 * nothing), -22 for a null it or an invalid container. */
LOREG_EXPORT int lorkc_it_next(lorkc_it *it);

/* Sets it on the key with this index (0 or less: the first). Returns 1 if
 * found, 0 if not (view cleared, position at the end of the list), -22 as
 * above. */
LOREG_EXPORT int lorkc_it_findidx(lorkc_container *container, lorkc_it *it, int32_t index);

/* Sets it on the first key whose path equals path (null means the empty
 * path). Returns 1 if found, 0 if not (view cleared, position at the end of
 * the list), -22 as above. */
LOREG_EXPORT int lorkc_it_find(lorkc_container *container, lorkc_it *it, const char *path);

/* Returns 1 if it stands on a key, 0 otherwise, also for a null it or an
 * invalid container. */
LOREG_EXPORT int lorkc_it_valid(const lorkc_it *it);

/* Stores new flags in the current key; the view keeps the old flags until
 * the iterator moves. Returns 0, -2 if it stands on no key, -22 as above. */
LOREG_EXPORT int lorkc_it_chflags(lorkc_it *it, uint32_t flags);

/* Replaces the current key by key; it stays on it and its view is
 * refreshed. Returns 0, -2 if it stands on no key, -12 when the key does
 * not fit (nothing changed), -22 as above or for a null key. */
LOREG_EXPORT int lorkc_it_modify(lorkc_it *it, const lorc_key_struct *key);

/* Removes the current key; it then stands on the key that followed, with
 * the same index, or at the end of the list (view cleared). Returns 0, -2
 * if it stands on no key, -22 as above. */
LOREG_EXPORT int lorkc_it_remove(lorkc_it *it);

/* Inserts key in front of the current key, or at the end of the list if it
 * stands on no key, and sets it on the new key. The path is not checked, so
 * two keys may share a path. Returns 0, -12 when the key does not fit
 * (nothing changed), -22 as above or for a null key. */
LOREG_EXPORT int lorkc_it_insert(lorkc_it *it, const lorc_key_struct *key);

#ifdef __cplusplus
}
#endif

#endif
