/*
 * Registry client core: the client record, its start and end, the client
 * thread "lorcmain", and the dispatch of everything that arrives on it.
 *
 * The request kinds, subscriptions and root tracking hang on this core:
 * replies go to the request kind of their job, key updates to root
 * tracking, bulk jobs and subscribers (in that order), and every handler
 * ends by serving the client's timers, so that timers stay served under a
 * steady stream of messages.
 */
#include "loreg/lorc_client.h"

#include <errno.h>
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "common/loreg_debug.h"
#include "loreg/loreg_msgloop.h"
#include "loreg/lstr.h"
#include "messaging/loreg_msg_check.h"
#include "platform/csp_thread.h"

#define LORC_API_LOG(level, ...) LOREG_LOG((level), LOREG_MOD_CLIENT_API, __VA_ARGS__)
#define LORC_TASK_LOG(level, ...) LOREG_LOG((level), LOREG_MOD_CLIENT_TASK, __VA_ARGS__)

int lorc_client_valid(const lorc_client *client) {
  return client != NULL && __atomic_load_n(&client->magic, __ATOMIC_ACQUIRE) == LORC_MAGIC;
}

/* ------------------------------------------------------------------------ */
/* Request records shared with a collector                                   */

/* One for all clients: its holders only work on request records and send
 * commands of their own client. */
static pthread_mutex_t g_lorc_request_mutex = PTHREAD_MUTEX_INITIALIZER;

void lorc_request_lock(void) { pthread_mutex_lock(&g_lorc_request_mutex); }

void lorc_request_unlock(void) { pthread_mutex_unlock(&g_lorc_request_mutex); }

uint32_t lorc_request_type(const lorc_request *request) {
  return __atomic_load_n(&request->type, __ATOMIC_ACQUIRE);
}

void lorc_request_set_type_bits(lorc_request *request, uint32_t bits) {
  __atomic_fetch_or(&request->type, bits, __ATOMIC_RELEASE);
}

/* ------------------------------------------------------------------------ */
/* Calls in progress                                                         */

/* The magic is tested again under the mutex: lorc_shutdown clears it before
 * it takes the mutex to wait for the calls admitted so far, so a call is
 * either counted before that wait begins or refused. */
int lorc_client_enter(lorc_client *client) {
  if (!lorc_client_valid(client)) return -EFAULT;
  if (pthread_mutex_lock(&client->mutex) != 0) return -EFAULT;
  if (!lorc_client_valid(client)) {
    pthread_mutex_unlock(&client->mutex);
    return -EFAULT;
  }
  client->users++;
  pthread_mutex_unlock(&client->mutex);
  return 0;
}

void lorc_client_leave(lorc_client *client) {
  if (pthread_mutex_lock(&client->mutex) != 0) return;
  client->users--;
  if (client->users == 0 && !lorc_client_valid(client)) pthread_cond_broadcast(&client->drained);
  pthread_mutex_unlock(&client->mutex);
}

/* Ends a wait that shutdown does not let run: the job is destroyed unless
 * it is done, which wakes its waiters with -103. Jobs are completed only on
 * the client thread, or for it while it waits for messages; it has ended
 * by then, so "done" cannot change. Returns 1 when it destroyed the job. */
static int _lorc_wait_abort_nolock(lorc_client *client, int32_t jobId) {
  apij_job_ref ref;
  int done;

  if (apij_JobRefGet(client->jobs, jobId, &ref) <= 0) return 0;
  done = ref.done;
  apij_JobRefRelease(client->jobs, &ref);
  if (done) return 0;
  return apij_JobDestroy(client->jobs, jobId) == 0;
}

int lorc_client_wait(lorc_client *client, int32_t jobId, int32_t *result, int32_t timeOut) {
  lorc_wait_node node;
  int recorded = 0;
  int aborted = 0;
  int rc;

  if (timeOut >= 1 && pthread_mutex_lock(&client->mutex) == 0) {
    if (client->draining) {
      aborted = _lorc_wait_abort_nolock(client, jobId);
    } else {
      node.jobId = jobId;
      node.aborted = 0;
      LIST_INSERT_HEAD(&client->waits, &node, link);
      recorded = 1;
    }
    pthread_mutex_unlock(&client->mutex);
  }
  rc = apij_JobResultGet(client->jobs, jobId, result, timeOut);
  if (recorded && pthread_mutex_lock(&client->mutex) == 0) {
    LIST_REMOVE(&node, link);
    aborted = node.aborted;
    pthread_mutex_unlock(&client->mutex);
  }
  /* Shutdown may destroy the job before this thread waits on it: the wait
   * then ends as if the destruction had woken it. */
  if (aborted && rc == -ENOENT) {
    if (result != NULL) *result = -ECONNABORTED;
    rc = 0;
  }
  return rc;
}

