#include "loreg/lorkc.h"

#include <errno.h>
#include <stddef.h>
#include <string.h>

#include "common/loreg_debug.h"
#include "loreg/lnparse.h"

#define LORKC_LOG(level, ...) LOREG_LOG((level), LOREG_MOD_LORKC, __VA_ARGS__)

/* Bytes of a record in front of its path. */
#define LORKC_KEY_HEADER_SIZE LORKC_KEY_OFF_PATH

/* Records are aligned to 4 bytes and the buffer comes from the allocator,
 * but the words are still read and written by memcpy so that the buffer's
 * bytes may be copied around freely without type-punning concerns. */
static uint32_t _lorkc_get32(const uint8_t *p) {
  uint32_t value;
  memcpy(&value, p, sizeof(value));
  return value;
}

static void _lorkc_put32(uint8_t *p, uint32_t value) { memcpy(p, &value, sizeof(value)); }

static int _lorkc_check(const lorkc_container *container, const char *name) {
  if (container == NULL || container->magic != LORKC_MAGIC) {
    LORKC_LOG(LOREG_LVL_FAIL, "%s(%p) invalid container handle given.\n", name,
              (const void *)container);
    return -EINVAL;
  }
  return 0;
}

static int _lorkc_it_check(const lorkc_it *it, const char *name) {
  if (it == NULL) {
    LORKC_LOG(LOREG_LVL_FAIL, "%s() iterator pointer is NULL.\n", name);
    return -EINVAL;
  }
  return _lorkc_check(it->container, name);
}

/* Address of a byte offset in the buffer; null for a container without a
 * buffer, whose only offset is 0. */
static uint8_t *_lorkc_at(const lorkc_container *container, uint32_t offset) {
  return container->data != NULL ? container->data + offset : NULL;
}

/*
 * True if a record starts at offset. Besides the magic, the walk has to
 * stop at the end of the buffer: a buffer filled to its last byte has no
 * word behind its last record that could end the list.
 */
static int _lorkc_is_record(const lorkc_container *container, uint32_t offset) {
  if (container->data == NULL || container->size < LORKC_KEY_HEADER_SIZE) return 0;
  if (offset > container->size - LORKC_KEY_HEADER_SIZE) return 0;
  return _lorkc_get32(container->data + offset + LORKC_KEY_OFF_MAGIC) == LORKC_KEY_MAGIC;
}

/* Bytes of the record at rec, up to the start of the next one. */
static uint32_t _lorkc_record_size(const uint8_t *rec) {
  uint32_t value_offset = _lorkc_get32(rec + LORKC_KEY_OFF_VALUE_OFFSET);
  uint32_t value_len = _lorkc_get32(rec + LORKC_KEY_OFF_VALUE_LEN);
  return (value_offset + value_len + LORKC_ALIGN) & ~(LORKC_ALIGN - 1u);
}

/*
 * Walks the list from the start. With a path, it stops at the first record
 * with that path; else, with an index of 0 or more, at the record of that
 * index; else it runs to the end. Returns 1 if it stopped on a record, 0 at
 * the end; *offset and *index get the place and number where it stopped,
 * so at the end they are the bytes used and the number of records.
 */
static int _lorkc_walk(const lorkc_container *container, const char *path, int32_t want_index,
                       uint32_t *offset, int32_t *index) {
  uint32_t off = 0;
  int32_t idx = 0;
  int found = 0;
  while (_lorkc_is_record(container, off)) {
    const uint8_t *rec = container->data + off;
    if (path != NULL) {
      if (strcmp((const char *)(rec + LORKC_KEY_OFF_PATH), path) == 0) {
        found = 1;
        break;
      }
    } else if (want_index >= 0 && idx == want_index) {
      found = 1;
      break;
    }
    uint32_t size = _lorkc_record_size(rec);
    /* A record shorter than the smallest one or reaching past the buffer
     * can only be damage; end the list in front of it rather than loop or
     * read beyond the buffer. */
    if (size < LORKC_KEY_HEADER_SIZE + LORKC_ALIGN || size > container->size - off) break;
    off += size;
    idx++;
  }
  if (offset != NULL) *offset = off;
  if (index != NULL) *index = idx;
  return found;
}

static uint32_t _lorkc_used(const lorkc_container *container) {
  uint32_t used = 0;
  _lorkc_walk(container, NULL, -1, &used, NULL);
  return used;
}

