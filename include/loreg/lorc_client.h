/*
 * lorc_client: the client record and the client's internal interfaces.
 *
 * These are the parts of the registry client that its modules share: the
 * client record, the request record (a job's cookie), the job callback
 * record, subscription, root and wait nodes, and the functions through
 * which the core, the request kinds, subscriptions and root tracking call
 * each other. Applications use lorc.h.
 *
 * The client mutex guards the subscription, root and wait lists, the
 * pairing of timers with jobs, and the count of public calls in progress.
 * Functions ending in _nolock expect it held. Request records have a mutex
 * of their own (lorc_request_lock), taken before the client mutex. Lock
 * order: request mutex, client mutex, job handler mutex, a waiter's mutex.
 * Everything named *_reply, *_keyupd, *_process and the dispatch handlers
 * run on the client thread.
 *
 * Shutdown and calls in progress: every public function is admitted by
 * lorc_client_enter and leaves by lorc_client_leave. lorc_shutdown clears
 * the magic (no call is admitted any more), ends the client thread, wakes
 * every call that blocks in lorc_client_wait or waits for a subscription's
 * removal, and frees nothing until the last admitted call has left.
 */
#ifndef LOREG_LORC_CLIENT_H
#define LOREG_LORC_CLIENT_H

#include <pthread.h>
#include <stdint.h>
#include <sys/queue.h>

#include "loreg/apij.h"
#include "loreg/loreg_export.h"
#include "loreg/loreg_lmq.h"
#include "loreg/loreg_msg.h"
#include "loreg/lorc.h"
#include "loreg/lorkc.h"
#include "loreg/tmrq.h"