/* The job of a leading call, for its done test, and what that test saw
 * last (apij_JobIsDone). */
typedef struct lorc_lead_probe {
  apij_inst *jobs;
  int32_t jobId;
  int state;
} lorc_lead_probe;

/* Done, or gone (the wait that follows tells how). */
static int _lorc_lead_job_done(void *context) {
  lorc_lead_probe *probe = (lorc_lead_probe *)context;

  probe->state = apij_JobIsDone(probe->jobs, probe->jobId);
  return probe->state != 0;
}

uint32_t lorc_client_lead_ms(const lorc_client *client) {
  /* In the external mode the owner's loop completes every job. */
  if (client->lmq.queue == NULL) return 0;
  return __atomic_load_n(&client->leadMs, __ATOMIC_RELAXED);
}

int lorc_client_lead(lorc_client *client, int32_t jobId, uint32_t ms) {
  lorc_lead_probe probe;

  if (ms == 0 || client->lmq.queue == NULL) return 0;
  probe.jobs = client->jobs;
  probe.jobId = jobId;
  probe.state = 0;
  /* Any answer but done leaves the job to the wait, as without leading. */
  if (lmqClientLeadBus(client->lmq.client, ms, _lorc_lead_job_done, &probe) != 0) return 0;
  return probe.state == 1;
}

int lorc_client_set_lead(lorc_client *client, uint32_t ms) {
  if (!lorc_client_valid(client)) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(): client not yet initialized.\n", __func__);
    return -EFAULT;
  }
  if (ms > LORC_LEAD_MS_MAX) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(): lead of %u ms is over %u ms\n", __func__, (unsigned)ms,
                 (unsigned)LORC_LEAD_MS_MAX);
    return -EINVAL;
  }
  __atomic_store_n(&client->leadMs, ms, __ATOMIC_RELAXED);
  return 0;
}

void lorc_client_lead_next(lorc_client *client, int will_lead) {
  if (client->lmq.queue == NULL) return;
  (void)lmqClientLeadNext(client->lmq.client, will_lead);
}

int lorc_client_send_idle(lorc_client *client) {
  loreg_msg idle;

  memset(&idle, 0, sizeof(idle));
  idle.header.msgtype = LOREG_MSG_IDLE;
  return loreg_send_self_notification(client->lmq.client, &idle);
}

int lorc_is_client_thread(const lorc_client *client) {
  /* Only the normal mode has a thread; its receive queue tells the mode
   * (in the external mode the caller's thread is not recognised). */
  if (client == NULL || client->lmq.queue == NULL) return 0;
  return pthread_equal(pthread_self(), client->thread) != 0;
}

/* ------------------------------------------------------------------------ */
/* Start and end                                                             */

/* Progress of lorc_init, for unwinding a failure. */
#define LORC_INIT_MUTEX 0x01u
#define LORC_INIT_COND 0x02u

/* Undoes a partial lorc_init, in the reverse order of its steps. */
static void _lorc_init_unwind(lorc_client *client, uint32_t progress) {
  const loreg_allocator *allocator = client->allocator;

  loreg_lmq_shutdown(&client->lmq, allocator);
  if (client->timers != NULL) tmrq_InstDestroy(client->timers);
  if (client->jobs != NULL) apij_InstDestroy(client->jobs);
  if (progress & LORC_INIT_COND) pthread_cond_destroy(&client->drained);
  if (progress & LORC_INIT_MUTEX) pthread_mutex_destroy(&client->mutex);
  if (client->hooks != NULL) loreg_free(allocator, client->hooks);
  __atomic_store_n(&client->magic, 0u, __ATOMIC_RELEASE);
  loreg_free(allocator, client);
}

