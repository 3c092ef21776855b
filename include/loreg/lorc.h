/*
 * lorc: the registry client.
 *
 * A process reaches the repository servers through a client. Every
 * operation becomes a numbered job; its final argument timeOut chooses how
 * the caller meets the result:
 *   timeOut >= 1  synchronous: wait at most that many seconds and return
 *                 the operation's final value (a length, a count, a tid, 0,
 *                 or a negative reason);
 *   timeOut == 0  asynchronous without callback: returns the job id; collect
 *                 with lorc_job_wait, lorc_job_get_result or lorc_job_cancel;
 *   timeOut <  0  asynchronous with the job callback whose id is -timeOut
 *                 (from lorc_job_cb_register): returns the job id, and the
 *                 callback gets the final value on the client thread.
 *
 * Modes. Normally the client owns an lmq client and the thread "lorcmain",
 * which runs all dispatching, timers, job callbacks and notification
 * handlers. With an lmq client of the caller's (lorc_init_params.lmqClient)
 * no thread is started and the caller feeds it through lorc_dispatch_msg
 * and lorc_dispatch_sysmsg; synchronous calls must then not come from the
 * feeding thread.
 *
 * Errors: -14 for a null or uninitialised client, -22 for bad arguments
 * (null path "path missiing", null buffer with a size), -11 for a
 * synchronous call from the client thread (it could never get its reply),
 * -12 for memory, -110 when a synchronous wait expires, and the server's
 * reasons (-2, -13 ...) as values.
 *
 * Threads: every API function may be called from any thread. Callbacks
 * and handlers run on the client thread with no client lock held. Lock
 * order inside: request mutex, client mutex, job handler mutex, a waiter's
 * mutex.
 */
#ifndef LOREG_LORC_H
#define LOREG_LORC_H

#include <stdint.h>

#include "loreg/loreg_alloc.h"
#include "loreg/loreg_export.h"
#include "loreg/loreg_msg.h"
#include "loreg/lorkc.h"
#include "loreg/lstr.h"
#include "platform/csp_osal.h"
#include "platform/lmq.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct lorc_client lorc_client;

/* Operation codes of bulk keys: flags & LORC_BULKOP_MASK. */
#define LORC_BULKOP_MASK 0xE0u
#define LORC_BULKOP_TRANSACTION 0x20u
#define LORC_BULKOP_SET 0x40u
#define LORC_BULKOP_QUERY 0x60u
#define LORC_BULKOP_DELETE 0x80u
#define LORC_BULKOP_WAITUPDATE 0xA0u
#define LORC_BULKOP_TRIGGER 0xC0u
#define LORC_BULKOP_DONE 0x100000u
#define LORC_BULKOP_FAILED 0x300000u

/* A root is valid this long after its last announcement. */
#define LORC_ROOT_VALID_SEC 127
/* A root query that cannot be sent (bus busy, no memory) goes again after
 * this many milliseconds, twice as long after each further failure, at
 * most LORC_ROOT_QUERY_RETRY_MAX_MS. */
#define LORC_ROOT_QUERY_RETRY_MS 100u
#define LORC_ROOT_QUERY_RETRY_MAX_MS 6400u
/* Bit set by lorc_root_query in the flags of a stale root. */
#define LORC_ROOT_STALE 0x80u

/* Hooks, copied at lorc_init. */
typedef struct lorc_hooks {
  void *cookie;        /* last argument of every hook */
  uint32_t idleTimeMs; /* period of the idle hook timer; 0: none */
  void (*onTaskStart)(lorc_client *client, void *cookie);
  void (*onTaskEnd)(lorc_client *client, void *cookie);
  void (*onIdleTimer)(lorc_client *client, void *cookie);
  void (*onSysMsg)(lorc_client *client, uint32_t type, uint32_t subType, void *cookie);
} lorc_hooks;

typedef struct lorc_init_params {
  const loreg_allocator *allocator; /* null or LOREG_ALLOCATOR_DEFAULT: malloc */
  lmq_server *lmqServer;
  lmq_client *lmqClient; /* non-null: external mode, no thread */
  uint32_t rcvQueueKBytes; /* 0: 16 KiB */
  const lorc_hooks *hooks; /* may be null */
} lorc_init_params;