uint32_t lorkc_predict_size(const lorc_key_struct *key) {
  if (key == NULL) return 0;
  uint32_t size = LORKC_KEY_HEADER_SIZE + 2u; /* header, path and value terminators */
  if (key->path != NULL) size += (uint32_t)strlen(key->path);
  if (key->value != NULL) size += key->value_len;
  return (size + LORKC_ALIGN - 1u) & ~(LORKC_ALIGN - 1u);
}

/*
 * Writes the record for key at offset. The value is copied before the
 * path, and both copies are overlap-safe, because the key may point into
 * the buffer itself (an iterator's view does), possibly where the record
 * now goes.
 */
static void _lorkc_build(lorkc_container *container, uint32_t offset, const lorc_key_struct *key) {
  const char *path = key->path != NULL ? key->path : "";
  uint32_t flags = key->flags;
  const void *value = key->value;
  uint32_t value_len = value != NULL ? key->value_len : 0;
  uint32_t path_len = (uint32_t)strlen(path);
  uint32_t value_offset = LORKC_KEY_HEADER_SIZE + path_len + 1u;

  uint8_t *rec = container->data + offset;
  _lorkc_put32(rec + LORKC_KEY_OFF_MAGIC, LORKC_KEY_MAGIC);
  _lorkc_put32(rec + LORKC_KEY_OFF_FLAGS, flags);
  _lorkc_put32(rec + LORKC_KEY_OFF_VALUE_OFFSET, value_offset);
  _lorkc_put32(rec + LORKC_KEY_OFF_VALUE_LEN, value_len);
  if (value_len > 0) lnparse_memcpy(rec + value_offset, value, value_len);
  rec[value_offset + value_len] = 0;
  lnparse_memcpy(rec + LORKC_KEY_OFF_PATH, path, path_len);
  rec[LORKC_KEY_OFF_PATH + path_len] = 0;
}

static int _lorkc_points_into(const void *p, const uint8_t *start, uint32_t len) {
  uintptr_t address = (uintptr_t)p;
  return p != NULL && address >= (uintptr_t)start && address - (uintptr_t)start < len;
}

/*
 * The one routine behind every change: replaces the size_old bytes of the
 * record at place by the record for key. Inserting is replacing 0 bytes,
 * removing is replacing by a null key. Everything behind the old record
 * (the tail) moves to the new record's end.
 */
static int lorkc_replace(const char *name, lorkc_container *container, uint32_t place,
                         uint32_t size_old, const lorc_key_struct *key) {
  uint32_t used = _lorkc_used(container);
  uint32_t size_new = lorkc_predict_size(key);
  uint32_t tail = place + size_old;
  uint32_t tail_len = used - tail;
  uint8_t *data = container->data;

  if (key == NULL) {
    if (size_old == 0) {
      LORKC_LOG(LOREG_LVL_WARN, "%s() strange: size_old=%u, size_new=%u - ignored\n", name,
                size_old, size_new);
      return 0;
    }
    lnparse_memcpy(data + place, data + tail, tail_len);
    memset(data + used - size_old, 0, size_old);
    LORKC_LOG(LOREG_LVL_DETAIL, "%s(%s) success, (usage shrinked by %u bytes)\n", name, "<deleted>",
              size_old);
    return 0;
  }

  if (size_new > size_old) {
    uint32_t grow = size_new - size_old;
    if (grow > container->size - used) {
      LORKC_LOG(LOREG_LVL_FAIL, "%s() not enough space to add %u bytes to existing key.\n", name,
                grow);
      return -ENOMEM;
    }
    lnparse_memcpy(data + tail + grow, data + tail, tail_len);
    /* The key may point into the tail that has just moved. */
    lorc_key_struct moved = *key;
    if (_lorkc_points_into(moved.path, data + tail, tail_len)) moved.path += grow;
    if (_lorkc_points_into(moved.value, data + tail, tail_len)) {
      moved.value = (const uint8_t *)moved.value + grow;
    }
    _lorkc_build(container, place, &moved);
    LORKC_LOG(LOREG_LVL_DETAIL, "%s(%s) success, (grown by %u to %u bytes usage)\n", name,
              (const char *)(data + place + LORKC_KEY_OFF_PATH), grow, used + grow);
    return 0;
  }

  if (size_new == size_old) {
    _lorkc_build(container, place, key);
    LORKC_LOG(LOREG_LVL_DETAIL, "%s(%s) success, (usage level maintained)\n", name,
              (const char *)(data + place + LORKC_KEY_OFF_PATH));
    return 0;
  }

  /*
   * Shrinking. The smaller record is built before the tail moves: the new
   * record lies inside the old one, so building first leaves the tail
   * alone, while moving first would overwrite the old record's last bytes,
   * from which the key may still copy (an iterator's own value under a
   * shorter path). Sources in the tail stay where they are until built.
   */
  uint32_t shrink = size_old - size_new;
  _lorkc_build(container, place, key);
  lnparse_memcpy(data + place + size_new, data + tail, tail_len);
  memset(data + used - shrink, 0, shrink);
  LORKC_LOG(LOREG_LVL_DETAIL, "%s(%s) success, (usage shrinked by %u bytes)\n", name,
            (const char *)(data + place + LORKC_KEY_OFF_PATH), shrink);
  return 0;
}