static int _lorc_idle_message(void *context, void *message, uint32_t size, uint32_t bufferSize,
                              const lmq_address *from);

/* Starts "lorcmain" with explicit scheduling, so that the thread does not
 * take over the scheduling parameters of whoever called lorc_init. */
static int _lorc_thread_start(lorc_client *client) {
  pthread_attr_t attr;
  int rc;

  if (_cspOsalPOSIX_pthread_attr_init(&attr) != 0) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(): failed to init threadAttr\n", "lorc_init");
    return -EFAULT;
  }
  if (pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED) != 0) {
    LORC_API_LOG(LOREG_LVL_FAIL,
                 "%s(): unable to disable inheritance of thread scheduling parameters\n",
                 "lorc_init");
    _cspOsalPOSIX_pthread_attr_destroy(&attr);
    return -EFAULT;
  }
  rc = _cspOsalPOSIX_pthread_attr_setname_norvi(&attr, "lorcmain");
  if (rc != 0) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(): failed to set thread name (code %d)\n", "lorc_init", rc);
    _cspOsalPOSIX_pthread_attr_destroy(&attr);
    return -EFAULT;
  }
  rc = _cspOsalPOSIX_pthread_create_line(&client->thread, &attr, lorc_task_main, client, __FILE__,
                                         __LINE__);
  _cspOsalPOSIX_pthread_attr_destroy(&attr);
  if (rc != 0) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(): failed to start worker thread (code %d)\n", "lorc_init",
                 rc);
    return -EFAULT;
  }
  return 0;
}

int lorc_init(lorc_client **handleOut, const lorc_init_params *params) {
  lorc_client *client;
  uint32_t progress = 0;
  apij_config jobConfig;
  tmrq_params timerParams;
  int rc;

  if (params == NULL) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(NULL): need initialization parameters!\n", __func__);
    return -EINVAL;
  }
  if (handleOut == NULL) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(NULL): need to return client handle!\n", __func__);
    return -EINVAL;
  }

  client = loreg_malloc(params->allocator, sizeof(*client));
  if (client == NULL) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s() failed to alloc %lu bytes context\n", __func__,
                 (unsigned long)sizeof(*client));
    return -ENOMEM;
  }
  memset(client, 0, sizeof(*client));
  client->magic = LORC_MAGIC;
  client->allocator = params->allocator;
  client->lmqServer = params->lmqServer;
  client->lmqClient = params->lmqClient;
  client->rcvQueueKBytes = params->rcvQueueKBytes;
  client->leadMs = LORC_LEAD_MS;

  if (params->hooks != NULL) {
    client->hooks = loreg_malloc(client->allocator, sizeof(*client->hooks));
    if (client->hooks == NULL) {
      LORC_API_LOG(LOREG_LVL_FAIL, "%s() failed to alloc %lu bytes hook struct\n", __func__,
                   (unsigned long)sizeof(*client->hooks));
      _lorc_init_unwind(client, progress);
      return -ENOMEM;
    }
    memcpy(client->hooks, params->hooks, sizeof(*client->hooks));
  }
  LIST_INIT(&client->subscriptions);
  TAILQ_INIT(&client->roots);
  LIST_INIT(&client->waitUpdates);
  LIST_INIT(&client->waits);

  rc = pthread_mutex_init(&client->mutex, NULL);
  if (rc != 0) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(): pthread_mutex_init failed (code %d)\n", __func__, rc);
    _lorc_init_unwind(client, progress);
    return -EFAULT;
  }
  progress |= LORC_INIT_MUTEX;
  rc = pthread_cond_init(&client->drained, NULL);
  if (rc != 0) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(): pthread_cond_init failed (code %d)\n", __func__, rc);
    _lorc_init_unwind(client, progress);
    return -EFAULT;
  }
  progress |= LORC_INIT_COND;

  memset(&jobConfig, 0, sizeof(jobConfig));
  jobConfig.allocator = (loreg_allocator *)(uintptr_t)client->allocator;
  jobConfig.jobCookieSize = (uint32_t)sizeof(lorc_request);
  jobConfig.cbCookieSize = (uint32_t)sizeof(lorc_job_cb);
  jobConfig.instCookieSize = 0;
  client->jobs = apij_InstCreate(&jobConfig, client);
  if (client->jobs == NULL) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(): failed initializing job handler instance.\n", __func__);
    _lorc_init_unwind(client, progress);
    return -ENOMEM;
  }

  timerParams.allocator = client->allocator;
  client->timers = tmrq_InstCreate(&timerParams);
  if (client->timers == NULL) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(): failed initializing timer queue instance.\n", __func__);
    _lorc_init_unwind(client, progress);
    return -ENOMEM;
  }

  rc = loreg_lmq_init(&client->lmq, client->allocator, client->lmqServer, client->lmqClient,
                      client->rcvQueueKBytes, 0);
  if (rc != 0) {
    _lorc_init_unwind(client, progress);
    return rc;
  }

  if (client->hooks != NULL && client->hooks->idleTimeMs != 0) {
    _cspOsalTime_struct period;
    period.sec = (int64_t)(client->hooks->idleTimeMs / 1000u);
    period.usec = (int32_t)((client->hooks->idleTimeMs % 1000u) * 1000u);
    rc = lorc_timer_create(client, NULL, &period);
    if (rc < 0) {
      LORC_API_LOG(LOREG_LVL_FAIL, "%s(): failed creating idle hook timer (code %d)\n", __func__,
                   rc);
      _lorc_init_unwind(client, progress);
      return -EFAULT;
    }
    client->idleTimerId = rc;
  }

  if (client->lmqClient == NULL) {
    (void)lmqClientSetIdleHandler(client->lmq.client, LMQ_IDLE_REPLIES | LMQ_IDLE_NOTIFICATIONS,
                                  _lorc_idle_message, client);
    rc = _lorc_thread_start(client);
    if (rc != 0) {
      _lorc_init_unwind(client, progress);
      return rc;
    }
  }

  LORC_API_LOG(LOREG_LVL_DETAIL, "%s(): success\n", __func__);
  *handleOut = client;
  LORC_API_LOG(LOREG_LVL_DETAIL,
               "REG_CLIENT_TEST %s(): success to create reg client , handle = 0x%x.\n", __func__,
               (unsigned)(uintptr_t)client);
  return 0;
}

