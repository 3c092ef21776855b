/*
 * lors: the repository server.
 *
 * A server owns a tree of keys under a root path, its transaction queues
 * and timers, and persists the tree to two alternating repository files.
 * lors_init builds it, imports the saved repository, hosts the service
 * "LOREG" on an lmq server and, unless the caller supplies an lmq client,
 * starts the thread "lorsmain" that runs the receive loop. With a client
 * of the caller's, no thread is started and the caller feeds the server
 * through lors_dispatch_msg and lors_dispatch_sysmsg, serialising the
 * calls itself.
 *
 * Conventions
 * - Only the server's own thread (or the feeding caller) touches the tree,
 *   the queues, the timers and dirty: none of them has a lock. Only magic
 *   and stop cross threads. One exception keeps that order: a key command
 *   (value query, set, key delete, count, key query) sent straight to a
 *   server whose thread waits for messages with none queued is served by
 *   the sending thread while "lorsmain" stays blocked (lmq's idle reply
 *   handler); "lorsmain" then only looks at its timers again, if the
 *   command moved the first of them forward.
 * - Results are 0 or a negative errno; the registry's -227 refuses a
 *   dispatch. Replies carry -2 (no such key or transaction), -12 (no
 *   memory), -13 (locked, or tid not allowed), -22 (bad arguments). A
 *   request whose path fails its rule gets no reply at all.
 * - The context and all texts it holds are one allocation from the
 *   params' allocator; every node and transaction comes from it too.
 */
#ifndef LOREG_LORS_H
#define LOREG_LORS_H

#include <pthread.h>
#include <stdint.h>

#include "loreg/loreg_alloc.h"
#include "loreg/loreg_export.h"
#include "loreg/loreg_lmq.h"
#include "loreg/loreg_msg.h"
#include "loreg/lors_fio.h"
#include "loreg/lors_rp.h"
#include "loreg/lors_tas.h"
#include "loreg/tmrq.h"
#include "platform/csp_osal.h"
#include "platform/lmq.h"

