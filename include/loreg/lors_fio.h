/*
 * lors_fio: the file i/o table through which the repository server reads
 * and writes its files, and its default backend on POSIX files.
 *
 * Export and import never touch the file system themselves: they call the
 * four functions of a lors_fio table, so that a host can keep the
 * repository elsewhere. g_lors_default_fio holds the defaults.
 *
 * Conventions of the default backend
 * - A handle is one block from calloc (not from a loreg allocator), made by
 *   lors_fio_open and freed by lors_fio_close, which must be called exactly
 *   once for every handle that open returned.
 * - Mode of open: bit 2 set opens for writing (created, truncated at once,
 *   permission bits 0666 less the umask); otherwise for reading.
 * - Errors: open returns NULL and logs (errno tells the cause); read and
 *   write return minus errno of the failed call; a NULL handle, or one
 *   whose magic is wrong, gives -22 (logged) in read, write and close.
 *   close always returns 0 for a valid handle: a failing fsync or close is
 *   logged and ignored, since the checksum at the next import is the real
 *   check of a written file.
 * - Every written file is synchronised (fsync) at its close and only there;
 *   files opened for reading are never synchronised.
 * - Threads: no state beyond the handle; a handle belongs to one thread.
 */
#ifndef LOREG_LORS_FIO_H
#define LOREG_LORS_FIO_H

#include <stdint.h>

#include "loreg/loreg_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Modes of open. Bit 2 alone decides. */
#define LORS_FIO_MODE_READ 1u
#define LORS_FIO_MODE_WRITE 2u

/* Magic of a live default handle. */
#define LORS_FIO_MAGIC 0x743591A5u

/* Opens file on device (which the default backend ignores) in mode.
 * Returns a handle, or NULL on failure. */
typedef void *(*lors_fio_open_fn)(const char *device, const char *file, uint32_t mode);
/* Ends a handle. Returns 0 on success. */
typedef int32_t (*lors_fio_close_fn)(void *handle);
/* Reads at most size bytes. Returns the bytes read, 0 at the end of the
 * file, or a negative error. */
typedef int32_t (*lors_fio_read_fn)(void *handle, void *buffer, uint32_t size);
/* Writes at most size bytes. Returns the bytes written, which may be fewer
 * than size, or a negative error. */
typedef int32_t (*lors_fio_write_fn)(void *handle, const void *buffer, uint32_t size);

/* The file i/o table. */
typedef struct lors_fio {
  const char *device;      /* handed to open, shown in messages; may be NULL */
  const char *file0;       /* first repository file */
  const char *file1;       /* second repository file */
  lors_fio_open_fn open;
  lors_fio_close_fn close;
  lors_fio_read_fn read;
  lors_fio_write_fn write;
} lors_fio;

/* Handle of the default backend: one block, with the name's bytes behind
 * the record. */
typedef struct lors_fio_handle {
  uint32_t magic;    /* LORS_FIO_MAGIC once the file is open */
  int32_t fd;        /* the file descriptor */
  uint32_t mode;     /* as given to open */
  uint32_t written;  /* bytes written so far */
  char *name;        /* the file name, stored behind this record */
} lors_fio_handle;

/* The defaults: no device, "/tmp/loreg0.dat" and "/tmp/loreg1.dat", and
 * the four functions below. */
LOREG_EXPORT extern const lors_fio g_lors_default_fio;

/*
 * Opens file (device is ignored) for writing if mode has bit 2, else for
 * reading. Returns a new handle, which the caller ends with lors_fio_close,
 * or NULL: for a NULL file, when memory fails, or when open fails (each
 * logged once; errno holds the cause of a failed open).
 */
LOREG_EXPORT void *lors_fio_open(const char *device, const char *file, uint32_t mode);

/*
 * Reads at most size (below 2^31) bytes into buffer. Returns the bytes
 * read, 0 at the end of the file, minus errno of a failed read (logged),
 * or -22 for an invalid handle (logged).
 */
LOREG_EXPORT int32_t lors_fio_read(void *handle, void *buffer, uint32_t size);

/*
 * Writes at most size (below 2^31) bytes from buffer, once: a short write
 * is returned as it is, not retried. Returns the bytes written, which are
 * added to the handle's count, minus errno of a failed write (logged), or
 * -22 for an invalid handle (logged).
 */
LOREG_EXPORT int32_t lors_fio_write(void *handle, const void *buffer, uint32_t size);

/*
 * Ends a handle: a handle opened for writing is synchronised to disk
 * first. Failures of fsync and close are logged and ignored. The handle is
 * freed. Returns 0, or -22 for an invalid handle (logged; nothing freed).
 */
LOREG_EXPORT int32_t lors_fio_close(void *handle);

#ifdef __cplusplus
}
#endif

#endif