/* Whether a wait on the job was aborted already (several threads may wait
 * on one job). */
static int _lorc_wait_job_aborted_nolock(const lorc_client *client, int32_t jobId) {
  const lorc_wait_node *node;

  LIST_FOREACH(node, &client->waits, link) {
    if (node->jobId == jobId && node->aborted) return 1;
  }
  return 0;
}

/* Wakes every call blocked in lorc_client_wait. From now on a new wait
 * ends at once in the same way. */
static void _lorc_wake_waits_nolock(lorc_client *client) {
  lorc_wait_node *node;

  client->draining = 1;
  LIST_FOREACH(node, &client->waits, link) {
    node->aborted = _lorc_wait_abort_nolock(client, node->jobId) ||
                    _lorc_wait_job_aborted_nolock(client, node->jobId);
  }
}

int lorc_shutdown(lorc_client *client) {
  const loreg_allocator *allocator;

  if (!lorc_client_valid(client)) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(): client not yet initialized.\n", __func__);
    return -EFAULT;
  }
  /* From here on every public call refuses the client. */
  __atomic_store_n(&client->magic, 0u, __ATOMIC_RELEASE);

  if (pthread_mutex_lock(&client->mutex) != 0) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(): Unable to lock client mutex (ignored)\n", __func__);
  }
  if (client->lmqClient == NULL) {
    /* The loop sleeps in its receive: the idle notification wakes it, and
     * it sees the stop flag after that message. A failed send only delays
     * the join until the loop wakes for another reason. */
    __atomic_store_n(&client->stop, 1, __ATOMIC_RELEASE);
    (void)lorc_client_send_idle(client);
    pthread_mutex_unlock(&client->mutex);
    LORC_API_LOG(LOREG_LVL_DETAIL, "%s(): wait for message loop task to exit...\n", __func__);
    if (pthread_join(client->thread, NULL) != 0) {
      LORC_API_LOG(LOREG_LVL_FAIL, "%s() failed waiting for message loop task to exit.\n",
                   __func__);
    } else {
      LORC_API_LOG(LOREG_LVL_DETAIL, "%s() ... message task joined. \n", __func__);
    }
    if (pthread_mutex_lock(&client->mutex) != 0) {
      LORC_API_LOG(LOREG_LVL_FAIL, "%s(): failed to re-gain client mutex lock (ignored)\n",
                   __func__);
    }
  }

  /* Calls of other threads may still be inside the client. Those waiting
   * for a subscription's removal wake up as the subscriptions go, those
   * waiting for a job as their jobs go; the rest only run to their end.
   * Nothing they use is freed before the last of them has left. */
  lorc_subscr_reset_nolock(client);
  _lorc_wake_waits_nolock(client);
  while (client->users != 0) pthread_cond_wait(&client->drained, &client->mutex);

  allocator = client->allocator;
  loreg_lmq_shutdown(&client->lmq, allocator);
  lorc_waitupd_reset(client);
  lorc_root_reset_nolock(client);
  apij_InstDestroy(client->jobs);
  client->jobs = NULL;
  tmrq_InstDestroy(client->timers);
  client->timers = NULL;

  pthread_mutex_unlock(&client->mutex);
  pthread_cond_destroy(&client->drained);
  pthread_mutex_destroy(&client->mutex);
  if (client->hooks != NULL) loreg_free(allocator, client->hooks);
  loreg_free(allocator, client);
  LORC_API_LOG(LOREG_LVL_DETAIL, "%s(): done.\n", __func__);
  return 0;
}