lorkc_container *lorkc_create(uint32_t size, const loreg_allocator *allocator) {
  lorkc_container *container = loreg_malloc(allocator, sizeof(*container));
  if (container == NULL) {
    LORKC_LOG(LOREG_LVL_FAIL, "%s() failed to alloc %lu bytes containter struct\n", __func__,
              (unsigned long)sizeof(*container));
    return NULL;
  }
  container->magic = 0;
  container->allocator = allocator;
  container->data = NULL;
  container->size = size;
  if (size > 0) {
    container->data = loreg_malloc(allocator, size);
    if (container->data == NULL) {
      LORKC_LOG(LOREG_LVL_FAIL, "%s() failed to alloc %u bytes initial data buffer\n", __func__,
                size);
      loreg_free(allocator, container);
      return NULL;
    }
    memset(container->data, 0, size);
  }
  container->magic = LORKC_MAGIC;
  LORKC_LOG(LOREG_LVL_DETAIL, "%s(0x%08x) success, size=%d, align=%d\n", __func__,
            (unsigned)(uintptr_t)container, (int)size, (int)LORKC_ALIGN);
  return container;
}

int lorkc_destroy(lorkc_container *container) {
  int rc = _lorkc_check(container, __func__);
  if (rc < 0) return rc;
  container->magic = 0;
  if (container->data != NULL) {
    memset(container->data, 0, container->size);
    loreg_free(container->allocator, container->data);
    container->data = NULL;
  }
  loreg_free(container->allocator, container);
  return 0;
}

int lorkc_reset(lorkc_container *container) {
  int rc = _lorkc_check(container, __func__);
  if (rc < 0) return rc;
  if (container->data != NULL) memset(container->data, 0, container->size);
  return 0;
}

int lorkc_stat(lorkc_container *container, lorkc_stat_info *stat) {
  if (stat != NULL) memset(stat, 0, sizeof(*stat));
  int rc = _lorkc_check(container, __func__);
  if (rc < 0) return rc;
  if (stat == NULL) {
    LORKC_LOG(LOREG_LVL_FAIL, "%s(stat=NULL) can't write to NULL pointer.\n", __func__);
    return -EINVAL;
  }
  uint32_t used = 0;
  int32_t count = 0;
  _lorkc_walk(container, NULL, -1, &used, &count);
  stat->allocator = container->allocator;
  stat->size = container->size;
  stat->used = used;
  stat->count = (uint32_t)count;
  return 0;
}

static int _lorkc_check_key(const lorc_key_struct *key, const char *name) {
  if (key == NULL) {
    LORKC_LOG(LOREG_LVL_FAIL, "%s() key pointer is NULL.\n", name);
    return -EINVAL;
  }
  return 0;
}

static const char *_lorkc_path_or_empty(const char *path) { return path != NULL ? path : ""; }

int lorkc_insert(lorkc_container *container, const lorc_key_struct *key) {
  int rc = _lorkc_check(container, __func__);
  if (rc < 0) return rc;
  rc = _lorkc_check_key(key, __func__);
  if (rc < 0) return rc;
  uint32_t place = 0;
  if (_lorkc_walk(container, _lorkc_path_or_empty(key->path), -1, &place, NULL)) {
    return lorkc_replace(__func__, container, place, _lorkc_record_size(container->data + place),
                         key);
  }
  return lorkc_replace(__func__, container, place, 0, key);
}