/* A user job callback: (client, callback id, job id, final value, cookie). */
typedef void (*lorc_job_user_fn)(lorc_client *client, int32_t callbackId, int32_t jobId,
                                 int32_t result, void *cookie);

/* A notification handler: reason code, the key (full path, flags, value),
 * the update's transaction id, the subscription's own path, cookie. */
typedef void (*lorc_notify_fn)(lorc_client *client, uint32_t reason, const lorc_key_struct *item,
                               int32_t tid, const lstr *path, void *cookie);

/* --- Life ------------------------------------------------------------ */

/* Creates a client and stores it in *handleOut (only on success). Returns
 * 0, -22, -12, -14, or loreg_lmq_init's error. */
LOREG_EXPORT int lorc_init(lorc_client **handleOut, const lorc_init_params *params);

/* Ends the thread, wakes waiters of open jobs with -103 and frees the
 * client. Returns 0, or -14 for a null or uninitialised client.
 * Calls that other threads began before are let finish first: every call
 * from then on is refused as for an uninitialised client, a synchronous
 * call waiting for its reply returns -14, lorc_job_wait returns, and
 * lorc_notification_unregister returns 0. The handle must not be used
 * once lorc_shutdown has returned. In the external mode the caller stops
 * feeding the client before. */
LOREG_EXPORT int lorc_shutdown(lorc_client *client);

/* The service id of "LOREG", or 0 with a log line. */
LOREG_EXPORT int16_t lorc_get_service_id(lorc_client *client);

/* External mode: feed one validated message / one system message. Returns
 * -227 for null arguments, a bad client, or a client in the normal mode;
 * else the dispatch's result. */
LOREG_EXPORT int lorc_dispatch_msg(lorc_client *client, loreg_msg *msg, const lmq_rx_info *rxInfo);
LOREG_EXPORT void lorc_dispatch_sysmsg(lorc_client *client, uint32_t type, uint32_t subType);

/* --- Operations (timeOut as above) ----------------------------------- */

/* Value of a key into buffer (cut to bufferSize - 1 bytes and
 * terminated). Final value: the length copied. bufferSize 0 with a null
 * buffer only tests that the key can be read. */
LOREG_EXPORT int lorc_value_query(lorc_client *client, int32_t tid, const char *path,
                                  void *buffer, uint32_t bufferSize, int32_t timeOut);

/* Sets a key; setFlags as the server reads them (0x30400 a plain value,
 * 0x30602 a volatile one). Final value: 0. */
LOREG_EXPORT int lorc_value_set(lorc_client *client, int32_t tid, const char *path,
                                const void *value, uint32_t valueLen, uint32_t setFlags,
                                int32_t timeOut);

/* Deletes a key and its subtree. Final value: 0. */
LOREG_EXPORT int lorc_key_delete(lorc_client *client, int32_t tid, const char *path,
                                 int32_t timeOut);

/* Counts the children of a key selected by mask. Final value: the count. */
LOREG_EXPORT int lorc_key_count(lorc_client *client, int32_t tid, const char *path,
                                uint32_t mask, int32_t timeOut);

/* Name (into buffer) and flags (into *keyFlagsOut, may be null) of the
 * index-th selected child, or of the key itself with index -1. Final
 * value: the name's length. */
LOREG_EXPORT int lorc_key_query(lorc_client *client, int32_t tid, const char *path,
                                uint32_t mask, int32_t index, uint32_t *keyFlagsOut,
                                void *buffer, uint32_t bufferSize, int32_t timeOut);

/* Transactions. Final value of a start or acquire: the tid. */
LOREG_EXPORT int lorc_transaction_start(lorc_client *client, const char *path, int32_t timeOut);
LOREG_EXPORT int lorc_transaction_timed_start(lorc_client *client, const char *path,
                                              uint32_t waitTimeMs, uint32_t maxDurationMs,
                                              int32_t timeOut);
LOREG_EXPORT int lorc_transaction_end(lorc_client *client, int32_t tid, int32_t timeOut);
LOREG_EXPORT int lorc_transid_acquire(lorc_client *client, const char *path, int32_t timeOut);
LOREG_EXPORT int lorc_transid_release(lorc_client *client, const char *path, int32_t tid,
                                      int32_t timeOut);