int16_t lorc_get_service_id(lorc_client *client) {
  int16_t id;

  if (lorc_client_enter(client) != 0) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(%p): client not initialized.\n", __func__, (void *)client);
    return 0;
  }
  id = client->lmq.service_id;
  lorc_client_leave(client);
  return id;
}

/* ------------------------------------------------------------------------ */
/* External mode                                                             */

/* Admits a call that feeds the client. A client with a receive queue of
 * its own runs its own loop, and nobody else may feed it. */
static int _lorc_enter_feeding(lorc_client *client) {
  if (lorc_client_enter(client) != 0) return LOREG_ERR_DISPATCH_REFUSED;
  if (client->lmq.queue != NULL) {
    lorc_client_leave(client);
    return LOREG_ERR_DISPATCH_REFUSED;
  }
  return 0;
}

int lorc_dispatch_msg(lorc_client *client, loreg_msg *msg, const lmq_rx_info *rxInfo) {
  _cspOsalTime_struct next = CSP_OSAL_TIME_NEG_INFINITY;
  int rc;

  if (msg == NULL || rxInfo == NULL || _lorc_enter_feeding(client) != 0) {
    return LOREG_ERR_DISPATCH_REFUSED;
  }
  rc = lorc_task_dispatch_msg(client, msg, rxInfo, &next);
  lorc_client_leave(client);
  return rc;
}

void lorc_dispatch_sysmsg(lorc_client *client, uint32_t type, uint32_t subType) {
  _cspOsalTime_struct next = CSP_OSAL_TIME_NEG_INFINITY;

  if (_lorc_enter_feeding(client) != 0) return;
  lorc_task_dispatch_sysmsg(client, type, subType, &next);
  lorc_client_leave(client);
}

/* ------------------------------------------------------------------------ */
/* The client thread                                                         */

void *lorc_task_main(void *arg) {
  lorc_client *client = (lorc_client *)arg;
  union {
    unsigned char bytes[LOREG_MSGLOOP_BUFFER_SIZE];
    uint64_t align;
  } buffer;
  loreg_loop loop;

  LORC_TASK_LOG(LOREG_LVL_DETAIL, "%s:%d:%s(): LOREG client task spawned\n",
                loreg_basename(__FILE__), __LINE__, __func__);
  memset(&loop, 0, sizeof(loop));
  loop.lmq = &client->lmq;
  loop.on_msg = lorc_task_dispatch_msg;
  loop.on_sysmsg = lorc_task_dispatch_sysmsg;
  loop.on_timeout = lorc_task_dispatch_timeout;
  loop.stop = &client->stop;
  loop.user = client;

  if (client->hooks != NULL && client->hooks->onTaskStart != NULL) {
    client->hooks->onTaskStart(client, client->hooks->cookie);
  }
  (void)loreg_msgloop(&loop, buffer.bytes);
  LORC_TASK_LOG(LOREG_LVL_DETAIL, "%s:%d:%s(): LOREG client task ends.\n",
                loreg_basename(__FILE__), __LINE__, __func__);
  if (client->hooks != NULL && client->hooks->onTaskEnd != NULL) {
    client->hooks->onTaskEnd(client, client->hooks->cookie);
  }
  pthread_exit(NULL);
  return NULL;
}