int lorkc_modify(lorkc_container *container, const lorc_key_struct *key) {
  int rc = _lorkc_check(container, __func__);
  if (rc < 0) return rc;
  rc = _lorkc_check_key(key, __func__);
  if (rc < 0) return rc;
  const char *path = _lorkc_path_or_empty(key->path);
  uint32_t place = 0;
  if (!_lorkc_walk(container, path, -1, &place, NULL)) {
    LORKC_LOG(LOREG_LVL_FAIL, "%s() path '%s' not found in container.\n", __func__, path);
    return -ENOENT;
  }
  return lorkc_replace(__func__, container, place, _lorkc_record_size(container->data + place),
                       key);
}

int lorkc_remove(lorkc_container *container, const char *path) {
  int rc = _lorkc_check(container, __func__);
  if (rc < 0) return rc;
  path = _lorkc_path_or_empty(path);
  uint32_t place = 0;
  if (!_lorkc_walk(container, path, -1, &place, NULL)) {
    LORKC_LOG(LOREG_LVL_FAIL, "%s() path '%s' not found in container.\n", __func__, path);
    return -ENOENT;
  }
  return lorkc_replace(__func__, container, place, _lorkc_record_size(container->data + place),
                       NULL);
}

/* ---- iterators ---- */

static void _lorkc_it_clear_view(lorkc_it *it) { memset(&it->key, 0, sizeof(it->key)); }

/* Places it at offset with this index and shows the record there, or a
 * cleared view if the list ends there. Returns 1 on a record, else 0. */
static int _lorkc_it_place(lorkc_it *it, uint32_t offset, int32_t index) {
  lorkc_container *container = it->container;
  it->index = index;
  it->position = _lorkc_at(container, offset);
  if (!_lorkc_is_record(container, offset)) {
    _lorkc_it_clear_view(it);
    return 0;
  }
  const uint8_t *rec = it->position;
  it->key.path = (const char *)(rec + LORKC_KEY_OFF_PATH);
  it->key.flags = _lorkc_get32(rec + LORKC_KEY_OFF_FLAGS);
  it->key.value = rec + _lorkc_get32(rec + LORKC_KEY_OFF_VALUE_OFFSET);
  it->key.value_len = _lorkc_get32(rec + LORKC_KEY_OFF_VALUE_LEN);
  return 1;
}

/* The iterator's position as an offset into its container's buffer.
 * Returns 1 if it stands on a record there, else 0. */
static int _lorkc_it_offset(const lorkc_it *it, uint32_t *offset) {
  const lorkc_container *container = it->container;
  if (it->position == NULL || container->data == NULL) return 0;
  uintptr_t position = (uintptr_t)it->position;
  uintptr_t start = (uintptr_t)container->data;
  if (position < start || position - start >= container->size) return 0;
  uint32_t off = (uint32_t)(position - start);
  if (off % LORKC_ALIGN != 0) return 0;
  *offset = off;
  return _lorkc_is_record(container, off);
}

static const char *_lorkc_it_path_or_end(const lorkc_it *it) {
  return it->key.path != NULL ? it->key.path : "<end>";
}

int lorkc_it_first(lorkc_container *container, lorkc_it *it) {
  if (it == NULL) {
    LORKC_LOG(LOREG_LVL_FAIL, "%s() iterator pointer is NULL.\n", __func__);
    return -EINVAL;
  }
  int rc = _lorkc_check(container, __func__);
  if (rc < 0) return rc;
  it->container = container;
  int found = _lorkc_it_place(it, 0, 0);
  LORKC_LOG(LOREG_LVL_TRACE, "%s() success, (%s)\n", __func__, _lorkc_it_path_or_end(it));
  return found;
}

int lorkc_it_next(lorkc_it *it) {
  int rc = _lorkc_it_check(it, __func__);
  if (rc < 0) return rc;
  uint32_t offset = 0;
  if (!_lorkc_it_offset(it, &offset)) {
    /* Already at the end: nothing moves. */
    _lorkc_it_clear_view(it);
    return 0;
  }
  uint32_t next = offset + _lorkc_record_size(it->position);
  int found = _lorkc_it_place(it, next, it->index + 1);
  LORKC_LOG(LOREG_LVL_TRACE, "%s() success, idx=%d (%s)\n", __func__, (int)it->index,
            _lorkc_it_path_or_end(it));
  return found;
}

