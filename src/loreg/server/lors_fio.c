#include "loreg/lors_fio.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "common/loreg_debug.h"

const lors_fio g_lors_default_fio = {
    NULL,
    "/tmp/loreg0.dat",
    "/tmp/loreg1.dat",
    lors_fio_open,
    lors_fio_close,
    lors_fio_read,
    lors_fio_write,
};

/* The check of every entry that takes a handle. func names the caller in
 * the message. */
static lors_fio_handle *_lors_fio_check(void *handle, const char *func) {
  lors_fio_handle *h = handle;
  if (h == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER, "%s() no handle given (NULL)\n", func);
    return NULL;
  }
  if (h->magic != LORS_FIO_MAGIC) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER, "%s() invalid handle given. (closed already?)\n", func);
    return NULL;
  }
  return h;
}

void *lors_fio_open(const char *device, const char *file, uint32_t mode) {
  (void)device;
  if (file == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER, "%s() no filename given\n", __func__);
    return NULL;
  }
  size_t name_size = strlen(file) + 1;
  size_t size = sizeof(lors_fio_handle) + name_size;
  lors_fio_handle *h = calloc(1, size);
  if (h == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER, "%s('%s', 0x%02x) failed allocating %u bytes handle.\n",
              __func__, file, (unsigned)mode, (unsigned)size);
    return NULL;
  }
  h->name = (char *)(h + 1);
  memcpy(h->name, file, name_size);
  h->mode = mode;

  int flags = O_RDONLY;
  mode_t perms = 0;
  if (mode & LORS_FIO_MODE_WRITE) {
    flags = O_WRONLY | O_CREAT | O_TRUNC;
    perms = 0666;
  }
  h->fd = open(file, flags, perms);
  if (h->fd < 0) {
    int err = errno;
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER, "%s() open('%s', 0x%02x) failed. errno=%d\n", __func__,
              file, (unsigned)flags, err);
    free(h);
    errno = err;
    return NULL;
  }
  h->magic = LORS_FIO_MAGIC;
  return h;
}

int32_t lors_fio_read(void *handle, void *buffer, uint32_t size) {
  lors_fio_handle *h = _lors_fio_check(handle, __func__);
  if (h == NULL) return -22;
  ssize_t n = read(h->fd, buffer, size);
  if (n < 0) {
    int err = errno;
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER, "%s(%s) read( %d byte(s) ) failed. errno=%d\n", __func__,
              h->name, (int)size, err);
    return -err;
  }
  return (int32_t)n;
}

int32_t lors_fio_write(void *handle, const void *buffer, uint32_t size) {
  lors_fio_handle *h = _lors_fio_check(handle, __func__);
  if (h == NULL) return -22;
  ssize_t n = write(h->fd, buffer, size);
  if (n < 0) {
    int err = errno;
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER, "%s(%s) write( %d byte(s) ) failed. errno=%d\n", __func__,
              h->name, (int)size, err);
    return -err;
  }
  h->written += (uint32_t)n;
  return (int32_t)n;
}

int32_t lors_fio_close(void *handle) {
  lors_fio_handle *h = _lors_fio_check(handle, __func__);
  if (h == NULL) return -22;

  /* Only written files need to reach the disk; this is the one place where
   * an export waits for that. */
  if (h->mode & LORS_FIO_MODE_WRITE) {
    LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_SERVER, "%s() %u bytes wriiten, syncing %s\n", __func__,
              (unsigned)h->written, h->name);
    if (fsync(h->fd) != 0) {
      int err = errno;
      LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER, "%s(%s) fsync() failed with errno=%d (ignored)\n",
                __func__, h->name, err);
    }
  }
  if (close(h->fd) != 0) {
    int err = errno;
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER, "%s(%s) close() failed with errno=%d (ignored)\n",
              __func__, h->name, err);
  }
  /* Wiped so that a second close of this handle is likely to be caught
   * while the block hasn't been reused. */
  h->magic = 0;
  free(h);
  return 0;
}