/* A reply finds its job by the request id. The reference is held across
 * the reply handler, also while that handler completes the job, so the
 * request record stays valid even if a callback destroys the job. */
static void _lorc_onReply(lorc_client *client, loreg_msg *msg) {
  apij_job_ref ref;
  int32_t jobId = (int32_t)msg->header.reqid;
  const lorc_request *request;
  uint32_t type;
  uint32_t kind;

  /* A job that is gone (timed-out wait, cancelled) drops its reply. */
  if (apij_JobRefGet(client->jobs, jobId, &ref) <= 0) return;

  LORC_TASK_LOG(LOREG_LVL_TRACE, "%s(job=%d)\n", "lorc_onReply", (int)jobId);
  request = (const lorc_request *)ref.cookie;
  type = lorc_request_type(request);
  kind = type & LORC_REQ_KIND_MASK;
  if (kind == LORC_REQ_SIMPLE) {
    lorc_req_simple_reply(client, &ref, msg);
  } else if (kind == LORC_REQ_COMPOUND) {
    lorc_req_compound_reply(client, &ref, msg);
  } else {
    LORC_TASK_LOG(LOREG_LVL_FAIL, "%s(job=%d) unexpected request type 0x%04x - ignored\n",
                  "lorc_onReply", (int)jobId, (unsigned)type);
  }
  apij_JobRefRelease(client->jobs, &ref);
}

/* The key of a key update: its path (terminated in the message) and the
 * record the subscribers get. */
static void _lorc_key_update_item(loreg_msg *msg, lstr *path, lorc_key_struct *item) {
  path->ptr = msg->data1;
  path->len = msg->header.len1;
  (void)lstr_zterm(path);

  memset(item, 0, sizeof(*item));
  item->path = path->ptr;
  item->flags = msg->header.arg1;
  if (msg->header.len0 != 0) {
    item->value = msg->data0;
    item->value_len = msg->header.len0;
  }
  LORC_TASK_LOG(LOREG_LVL_DETAIL, "%s, flags=0x%02x, tid=%d, '%s')\n",
                lorc_get_reason_txt(msg->header.arg0), (unsigned)item->flags,
                (int)msg->header.tid, path->ptr);
}

/* The reply of a simple job without callback only has to reach its job,
 * whose collector (a waiting caller, or lorc_job_get_result) runs on an
 * application thread. Replies that involve a callback, which must run on
 * the client thread, go the normal way. */
static int _lorc_idle_reply(lorc_client *client, loreg_msg *msg) {
  apij_job_ref ref;
  int taken = 0;

  if (apij_JobRefGet(client->jobs, (int32_t)msg->header.reqid, &ref) <= 0) return 0;
  if (ref.callbackId < 1 && (lorc_request_type((const lorc_request *)ref.cookie) &
                             LORC_REQ_KIND_MASK) == LORC_REQ_SIMPLE) {
    LORC_TASK_LOG(LOREG_LVL_TRACE, "%s(job=%d)\n", "lorc_onReply", (int)ref.id);
    lorc_req_simple_reply(client, &ref, msg);
    taken = 1;
  }
  apij_JobRefRelease(client->jobs, &ref);
  return taken;
}

/* A key update that nothing in this client acts on (no root of a server,
 * no bulk job waiting for updates, no subscription that matches or has
 * work pending) ends here. The client thread is blocked meanwhile, so its
 * own lists can be read. Anything that would call back goes the normal
 * way, so that handlers run on the client thread only. */
static int _lorc_idle_key_update(lorc_client *client, loreg_msg *msg) {
  lstr path;
  lorc_key_struct item;

  if ((msg->header.arg1 & LORC_KEYF_ROOT) != 0 || !LIST_EMPTY(&client->waitUpdates)) return 0;
  path.ptr = msg->data1;
  path.len = msg->header.len1;
  memset(&item, 0, sizeof(item));
  item.flags = msg->header.arg1;
  if (lorc_subscr_would_act(client, &path, &item, msg->header.arg0)) return 0;
  _lorc_key_update_item(msg, &path, &item);
  return 1;
}