#ifdef __cplusplus
extern "C" {
#endif

#define LORC_MAGIC 0x4C4F5243u

/* Request kinds and bits of lorc_request.type. */
#define LORC_REQ_KIND_MASK 0x70u
#define LORC_REQ_SIMPLE 0x10u
#define LORC_REQ_COMPOUND 0x20u
#define LORC_REQ_TIMER 0x30u
#define LORC_REQ_ALLOCATED 0x80u     /* result buffer allocated by the client */
#define LORC_REQ_SUBJOBS_DONE 0x100u /* compound: all sub-jobs finished */
#define LORC_REQ_UPDATES_DONE 0x200u /* compound: all awaited updates came */
#define LORC_REQ_COLLECTED 0x400u    /* the collector gave the job up or ended it */

/* Key flags (low bits of a key update's arg1) that the client reads. */
#define LORC_KEYF_VALUE 0x04u
#define LORC_KEYF_DIR 0x08u
#define LORC_KEYF_ROOT 0x20u

/* Subscription node flags. */
#define LORC_SUBSCR_REMOVED 0x01u
#define LORC_SUBSCR_ROOTS_PENDING 0x04u

/* The echo that carries a bulk job to the client thread. */
#define LORC_COMPOUND_ECHO_MARK 0x5505u

typedef struct lorc_subscr_node lorc_subscr_node;
typedef struct lorc_root_node lorc_root_node;
typedef struct lorc_waitupd_node lorc_waitupd_node;
typedef struct lorc_wait_node lorc_wait_node;

LIST_HEAD(lorc_subscr_list, lorc_subscr_node);
TAILQ_HEAD(lorc_root_list, lorc_root_node);
LIST_HEAD(lorc_waitupd_list, lorc_waitupd_node);
LIST_HEAD(lorc_wait_list, lorc_wait_node);

struct lorc_client {
  uint32_t magic;          /* LORC_MAGIC while alive; 0 from shutdown on */
  pthread_mutex_t mutex;   /* the client mutex */
  pthread_t thread;        /* "lorcmain"; zero in the external mode */
  int32_t stop;            /* ends the message loop */
  const loreg_allocator *allocator;
  lmq_server *lmqServer;
  lmq_client *lmqClient;   /* non-null: external mode */
  uint32_t rcvQueueKBytes;
  lorc_hooks *hooks;       /* private copy, or null */
  struct lorc_subscr_list subscriptions;
  struct lorc_root_list roots;
  struct lorc_waitupd_list waitUpdates;
  apij_inst *jobs;
  tmrq_inst *timers;
  loreg_lmq_ctx lmq;
  int32_t idleTimerId;
  /* The retry of a root query that could not be sent; touched by the
   * thread that runs the client's loop only. */
  int32_t rootQueryTimerId;   /* 0 until the first retry */
  uint32_t rootQueryDelayMs;  /* 0 when no retry is pending */
  /* Shutdown support, under the mutex. */
  uint32_t users;                /* public calls admitted and not yet left */
  struct lorc_wait_list waits;   /* calls blocked waiting for a job */
  int32_t draining;              /* set once shutdown has woken the waits */
  pthread_cond_t drained;        /* signalled when the last call leaves */
  uint32_t leadMs;               /* lorc_client_set_lead; read atomically */
};

/* The job cookie of every client job. A compound job uses the words after
 * type differently (u.compound). */
typedef struct lorc_request {
  uint32_t type;
  union {
    struct {
      void *buffer;             /* simple: result buffer; timer: expiry value */
      uint32_t bufferSize;      /* simple: bytes of buffer; timer: ms */
      uint32_t resultLen;       /* bytes placed in buffer */
      uint32_t *keyFlagsOut;    /* key query: flags of the key found */
      void **bufferOut;         /* lorc_m_ calls: where the buffer goes */
      uint32_t pendingReplies;  /* more than one reply expected */
      int32_t firstError;       /* first non-zero result among them */
    } simple;
    struct {
      lorkc_container *container; /* the caller's, changed in place */
      lorkc_it it;                /* the walk's iterator */
      int32_t callbackId;         /* sub-jobs' job callback; 0 none */
      int32_t tid;                /* open transaction; 0 none */
      int32_t subjob;             /* -1 at start, 0 between, else running id */
    } compound;
  } u;
  loreg_msg msg;
} lorc_request;

/* The callback cookie of every job callback. */
typedef struct lorc_job_cb {
  lorc_client *client;
  void (*internalFn)(lorc_client *client, apij_job_ref *ref, int32_t value, void *cookie);
  lorc_job_user_fn userFn;
  void *cookie;
} lorc_job_cb;

struct lorc_subscr_node {
  LIST_ENTRY(lorc_subscr_node) link;
  void *cookie;
  lorc_notify_fn handler;
  int32_t removalJob; /* -1, or the job to complete at removal */
  uint32_t flags;     /* LORC_SUBSCR_* */
  lstr path;          /* points at the text behind the record */
};

struct lorc_root_node {
  TAILQ_ENTRY(lorc_root_node) link;
  lmq_address txid;              /* sender of the last announcement */
  _cspOsalTime_struct updated;   /* uptime of the last announcement */
  uint32_t flags;                /* key flags at the last announcement */
  lstr path;                     /* points at the text behind the record */
};

struct lorc_waitupd_node {
  LIST_ENTRY(lorc_waitupd_node) link;
  int32_t jobId;
};

/* A call blocked in lorc_client_wait; lives on the caller's stack. */
struct lorc_wait_node {
  LIST_ENTRY(lorc_wait_node) link;
  int32_t jobId;
  int32_t aborted; /* shutdown destroyed the job (client mutex) */
};

/* --- Core (client task) ---------------------------------------------- */
LOREG_EXPORT void *lorc_task_main(void *client);
LOREG_EXPORT int lorc_task_dispatch_msg(void *client, loreg_msg *msg, const lmq_rx_info *rxInfo,
                                        _cspOsalTime_struct *nextWake);
LOREG_EXPORT void lorc_task_dispatch_sysmsg(void *client, uint32_t type, uint32_t subType,
                                            _cspOsalTime_struct *nextWake);
LOREG_EXPORT void lorc_task_dispatch_timeout(void *client, _cspOsalTime_struct *nextWake);
LOREG_EXPORT void lorc_onKeyUpdate(lorc_client *client, loreg_msg *msg, const lmq_rx_info *rxInfo);
/* Non-zero when the calling thread is the client thread ("lorcmain"); 0
 * for every thread of a client in the external mode. */
LOREG_EXPORT int lorc_is_client_thread(const lorc_client *client);
/* Non-zero while the client is alive: not null and its magic set (read
 * atomically, since lorc_shutdown clears it while other threads may look). */
LOREG_EXPORT int lorc_client_valid(const lorc_client *client);
/* Admits a public call: 0, and lorc_shutdown frees nothing until the call
 * has left with lorc_client_leave; or -14 for a null client or one whose
 * magic is gone (nothing to leave then). Logs nothing. */
LOREG_EXPORT int lorc_client_enter(lorc_client *client);
LOREG_EXPORT void lorc_client_leave(lorc_client *client);
/* apij_JobResultGet for an admitted call. A wait of 1 second or more is
 * recorded, so that lorc_shutdown can end it: the job is then destroyed
 * unless it is done, and the waiter wakes with -103, also when shutdown
 * came before the thread got into its wait. Once shutdown has done so, a
 * new wait finds its job treated in the same way at once. */
LOREG_EXPORT int lorc_client_wait(lorc_client *client, int32_t jobId, int32_t *result,
                                  int32_t timeOut);
/* Called by a synchronous call right after it sent the request of a simple
 * job, before it waits: if the request went to a server in another
 * process, the calling thread reads the bus itself for up to ms (what
 * lorc_client_lead_ms gave before the send), so that the reply wakes it
 * directly; it returns 1 when the job is done (the caller need not wait),
 * 0 when the reply may come another way and the caller waits as usual;
 * so a call that expires lasts at most the lead longer than its timeOut.
 * Normal mode only. */
LOREG_EXPORT int lorc_client_lead(lorc_client *client, int32_t jobId, uint32_t ms);
/* How long the next synchronous call leads: LORC_LEAD_MS unless
 * lorc_client_set_lead said otherwise; 0 in the external mode. */
#define LORC_LEAD_MS 20u
LOREG_EXPORT uint32_t lorc_client_lead_ms(const lorc_client *client);
/* Sets how long the synchronous calls of a client lead (lorc_client_lead),
 * in ms, from their next call on: 0 means they never lead and always wait
 * for "lorcmain" to complete their job. A longer lead suits a machine that
 * is often too slow to answer within LORC_LEAD_MS, and a test that holds
 * a request until it sees the caller leading. Returns 0, -14 for a null
 * or uninitialised client, -22 above LORC_LEAD_MS_MAX. */
#define LORC_LEAD_MS_MAX 60000u
LOREG_EXPORT int lorc_client_set_lead(lorc_client *client, uint32_t ms);
/* Says, right before a synchronous call sends the request of a simple
 * job (will_lead 1), that lorc_client_lead follows the send, or takes
 * that back when the request could not be started (0): the bus may then
 * keep its connection for this thread between calls. Normal mode only. */
LOREG_EXPORT void lorc_client_lead_next(lorc_client *client, int will_lead);
/* Sends the idle notification 0x200A to the client's own queue, which
 * wakes the message loop; returns the send's result. */
LOREG_EXPORT int lorc_client_send_idle(lorc_client *client);

/*
 * The request mutex. The client thread fills a job's request record (and
 * a bulk job's container, or the caller's result buffer) while the job's
 * collector may give the job up on another thread (lorc_job_cancel, a
 * synchronous wait that expired) and hand record, container and buffer
 * back to the caller. Both sides work on them under this mutex; the
 * collector leaves LORC_REQ_COLLECTED in the record's type, and the client
 * thread does not write into a record so marked. Nobody holds it while a
 * job completes, since completion runs the job's callback. Type bits that
 * change after the start are set with lorc_request_set_type_bits and read
 * with lorc_request_type, since the kind is also read without the mutex.
 */
void lorc_request_lock(void);
void lorc_request_unlock(void);
uint32_t lorc_request_type(const lorc_request *request);
void lorc_request_set_type_bits(lorc_request *request, uint32_t bits);

/* --- Job processing -------------------------------------------------- */
LOREG_EXPORT int lorc_api_job_process(lorc_client *client, lorc_request *request, const char *path,
                                      int32_t timeOut, const char *callerName);
LOREG_EXPORT int lorc_api_job_postproc(lorc_client *client, apij_job_ref *ref);
LOREG_EXPORT int lorc_api_job_cb_register(
    lorc_client *client,
    void (*internalFn)(lorc_client *client, apij_job_ref *ref, int32_t value, void *cookie),
    lorc_job_user_fn userFn, void *cookie);
LOREG_EXPORT int lorc_job_callback(apij_inst *instance, apij_job_ref *ref, void *cb);

/* --- Client timers --------------------------------------------------- */
LOREG_EXPORT int lorc_timer_create(lorc_client *client, const _cspOsalTime_struct *timeout,
                                   const _cspOsalTime_struct *period);
LOREG_EXPORT int lorc_timer_destroy(lorc_client *client, int32_t timerId);
LOREG_EXPORT int lorc_timer_process(lorc_client *client, _cspOsalTime_struct *nextWake);
LOREG_EXPORT int lorc_timer_callback(tmrq_inst *queue, const tmrq_info *info,
                                     const _cspOsalTime_struct *now);

/* --- Simple and timer requests --------------------------------------- */
LOREG_EXPORT int lorc_req_simple_start(lorc_client *client, lorc_request *request,
                                       const char *path, int32_t jobId, const char *callerName);
LOREG_EXPORT void lorc_req_simple_reply(lorc_client *client, apij_job_ref *ref, loreg_msg *msg);
LOREG_EXPORT int lorc_req_simple_postproc(lorc_client *client, apij_job_ref *ref);
LOREG_EXPORT int lorc_req_timer_start(lorc_client *client, lorc_request *request, int32_t jobId,
                                      const char *callerName);
LOREG_EXPORT int lorc_req_timer_postproc(lorc_client *client, apij_job_ref *ref);

/* --- Compound requests ----------------------------------------------- */
LOREG_EXPORT int lorc_req_compound_start(lorc_client *client, lorc_request *request,
                                         int32_t jobId, const char *callerName);
LOREG_EXPORT void lorc_req_compound_reply(lorc_client *client, apij_job_ref *ref, loreg_msg *msg);
LOREG_EXPORT void lorc_req_compound_keyupd(lorc_client *client, const lorc_key_struct *item);
LOREG_EXPORT int lorc_req_compound_postproc(lorc_client *client, apij_job_ref *ref);
LOREG_EXPORT void lorc_waitupd_reset(lorc_client *client);

/* --- Subscriptions --------------------------------------------------- */
LOREG_EXPORT int lorc_subscr_register(lorc_client *client, lorc_notify_fn handler,
                                      const char *path, void *cookie);
LOREG_EXPORT int lorc_subscr_unregister(lorc_client *client, lorc_notify_fn handler,
                                        const char *path, void *cookie);
LOREG_EXPORT void lorc_subscr_process(lorc_client *client, const lstr *path,
                                      const lorc_key_struct *item, uint32_t reason, int32_t tid);
/* 0 when lorc_subscr_process would do nothing for this update: no
 * subscription matches, and none waits for its removal or for its roots;
 * 1 when it would, or when that cannot be told now (the client mutex is
 * taken). Any thread. */
LOREG_EXPORT int lorc_subscr_would_act(lorc_client *client, const lstr *path,
                                       const lorc_key_struct *item, uint32_t reason);
LOREG_EXPORT void lorc_subscr_reset_nolock(lorc_client *client);
LOREG_EXPORT void lorc_subscr_new_root_nolock(lorc_client *client, lorc_root_node *root);

/* --- Roots ----------------------------------------------------------- */
LOREG_EXPORT void lorc_root_keyupd(lorc_client *client, const lstr *path,
                                   const lorc_key_struct *item, uint32_t reason,
                                   const lmq_address *txid);
LOREG_EXPORT lorc_root_node *lorc_root_findNextMatch_nolock(lorc_client *client,
                                                            lorc_root_node *previous,
                                                            const lstr *path);
LOREG_EXPORT int lorc_root_get_txid(lorc_client *client, const char *path, lmq_address *txidOut,
                                    _cspOsalTime_struct *updatedOut);
LOREG_EXPORT int lorc_root_get_path(lorc_client *client, int32_t index, uint32_t *flagsOut,
                                    _cspOsalTime_struct *updatedOut, char *buffer,
                                    uint32_t bufferSize);
LOREG_EXPORT int lorc_root_is_valid(const _cspOsalTime_struct *updated,
                                    const _cspOsalTime_struct *now);
LOREG_EXPORT int lorc_root_count_valid(lorc_client *client, const _cspOsalTime_struct *now);
LOREG_EXPORT void lorc_root_reset_nolock(lorc_client *client);
LOREG_EXPORT void lorc_root_query_send(lorc_client *client);

#ifdef __cplusplus
}
#endif

#endif