#ifdef __cplusplus
extern "C" {
#endif

#define LORS_MAGIC 0x4C4F5253u
#define LORS_DEFAULT_ROOT_PATH "/com/norvi/"

/* Bits of lors_params.options. */
#define LORS_OPT_EXPORT_BOTH 0x01u        /* no import at start; first export
                                             forced and written to both slots */
#define LORS_OPT_NO_PERSIST 0x02u         /* no import, no commit; store and
                                             reload do nothing and report 0 */
#define LORS_OPT_COMMIT_ON_SHUTDOWN 0x08u /* lors_shutdown commits */
#define LORS_OPT_COMMIT_DELAYED 0x10u     /* commit timers after changes */
#define LORS_OPT_COMMIT_ON_CHANGE 0x20u   /* commit at every change */
#define LORS_OPT_COMMIT_ON_TA_END 0x40u   /* commit at a transaction's end */

/* Root key broadcast: first after 5 s, then every 107 s. */
#define LORS_ROOT_TIMER_FIRST_SEC 5
#define LORS_ROOT_TIMER_PERIOD_SEC 107

/* Size of the receive loop's buffer; one message is at most one byte less. */
#define LORS_MSG_BUFFER_SIZE 0x2000u

/* What the caller gives to lors_init. */
typedef struct lors_params {
  const loreg_allocator *allocator;   /* may be null: malloc/free */
  lmq_server *lmq_server;             /* the message server */
  lmq_client *lmq_client;             /* may be null; if given, no thread */
  uint32_t queue_kib;                 /* receive queue in KiB, 0: 16 */
  const char *root_path;              /* null: "/com/norvi/"; read during
                                         lors_init only */
  uint32_t options;                   /* LORS_OPT_* */
  const lors_fio *fio;                /* null: g_lors_default_fio */
  uint32_t commit_delay_final;        /* ms after the last change, 0: off */
  uint32_t commit_delay_intermediate; /* ms while dirty, 0: off */
} lors_params;

/* The server context. */
typedef struct lors_ctx {
  uint32_t magic; /* LORS_MAGIC while alive; 0 from the start of shutdown */

  /* The nine fields of lors_params, copied; fio points to fio_copy. */
  const loreg_allocator *allocator;
  lmq_server *lmq_server;
  lmq_client *lmq_client;
  uint32_t queue_kib;
  const char *root_path;
  uint32_t options;
  const lors_fio *fio;
  uint32_t commit_delay_final;
  uint32_t commit_delay_intermediate;

  lors_fio fio_copy;      /* the server's own table; texts in this block */
  int32_t current_file;   /* index of the file with the newest state */
  uint64_t commit_count;  /* count of the newest file read or written */
  uint32_t export_count;  /* successful exports since start */
  pthread_t thread;       /* "lorsmain" */
  int32_t stop;           /* the loop's stop flag */
  int32_t last_tid;       /* last transaction id given */
  lors_rp_node *root;     /* never null after start */
  char *root_path_text;   /* normalised root path, in this block */
  int32_t root_path_len;
  lors_tas_queue active_q;
  lors_tas_queue wait_q;
  lors_tas_queue acquired_q;
  loreg_lmq_ctx lmq;
  int32_t root_timer;                /* root key broadcast timer, 0 if none */
  int32_t commit_timer_final;        /* one-shot commit timer */
  int32_t commit_timer_intermediate; /* periodic commit timer */
  tmrq_inst *timers;
  int32_t dirty; /* 0 clean, -1 dirty */
} lors_ctx;

/* The last server made by a successful lors_init; null again once that
 * server is shut down. */
LOREG_EXPORT extern lors_ctx *g_loregServerHandle;

/*
 * Builds a server and stores it in *handle (and in g_loregServerHandle):
 * one block for the context, its copy of the file table's texts and the
 * normalised root path; the root key; the timer queue; the import of the
 * default location (unless LORS_OPT_EXPORT_BOTH or LORS_OPT_NO_PERSIST;
 * its result is not looked at); the lmq attachment as host of "LOREG";
 * and, without params->lmq_client, the thread "lorsmain".
 *
 * Returns 0, -22 for a null params or handle, -12 when memory runs out,
 * -14 when the thread cannot be started, or loreg_lmq_init's error. A
 * failure undoes what was reached: the lmq attachment, the timer queue,
 * the whole tree (also what an import read before a later step failed)
 * and the context.
 */
LOREG_EXPORT int lors_init(lors_ctx **handle, const lors_params *params);

/*
 * Clears magic first, so that public calls refuse the server from then on;
 * with a thread, sets stop, wakes the loop with a self-notification of
 * type 0x000A and joins "lorsmain". Then commits with
 * LORS_OPT_COMMIT_ON_SHUTDOWN, detaches from lmq, destroys the timers,
 * deletes the tree, empties the transaction queues and frees the context.
 * g_loregServerHandle is cleared if it names this server. Requests still
 * queued are discarded unanswered. Returns 0, or -14 for an invalid
 * server. Call it from a thread other than "lorsmain".
 */
LOREG_EXPORT int lors_shutdown(lors_ctx *server);

/* The service id of "LOREG", or 0 for a null or invalid server. */
LOREG_EXPORT int16_t lors_get_service_id(const lors_ctx *server);

/* The normalised root path, or null (with a log line) for an invalid
 * server. */
LOREG_EXPORT const char *lors_get_rootpath(const lors_ctx *server);

/*
 * Feeds one validated message to a server without a thread. Returns -227
 * for a null argument, an invalid server or a server with its own thread;
 * else the dispatch's result (0, or -201 for a reply or notification).
 */
LOREG_EXPORT int lors_dispatch_msg(lors_ctx *server, loreg_msg *msg, const lmq_rx_info *info);

/* The same for a system message; does nothing where lors_dispatch_msg
 * would refuse. */
LOREG_EXPORT void lors_dispatch_sysmsg(lors_ctx *server, uint32_t type, uint32_t subtype);

/* The body of "lorsmain". */
LOREG_EXPORT void *lors_task_main(void *server);

/* The three handlers of the receive loop. Each ends with
 * lors_timer_process, which sets *next to the time until the next timer. */
LOREG_EXPORT int lors_task_dispatch_msg(void *server, loreg_msg *msg, const lmq_rx_info *info,
                                        _cspOsalTime_struct *next);
LOREG_EXPORT void lors_task_dispatch_sysmsg(void *server, uint32_t type, uint32_t subtype,
                                            _cspOsalTime_struct *next);
LOREG_EXPORT void lors_task_dispatch_timeout(void *server, _cspOsalTime_struct *next);

/* Serves one request by its type, without the timers: the body of
 * lors_task_dispatch_msg. Returns 0, or the registry's -201 for a reply or
 * notification, which a server does not take. */
LOREG_EXPORT int lors_task_handle_request(lors_ctx *server, loreg_msg *msg,
                                          const lmq_rx_info *info);

/* Allocates a root node named "/" with the value (may be null), flagged
 * KEYF_ROOT, and stores it in server->root. Returns 0, or -12 leaving root
 * as it was. */
LOREG_EXPORT int lors_rootkey_alloc(lors_ctx *server, const lstr *value);

/*
 * Path rules of requests. data1 holds the full path. The strict rule wants
 * more bytes than the root path, the root path itself, then "/"; the
 * loose rule compares len1 - 1 bytes when the path is shorter than the
 * root path, so that an ancestor of the root with its trailing "/" names
 * the root. On success *relative is the server's relative path, starting
 * with "/", and the result is 0; a path that fails gives -1, and the
 * request must then get no reply.
 */
LOREG_EXPORT int lors_path_check(const lors_ctx *server, const loreg_msg *msg, int loose,
                                 lstr *relative);

/*
 * Finds the key of a request's relative path for the given effective tid
 * and search mode (value may be null), then applies the tid check: a tid
 * of 1 or more with no lock on the path must be an acquired one. Returns
 * 0, -2, -12 or -13, fills *res, and stores the command's transaction
 * (the lock met, or the acquired node, or null) in *tas.
 */
LOREG_EXPORT int lors_find_key(lors_ctx *server, const lstr *relative, uint32_t mode,
                               const lstr *value, int32_t tid, lors_rp_path_res *res,
                               lors_tas **tas);

#ifdef __cplusplus
}
#endif

#endif