/*
 * Offered by lmq in the delivering thread (the replier, the bus thread, or
 * a thread that reads the bus while it waits) while "lorcmain" waits for
 * messages with none queued: everything sent to this client before has
 * been handled, and the client thread stays blocked until this returns.
 * Taking a reply or an idle key update here spares the client thread's
 * wake-up on the way; anything unusual goes the normal way, so that the
 * loop logs what it has to.
 */
static int _lorc_idle_message(void *context, void *message, uint32_t size, uint32_t bufferSize,
                              const lmq_address *from) {
  lorc_client *client = (lorc_client *)context;
  lmq_rx_info info;
  loreg_msg msg;

  if (from->service_id != client->lmq.service_id) return 0;
  if (loreg_msg_check_offered(&msg, &info, message, size, bufferSize, from) != 0) return 0;
  if (msg.header.msgtype & LOREG_MSG_REPLY_BIT) return _lorc_idle_reply(client, &msg);
  if (msg.header.msgtype == LOREG_MSG_KEY_UPDATE) return _lorc_idle_key_update(client, &msg);
  return 0;
}

void lorc_onKeyUpdate(lorc_client *client, loreg_msg *msg, const lmq_rx_info *rxInfo) {
  lstr path;
  lorc_key_struct item;
  uint32_t reason = msg->header.arg0;

  _lorc_key_update_item(msg, &path, &item);

  /* Root tracking sees an update before anybody else, and a bulk job's
   * awaited updates are recorded before the subscribers run. */
  lorc_root_keyupd(client, &path, &item, reason, &rxInfo->reply);
  lorc_req_compound_keyupd(client, &item);
  lorc_subscr_process(client, &path, &item, reason, msg->header.tid);
}

static void _lorc_onNotification(lorc_client *client, loreg_msg *msg, const lmq_rx_info *rxInfo) {
  switch (msg->header.msgtype) {
    case LOREG_MSG_IDLE:
      LORC_TASK_LOG(LOREG_LVL_TRACE, "idle notification\n");
      lorc_subscr_process(client, NULL, NULL, 0, 0);
      break;
    case LOREG_MSG_KEY_UPDATE:
      lorc_onKeyUpdate(client, msg, rxInfo);
      break;
    default:
      LORC_TASK_LOG(LOREG_LVL_FAIL, "%s( msgtype=0x%04x ) unknown notification - ignored\n",
                    "lorc_onNotification", (unsigned)msg->header.msgtype);
      break;
  }
}

int lorc_task_dispatch_msg(void *user, loreg_msg *msg, const lmq_rx_info *rxInfo,
                           _cspOsalTime_struct *nextWake) {
  lorc_client *client = (lorc_client *)user;
  int rc = 0;

  if (msg->header.msgtype & LOREG_MSG_REPLY_BIT) {
    _lorc_onReply(client, msg);
  } else if (msg->header.msgtype & LOREG_MSG_NOTIFY_BIT) {
    _lorc_onNotification(client, msg, rxInfo);
  } else {
    rc = LOREG_ERR_WRONG_SIDE;
  }
  (void)lorc_timer_process(client, nextWake);
  return rc;
}

void lorc_task_dispatch_sysmsg(void *user, uint32_t type, uint32_t subType,
                               _cspOsalTime_struct *nextWake) {
  lorc_client *client = (lorc_client *)user;

  LORC_TASK_LOG(LOREG_LVL_DETAIL, "%s(type=0x%x, subType=0x%x)\n", __func__, (unsigned)type,
                (unsigned)subType);
  if (type == LMQ_SYSMSG_HOST_PRESENT && subType == LMQ_SYSMSG_SUBTYPE_PRESENT) {
    /* A server was there before us: ask it for its root. */
    lorc_root_query_send(client);
  }
  if (client->hooks != NULL && client->hooks->onSysMsg != NULL) {
    client->hooks->onSysMsg(client, type, subType, client->hooks->cookie);
  }
  (void)lorc_timer_process(client, nextWake);
}

void lorc_task_dispatch_timeout(void *user, _cspOsalTime_struct *nextWake) {
  (void)lorc_timer_process((lorc_client *)user, nextWake);
}