int lorkc_it_findidx(lorkc_container *container, lorkc_it *it, int32_t index) {
  if (it == NULL) {
    LORKC_LOG(LOREG_LVL_FAIL, "%s() iterator pointer is NULL.\n", __func__);
    return -EINVAL;
  }
  int rc = _lorkc_check(container, __func__);
  if (rc < 0) return rc;
  it->container = container;
  uint32_t offset = 0;
  int32_t at = 0;
  _lorkc_walk(container, NULL, index > 0 ? index : 0, &offset, &at);
  int found = _lorkc_it_place(it, offset, at);
  LORKC_LOG(LOREG_LVL_TRACE, "%s( index %d ): %sfound\n", __func__, (int)index,
            found ? "" : "not ");
  return found;
}

int lorkc_it_find(lorkc_container *container, lorkc_it *it, const char *path) {
  if (it == NULL) {
    LORKC_LOG(LOREG_LVL_FAIL, "%s() iterator pointer is NULL.\n", __func__);
    return -EINVAL;
  }
  int rc = _lorkc_check(container, __func__);
  if (rc < 0) return rc;
  it->container = container;
  path = _lorkc_path_or_empty(path);
  uint32_t offset = 0;
  int32_t at = 0;
  _lorkc_walk(container, path, -1, &offset, &at);
  int found = _lorkc_it_place(it, offset, at);
  LORKC_LOG(LOREG_LVL_TRACE, "%s(%s): %s index %d\n", __func__, path,
            found ? "found at" : "not found up to", (int)at);
  return found;
}

int lorkc_it_valid(const lorkc_it *it) {
  if (_lorkc_it_check(it, __func__) < 0) return 0;
  uint32_t offset = 0;
  return _lorkc_it_offset(it, &offset);
}

/* Checks an iterator that has to stand on a key; gives its offset. */
static int _lorkc_it_check_on_key(const lorkc_it *it, const char *name, uint32_t *offset) {
  int rc = _lorkc_it_check(it, name);
  if (rc < 0) return rc;
  if (!_lorkc_it_offset(it, offset)) {
    LORKC_LOG(LOREG_LVL_FAIL, "%s() iterator does not reference a key.\n", name);
    return -ENOENT;
  }
  return 0;
}

int lorkc_it_chflags(lorkc_it *it, uint32_t flags) {
  uint32_t offset = 0;
  int rc = _lorkc_it_check_on_key(it, __func__, &offset);
  if (rc < 0) return rc;
  uint8_t *rec = it->position;
  uint32_t old = _lorkc_get32(rec + LORKC_KEY_OFF_FLAGS);
  _lorkc_put32(rec + LORKC_KEY_OFF_FLAGS, flags);
  LORKC_LOG(LOREG_LVL_TRACE, "%s() success, (old:0x%08x, new:0x%08x)\n", __func__, old, flags);
  return 0;
}

int lorkc_it_modify(lorkc_it *it, const lorc_key_struct *key) {
  uint32_t offset = 0;
  int rc = _lorkc_it_check_on_key(it, __func__, &offset);
  if (rc < 0) return rc;
  rc = _lorkc_check_key(key, __func__);
  if (rc < 0) return rc;
  rc = lorkc_replace(__func__, it->container, offset, _lorkc_record_size(it->position), key);
  if (rc < 0) return rc;
  _lorkc_it_place(it, offset, it->index);
  return 0;
}

int lorkc_it_remove(lorkc_it *it) {
  uint32_t offset = 0;
  int rc = _lorkc_it_check_on_key(it, __func__, &offset);
  if (rc < 0) return rc;
  rc = lorkc_replace(__func__, it->container, offset, _lorkc_record_size(it->position), NULL);
  if (rc < 0) return rc;
  _lorkc_it_place(it, offset, it->index);
  return 0;
}

int lorkc_it_insert(lorkc_it *it, const lorc_key_struct *key) {
  int rc = _lorkc_it_check(it, __func__);
  if (rc < 0) return rc;
  rc = _lorkc_check_key(key, __func__);
  if (rc < 0) return rc;
  uint32_t offset = 0;
  int32_t index = it->index;
  if (!_lorkc_it_offset(it, &offset)) {
    /* No position: append, and count the records to know the new index. */
    _lorkc_walk(it->container, NULL, -1, &offset, &index);
  }
  rc = lorkc_replace(__func__, it->container, offset, 0, key);
  if (rc < 0) return rc;
  _lorkc_it_place(it, offset, index);
  return 0;
}