/* Store / reload at every server; with several valid roots the job waits
 * for one reply per server and ends with the first error. */
LOREG_EXPORT int lorc_repository_store(lorc_client *client, int32_t timeOut);
LOREG_EXPORT int lorc_repository_reload(lorc_client *client, int32_t timeOut);

/* Queries into a buffer the client allocates; *ppValue / *ppKey get it
 * (null first), to be given back with lorc_m_free. */
LOREG_EXPORT int lorc_m_value_query(lorc_client *client, int32_t tid, const char *path,
                                    char **ppValue, int32_t timeOut);
LOREG_EXPORT int lorc_m_key_query(lorc_client *client, int32_t tid, const char *path,
                                  uint32_t mask, int32_t index, uint32_t *keyFlagsOut,
                                  char **ppKey, int32_t timeOut);
LOREG_EXPORT void lorc_m_free(lorc_client *client, void *block);

/* Carries out a whole key container as one job (LORC_BULKOP_* in each
 * key's flags). Final value: 0, or the first sub-job's failure. */
LOREG_EXPORT int lorc_bulk_operation(lorc_client *client, lorkc_container *container,
                                     int32_t timeOut);

/* --- Jobs ------------------------------------------------------------ */

/* Waits for a job: 0 when done, +110 for a poll (timeOut <= 0) of an open
 * job, -110 when the wait expired. The job's value is not given. */
LOREG_EXPORT int lorc_job_wait(lorc_client *client, int32_t jobId, int32_t timeOut);

/* Collects a done job: 0 and its value in *resultOut (may be null), the
 * job destroyed. Not done: -115 and -11 stored. */
LOREG_EXPORT int lorc_job_get_result(lorc_client *client, int32_t jobId, int32_t *resultOut);

/* Post-processes (removing a timer, ending a bulk job's work) and
 * destroys a job, done or not. Once it has returned, the client writes
 * no more into the job's result buffer or bulk container, and a reply still
 * to come is dropped. Returns 0 or the lookup's error. */
LOREG_EXPORT int lorc_job_cancel(lorc_client *client, int32_t jobId);

/* Registers a job callback; returns its positive id (use -id as timeOut). */
LOREG_EXPORT int lorc_job_cb_register(lorc_client *client, lorc_job_user_fn userFn, void *cookie);

/* Unregisters a job callback: 0 when removed now, a positive job id when
 * the removal is delayed until running callbacks end, -2 if unknown. */
LOREG_EXPORT int lorc_job_cb_unregister(lorc_client *client, int32_t callbackId, int removeJobs);

/* A job that completes after timeMs with expiryValue as its value;
 * callbackId must be 0 or below (a timer job is never synchronous). */
LOREG_EXPORT int lorc_job_create_timer(lorc_client *client, uint32_t timeMs, int32_t expiryValue,
                                       int32_t callbackId);

/* --- Roots and notifications ----------------------------------------- */

/* The index-th known root: path into buffer, flags (LORC_ROOT_STALE set
 * when no longer valid). Returns the bytes copied, -2 past the end, -22. */
LOREG_EXPORT int lorc_root_query(lorc_client *client, int32_t index, uint32_t *flagsOut,
                                 char *buffer, uint32_t bufferSize);

/* Calls handler on the client thread for updates at or around path (null:
 * "/"), and with "server available" for valid roots that match. Returns
 * 0, -14, -22, -12, -37. */
LOREG_EXPORT int lorc_notification_register(lorc_client *client, lorc_notify_fn handler,
                                            const char *path, void *cookie);

/* Removes a subscription (handler, path, cookie). From another thread it
 * returns only when the handler is not running and will never run again;
 * from the client thread (inside a handler) it returns at once and the
 * handler is not called again. Returns 0, -14, -22, -19 if unknown. */
LOREG_EXPORT int lorc_notification_unregister(lorc_client *client, lorc_notify_fn handler,
                                              const char *path, void *cookie);

/* Asks the servers to play back existing keys under path as key updates
 * (filter as class mask, max_rec_level deepest level). No job, no reply.
 * Returns 0, -14, -22, -5 when the send failed. */
LOREG_EXPORT int lorc_notification_trigger(lorc_client *client, const char *path, uint32_t filter,
                                           int32_t max_rec_level);

#ifdef __cplusplus
}
#endif

#endif
