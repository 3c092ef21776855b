/*
 * Registry client API: the operations, the common job processing behind
 * them, the job functions and the client's timers.
 *
 * Every operation fills a request record on its stack and hands it to
 * lorc_api_job_process, which makes a job of it (the job keeps its own
 * copy of the record), starts it by its kind, and then either returns the
 * job id or waits for the job and turns it into the operation's value.
 * A job has exactly one collector: the waiting caller, the job callback,
 * or lorc_job_get_result / lorc_job_cancel.
 */
#include <errno.h>
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "common/loreg_debug.h"
#include "loreg/lorc_client.h"

#define LORC_API_LOG(level, ...) LOREG_LOG((level), LOREG_MOD_CLIENT_API, __VA_ARGS__)

/* ------------------------------------------------------------------------ */
/* Admission and argument checks                                             */

/* Admits a public call; a refused one is logged under the caller's name. A
 * call admitted here leaves with lorc_client_leave. */
static int _lorc_enter(lorc_client *client, const char *caller) {
  if (lorc_client_enter(client) != 0) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(): client not yet initialized.\n", caller);
    return -EFAULT;
  }
  return 0;
}

/* The same test for the internal entries, which run inside an admitted
 * call or on the client thread. */
static int _lorc_check_client(const lorc_client *client, const char *caller) {
  if (!lorc_client_valid(client)) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(): client not yet initialized.\n", caller);
    return -EFAULT;
  }
  return 0;
}

static int _lorc_check_buffer(const void *buffer, uint32_t size, const char *caller) {
  if (size != 0 && buffer == NULL) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(): invalid buffer given.\n", caller);
    return -EINVAL;
  }
  return 0;
}

/* ------------------------------------------------------------------------ */
/* Job processing                                                            */

static int _lorc_request_start(lorc_client *client, lorc_request *request, const char *path,
                               int32_t jobId, const char *callerName) {
  switch (request->type & LORC_REQ_KIND_MASK) {
    case LORC_REQ_COMPOUND:
      return lorc_req_compound_start(client, request, jobId, callerName);
    case LORC_REQ_TIMER:
      return lorc_req_timer_start(client, request, jobId, callerName);
    case LORC_REQ_SIMPLE:
      return lorc_req_simple_start(client, request, path, jobId, callerName);
    default:
      LORC_API_LOG(LOREG_LVL_FAIL, "%s(job=%d): unknown request type 0x%04x.\n", callerName,
                   (int)jobId, (unsigned)request->type);
      return -EFAULT;
  }
}

int lorc_api_job_process(lorc_client *client, lorc_request *request, const char *path,
                         int32_t timeOut, const char *callerName) {
  int32_t callbackId = 0;
  int32_t jobId;
  apij_job_ref ref;
  int waitRc;
  uint32_t leadMs;
  int rc;
  int value;

  if (_lorc_check_client(client, callerName) != 0) return -EFAULT;
  if (timeOut >= 1 && lorc_is_client_thread(client)) {
    /* Only the client thread could deliver the reply: waiting here would
     * never end. */
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(): nested API call from callback! Would block with timeOut=%d\n",
                 callerName, (int)timeOut);
    return -EAGAIN;
  }
  if (timeOut < 0 && timeOut != INT32_MIN) callbackId = -timeOut;

  jobId = apij_JobCreate(client->jobs, request, -1, callbackId, NULL);
  if (jobId < 0) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(): failed creating job. (code %d)\n", callerName, jobId);
    return -ENOMEM;
  }
  LORC_API_LOG(LOREG_LVL_DETAIL, "%s(): created job=%d, cbid=%d, timeout=%d\n", callerName,
               (int)jobId, (int)callbackId, (int)timeOut);

  /* A synchronous simple request is answered in this thread if it can
   * (lorc_client_lead); the bus hears of it before the request goes. */
  leadMs = timeOut >= 1 && (lorc_request_type(request) & LORC_REQ_KIND_MASK) == LORC_REQ_SIMPLE
               ? lorc_client_lead_ms(client)
               : 0;
  if (leadMs != 0) lorc_client_lead_next(client, 1);
  rc = _lorc_request_start(client, request, path, jobId, callerName);
  if (rc != 0) {
    if (leadMs != 0) lorc_client_lead_next(client, 0);
    apij_JobDestroy(client->jobs, jobId);
    return rc;
  }
  if (timeOut < 1) {
    LORC_API_LOG(LOREG_LVL_TRACE, "%s(): async job=%d\n", callerName, (int)jobId);
    return jobId;
  }

  LORC_API_LOG(LOREG_LVL_TRACE, "%s(): sync job=%d\n", callerName, (int)jobId);
  /* A job the lead saw done needs no wait: its result stays in the job. */
  waitRc = leadMs != 0 && lorc_client_lead(client, jobId, leadMs)
               ? 0
               : lorc_client_wait(client, jobId, NULL, timeOut);
  rc = apij_JobRefGet(client->jobs, jobId, &ref);
  if (rc <= 0) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(sync job=%d): failed re-obtaining job reference. (code=%d)\n",
                 callerName, (int)jobId, rc);
    apij_JobDestroy(client->jobs, jobId);
    return -EFAULT;
  }
  /* The job's own result reaches the caller through the post-processing.
   * An expired or failed wait still runs it for its side effects, such as
   * ending a bulk job's work; the value is then that of the wait. */
  if (waitRc == 0) {
    value = lorc_api_job_postproc(client, &ref);
  } else if (waitRc == -ETIMEDOUT) {
    (void)lorc_api_job_postproc(client, &ref);
    value = -ETIMEDOUT;
  } else {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(sync job=%d): failed waiting for job completion. (code=%d)\n",
                 callerName, (int)jobId, waitRc);
    (void)lorc_api_job_postproc(client, &ref);
    value = -EFAULT;
  }
  apij_JobRefRelease(client->jobs, &ref);
  apij_JobDestroy(client->jobs, jobId);
  return value;
}

int lorc_api_job_postproc(lorc_client *client, apij_job_ref *ref) {
  const lorc_request *request = (const lorc_request *)ref->cookie;
  /* A bulk job's state bits may change on the client thread meanwhile; its
   * kind never does. */
  uint32_t type = lorc_request_type(request);

  switch (type & LORC_REQ_KIND_MASK) {
    case LORC_REQ_COMPOUND:
      return lorc_req_compound_postproc(client, ref);
    case LORC_REQ_TIMER:
      return lorc_req_timer_postproc(client, ref);
    case LORC_REQ_SIMPLE:
      return lorc_req_simple_postproc(client, ref);
    default:
      LORC_API_LOG(LOREG_LVL_FAIL, "%s(job=%d): unknown request type 0x%04x.\n", __func__,
                   (int)ref->id, (unsigned)type);
      return -EFAULT;
  }
}

int lorc_api_job_cb_register(lorc_client *client,
                             void (*internalFn)(lorc_client *client, apij_job_ref *ref,
                                                int32_t value, void *cookie),
                             lorc_job_user_fn userFn, void *cookie) {
  lorc_job_cb cb;

  if (_lorc_check_client(client, __func__) != 0) return -EFAULT;
  if (internalFn == NULL && userFn == NULL) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(): can't register NULL\n", __func__);
    return -EINVAL;
  }
  cb.client = client;
  cb.internalFn = internalFn;
  cb.userFn = userFn;
  cb.cookie = cookie;
  return apij_CbRegister(client->jobs, lorc_job_callback, &cb);
}

/* Runs at the completion of every callback job, on the thread that
 * completed it (the client thread), with no lock held. The callback is the
 * job's collector: the job is destroyed here. */
int lorc_job_callback(apij_inst *instance, apij_job_ref *ref, void *cookie) {
  const lorc_job_cb *cb = (const lorc_job_cb *)cookie;
  int value = lorc_api_job_postproc(cb->client, ref);

  if (cb->internalFn != NULL) {
    cb->internalFn(cb->client, ref, value, cb->cookie);
  } else {
    cb->userFn(cb->client, ref->callbackId, ref->id, value, cb->cookie);
  }
  apij_JobDestroy(instance, ref->id);
  return 0;
}

/* ------------------------------------------------------------------------ */
/* Operations                                                                */

/* How an operation checks its path. A missing one is spelled "missiing" by
 * the value and key operations and "missing" by the transaction ones. */
enum lorc_path_rule { LORC_PATH_NONE, LORC_PATH_KEY, LORC_PATH_TRANSACTION };

/*
 * A simple operation as its API function describes it. _lorc_op_run checks
 * the client, the path and the buffers in this order, builds the request
 * and hands it to lorc_api_job_process. Fields left zero are not used.
 */
typedef struct lorc_op {
  const char *name; /* the API function, for the logs */
  uint16_t msgtype;
  int32_t tid;
  enum lorc_path_rule pathRule;
  const char *path;
  uint32_t arg0;
  uint32_t arg1;
  const void *value;          /* data0 of a set: valueLen bytes */
  uint32_t valueLen;
  void *buffer;               /* result buffer of a query: bufferSize bytes */
  uint32_t bufferSize;
  uint32_t *keyFlagsOut;      /* flags of the key a key query finds */
  char **bufferOut;           /* lorc_m_ queries: receives the client's buffer */
  const char *bufferOutName;  /* ... and names that argument; set for them only */
  int allServers;             /* one reply from every server with a valid root */
} lorc_op;

/* Lengths travel in 16 bits: a longer path or value is refused rather than
 * sent cut. */
static int _lorc_check_path(const char *path, enum lorc_path_rule rule, const char *caller) {
  size_t len;

  if (path == NULL) {
    if (rule == LORC_PATH_TRANSACTION) {
      LORC_API_LOG(LOREG_LVL_FAIL, "%s(): path missing.\n", caller);
    } else {
      LORC_API_LOG(LOREG_LVL_FAIL, "%s(): path missiing.\n", caller);
    }
    return -EINVAL;
  }
  len = strlen(path);
  if (len > UINT16_MAX) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(): path too long (%lu bytes).\n", caller,
                 (unsigned long)len);
    return -EINVAL;
  }
  return 0;
}

static int _lorc_op_check(const lorc_op *op) {
  if (op->pathRule != LORC_PATH_NONE && _lorc_check_path(op->path, op->pathRule, op->name) != 0) {
    return -EINVAL;
  }
  if (_lorc_check_buffer(op->value, op->valueLen, op->name) != 0) return -EINVAL;
  if (op->valueLen > UINT16_MAX) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(): value too long (%u bytes).\n", op->name,
                 (unsigned)op->valueLen);
    return -EINVAL;
  }
  if (_lorc_check_buffer(op->buffer, op->bufferSize, op->name) != 0) return -EINVAL;
  if (op->bufferOutName != NULL && op->bufferOut == NULL) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(): %s is NULL.\n", op->name, op->bufferOutName);
    return -EINVAL;
  }
  return 0;
}

static void _lorc_op_request(const lorc_op *op, lorc_request *request) {
  memset(request, 0, sizeof(*request));
  request->type = LORC_REQ_SIMPLE | (op->bufferOutName != NULL ? LORC_REQ_ALLOCATED : 0u);
  request->msg.header.msgtype = op->msgtype;
  request->msg.header.tid = op->tid;
  request->msg.header.arg0 = op->arg0;
  request->msg.header.arg1 = op->arg1;
  /* Sending only reads path and value; the record's pointers are not const
   * because received messages are terminated in place. */
  if (op->path != NULL) {
    request->msg.data1 = (char *)(uintptr_t)op->path;
    request->msg.header.len1 = (uint16_t)strlen(op->path);
  }
  if (op->value != NULL) {
    request->msg.data0 = (char *)(uintptr_t)op->value;
    request->msg.header.len0 = (uint16_t)op->valueLen;
  }
  request->u.simple.buffer = op->buffer;
  request->u.simple.bufferSize = op->bufferSize;
  request->u.simple.keyFlagsOut = op->keyFlagsOut;
  request->u.simple.bufferOut = (void **)op->bufferOut;
}

/* Store and reload go to every server: with more than one valid root the
 * job waits for one reply from each of them. */
static void _lorc_op_count_servers(lorc_client *client, lorc_request *request) {
  _cspOsalTime_struct now;
  int valid;

  if (cspOsalGetUptime(&now) != 0) return;
  valid = lorc_root_count_valid(client, &now);
  if (valid > 1) request->u.simple.pendingReplies = (uint32_t)valid;
}

static int _lorc_op_run(lorc_client *client, const lorc_op *op, int32_t timeOut) {
  lorc_request request;
  int rc;

  if (op->bufferOut != NULL) *op->bufferOut = NULL;
  if (_lorc_enter(client, op->name) != 0) return -EFAULT;
  rc = _lorc_op_check(op);
  if (rc == 0) {
    _lorc_op_request(op, &request);
    if (op->allServers) _lorc_op_count_servers(client, &request);
    rc = lorc_api_job_process(client, &request, op->path, timeOut, op->name);
  }
  lorc_client_leave(client);
  return rc;
}

int lorc_value_query(lorc_client *client, int32_t tid, const char *path, void *buffer,
                     uint32_t bufferSize, int32_t timeOut) {
  const lorc_op op = {.name = __func__, .msgtype = LOREG_MSG_VALUE_QUERY, .tid = tid,
                      .pathRule = LORC_PATH_KEY, .path = path, .buffer = buffer,
                      .bufferSize = bufferSize};
  return _lorc_op_run(client, &op, timeOut);
}

int lorc_value_set(lorc_client *client, int32_t tid, const char *path, const void *value,
                   uint32_t valueLen, uint32_t setFlags, int32_t timeOut) {
  const lorc_op op = {.name = __func__, .msgtype = LOREG_MSG_VALUE_SET, .tid = tid,
                      .pathRule = LORC_PATH_KEY, .path = path, .arg0 = setFlags,
                      .value = value, .valueLen = valueLen};
  return _lorc_op_run(client, &op, timeOut);
}

int lorc_key_delete(lorc_client *client, int32_t tid, const char *path, int32_t timeOut) {
  const lorc_op op = {.name = __func__, .msgtype = LOREG_MSG_KEY_DELETE, .tid = tid,
                      .pathRule = LORC_PATH_KEY, .path = path};
  return _lorc_op_run(client, &op, timeOut);
}

int lorc_key_count(lorc_client *client, int32_t tid, const char *path, uint32_t mask,
                   int32_t timeOut) {
  const lorc_op op = {.name = __func__, .msgtype = LOREG_MSG_KEY_COUNT, .tid = tid,
                      .pathRule = LORC_PATH_KEY, .path = path, .arg0 = mask};
  return _lorc_op_run(client, &op, timeOut);
}

int lorc_key_query(lorc_client *client, int32_t tid, const char *path, uint32_t mask,
                   int32_t index, uint32_t *keyFlagsOut, void *buffer, uint32_t bufferSize,
                   int32_t timeOut) {
  const lorc_op op = {.name = __func__, .msgtype = LOREG_MSG_KEY_QUERY, .tid = tid,
                      .pathRule = LORC_PATH_KEY, .path = path, .arg0 = mask,
                      .arg1 = (uint32_t)index, .buffer = buffer, .bufferSize = bufferSize,
                      .keyFlagsOut = keyFlagsOut};
  return _lorc_op_run(client, &op, timeOut);
}

/* The plain start is the timed one with no wait and the server's default
 * limit; the server's fixed-default start is never used. */
int lorc_transaction_start(lorc_client *client, const char *path, int32_t timeOut) {
  const lorc_op op = {.name = __func__, .msgtype = LOREG_MSG_TA_START_TIMED,
                      .pathRule = LORC_PATH_TRANSACTION, .path = path};
  return _lorc_op_run(client, &op, timeOut);
}

int lorc_transaction_timed_start(lorc_client *client, const char *path, uint32_t waitTimeMs,
                                 uint32_t maxDurationMs, int32_t timeOut) {
  const lorc_op op = {.name = __func__, .msgtype = LOREG_MSG_TA_START_TIMED,
                      .pathRule = LORC_PATH_TRANSACTION, .path = path, .arg0 = waitTimeMs,
                      .arg1 = maxDurationMs};
  return _lorc_op_run(client, &op, timeOut);
}

int lorc_transaction_end(lorc_client *client, int32_t tid, int32_t timeOut) {
  const lorc_op op = {.name = __func__, .msgtype = LOREG_MSG_TA_END, .tid = tid};
  return _lorc_op_run(client, &op, timeOut);
}

int lorc_transid_acquire(lorc_client *client, const char *path, int32_t timeOut) {
  const lorc_op op = {.name = __func__, .msgtype = LOREG_MSG_TID_ACQUIRE,
                      .pathRule = LORC_PATH_TRANSACTION, .path = path};
  return _lorc_op_run(client, &op, timeOut);
}

int lorc_transid_release(lorc_client *client, const char *path, int32_t tid, int32_t timeOut) {
  const lorc_op op = {.name = __func__, .msgtype = LOREG_MSG_TID_RELEASE, .tid = tid,
                      .pathRule = LORC_PATH_TRANSACTION, .path = path};
  return _lorc_op_run(client, &op, timeOut);
}

int lorc_repository_store(lorc_client *client, int32_t timeOut) {
  const lorc_op op = {.name = __func__, .msgtype = LOREG_MSG_REPO_STORE, .allServers = 1};
  return _lorc_op_run(client, &op, timeOut);
}

int lorc_repository_reload(lorc_client *client, int32_t timeOut) {
  const lorc_op op = {.name = __func__, .msgtype = LOREG_MSG_REPO_RELOAD, .allServers = 1};
  return _lorc_op_run(client, &op, timeOut);
}

int lorc_m_value_query(lorc_client *client, int32_t tid, const char *path, char **ppValue,
                       int32_t timeOut) {
  const lorc_op op = {.name = __func__, .msgtype = LOREG_MSG_VALUE_QUERY, .tid = tid,
                      .pathRule = LORC_PATH_KEY, .path = path, .bufferOut = ppValue,
                      .bufferOutName = "ppValue"};
  return _lorc_op_run(client, &op, timeOut);
}

int lorc_m_key_query(lorc_client *client, int32_t tid, const char *path, uint32_t mask,
                     int32_t index, uint32_t *keyFlagsOut, char **ppKey, int32_t timeOut) {
  const lorc_op op = {.name = __func__, .msgtype = LOREG_MSG_KEY_QUERY, .tid = tid,
                      .pathRule = LORC_PATH_KEY, .path = path, .arg0 = mask,
                      .arg1 = (uint32_t)index, .keyFlagsOut = keyFlagsOut, .bufferOut = ppKey,
                      .bufferOutName = "ppKey"};
  return _lorc_op_run(client, &op, timeOut);
}

void lorc_m_free(lorc_client *client, void *block) {
  /* With a bad client the allocator is unknown: the block stays. */
  if (_lorc_enter(client, __func__) != 0) return;
  loreg_free(client->allocator, block);
  lorc_client_leave(client);
}

int lorc_bulk_operation(lorc_client *client, lorkc_container *container, int32_t timeOut) {
  lorc_request request;
  int rc;

  if (_lorc_enter(client, __func__) != 0) return -EFAULT;
  if (container == NULL) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(): container is NULL.\n", __func__);
    rc = -EINVAL;
  } else {
    memset(&request, 0, sizeof(request));
    request.type = LORC_REQ_COMPOUND;
    request.u.compound.container = container;
    request.u.compound.subjob = -1;
    rc = lorc_api_job_process(client, &request, NULL, timeOut, __func__);
  }
  lorc_client_leave(client);
  return rc;
}

/* ------------------------------------------------------------------------ */
/* Jobs                                                                      */

int lorc_job_wait(lorc_client *client, int32_t jobId, int32_t timeOut) {
  int rc;

  if (_lorc_enter(client, __func__) != 0) return -EFAULT;
  rc = lorc_client_wait(client, jobId, NULL, timeOut);
  lorc_client_leave(client);
  return rc;
}

int lorc_job_get_result(lorc_client *client, int32_t jobId, int32_t *resultOut) {
  apij_job_ref ref;
  int32_t value = -EAGAIN;
  int rc;

  if (_lorc_enter(client, __func__) != 0) {
    if (resultOut != NULL) *resultOut = -EAGAIN;
    return -EFAULT;
  }
  rc = apij_JobRefGet(client->jobs, jobId, &ref);
  if (rc > 0) {
    if (!ref.done) {
      rc = -EINPROGRESS;
    } else {
      value = lorc_api_job_postproc(client, &ref);
      rc = 0;
      apij_JobDestroy(client->jobs, jobId);
    }
    apij_JobRefRelease(client->jobs, &ref);
  }
  lorc_client_leave(client);
  if (resultOut != NULL) *resultOut = value;
  return rc;
}

int lorc_job_cancel(lorc_client *client, int32_t jobId) {
  apij_job_ref ref;
  int rc;

  if (_lorc_enter(client, __func__) != 0) return -EFAULT;
  rc = apij_JobRefGet(client->jobs, jobId, &ref);
  if (rc > 0) {
    /* Done or not: a timer job loses its timer, a bulk job its callback. */
    (void)lorc_api_job_postproc(client, &ref);
    apij_JobDestroy(client->jobs, jobId);
    apij_JobRefRelease(client->jobs, &ref);
    rc = 0;
  }
  lorc_client_leave(client);
  return rc;
}

int lorc_job_cb_register(lorc_client *client, lorc_job_user_fn userFn, void *cookie) {
  int rc;

  if (_lorc_enter(client, __func__) != 0) return -EFAULT;
  LORC_API_LOG(LOREG_LVL_DETAIL, "REG_CLIENT_TEST %s(): register job callback, handle = 0x%x.\n",
               __func__, (unsigned)(uintptr_t)client);
  rc = lorc_api_job_cb_register(client, NULL, userFn, cookie);
  LORC_API_LOG(LOREG_LVL_DETAIL, "REG_CLIENT_TEST %s(): job callback id = %d.\n", __func__, rc);
  lorc_client_leave(client);
  return rc;
}

int lorc_job_cb_unregister(lorc_client *client, int32_t callbackId, int removeJobs) {
  int rc;

  if (_lorc_enter(client, __func__) != 0) return -EFAULT;
  rc = apij_CbUnregister(client->jobs, callbackId, removeJobs);
  lorc_client_leave(client);
  return rc;
}

int lorc_job_create_timer(lorc_client *client, uint32_t timeMs, int32_t expiryValue,
                          int32_t callbackId) {
  lorc_request request;
  int rc;

  if (_lorc_enter(client, __func__) != 0) return -EFAULT;
  if (callbackId > 0) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(): 'callbackId' must be <= 0 (is %d).\n", __func__,
                 (int)callbackId);
    rc = -EINVAL;
  } else {
    memset(&request, 0, sizeof(request));
    request.type = LORC_REQ_TIMER;
    request.u.simple.buffer = (void *)(intptr_t)expiryValue;
    request.u.simple.bufferSize = timeMs;
    /* The callback id doubles as timeOut: a timer job is never waited for
     * here. */
    rc = lorc_api_job_process(client, &request, NULL, callbackId, __func__);
  }
  lorc_client_leave(client);
  return rc;
}

/* ------------------------------------------------------------------------ */
/* Client timers                                                             */

int lorc_timer_create(lorc_client *client, const _cspOsalTime_struct *timeout,
                      const _cspOsalTime_struct *period) {
  tmrq_info info;
  _cspOsalTime_struct now;
  int index;
  int rc;

  if (!lorc_client_valid(client) || (timeout == NULL && period == NULL)) return -EINVAL;
  rc = cspOsalGetUptime(&now);
  if (rc != 0) return rc;

  memset(&info, 0, sizeof(info));
  cspOsalAddTime(&info.timeout, &now, timeout != NULL ? timeout : period);
  if (period != NULL) info.period = *period;
  info.callback = lorc_timer_callback;
  info.user.ptr = client;
  index = tmrq_TimerCreate(client->timers, &info);
  if (index < 0) return index;

  /* The loop sleeps until the former first timer; a new first timer must
   * wake it, unless we are the loop. */
  if (index == 0 && !lorc_is_client_thread(client)) {
    rc = lorc_client_send_idle(client);
    if (rc != 0) {
      LORC_API_LOG(LOREG_LVL_FAIL,
                   "%s(): failed sending idle notification! (code %d) Timer id %d may be delayed!\n",
                   __func__, rc, (int)info.id);
    }
  }
  return info.id;
}

int lorc_timer_destroy(lorc_client *client, int32_t timerId) {
  int rc;

  if (client == NULL || timerId <= 0) return -EINVAL;
  rc = tmrq_TimerDestroy(client->timers, timerId);
  return rc < 0 ? rc : 0;
}

int lorc_timer_process(lorc_client *client, _cspOsalTime_struct *nextWake) {
  _cspOsalTime_struct now;
  _cspOsalTime_struct remaining;
  tmrq_info next;
  int fired;

  if (client == NULL || nextWake == NULL) return -EINVAL;
  if (cspOsalGetUptime(&now) != 0) return -EFAULT;
  fired = tmrq_Process(client->timers, &now);
  if (tmrq_TimerGet(client->timers, 0, &next) < 0) return fired;
  /* Callbacks take time: after some ran, measure the rest of the wait
   * from a fresh reading. */
  if (fired > 0) (void)cspOsalGetUptime(&now);
  cspOsalSubtractTime3(&remaining, &next.timeout, &now);
  (void)_cspOsalPlatform_Common_RelativeTimeout(nextWake, &remaining);
  return fired;
}

int lorc_timer_callback(tmrq_inst *queue, const tmrq_info *info, const _cspOsalTime_struct *now) {
  lorc_client *client = (lorc_client *)info->user.ptr;
  int32_t jobId;

  (void)queue;
  (void)now;
  if (info->id == client->idleTimerId) {
    if (client->hooks != NULL && client->hooks->onIdleTimer != NULL) {
      client->hooks->onIdleTimer(client, client->hooks->cookie);
    }
    return 0;
  }
  if (info->id == client->rootQueryTimerId) {
    lorc_root_query_send(client);
    return 0;
  }
  /* A timer job's start holds the client mutex from the timer's creation
   * to its pairing with the job, so under the mutex the pairing is
   * complete. */
  if (pthread_mutex_lock(&client->mutex) != 0) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(): Unable to lock mutex\n", __func__);
    return 0;
  }
  jobId = apij_JobRefGetTmr(client->jobs, info->id, NULL);
  pthread_mutex_unlock(&client->mutex);
  if (jobId > 0) apij_JobDone(client->jobs, jobId, -ETIMEDOUT);
  return 0;
}

/* ------------------------------------------------------------------------ */
/* Roots                                                                     */

int lorc_root_query(lorc_client *client, int32_t index, uint32_t *flagsOut, char *buffer,
                    uint32_t bufferSize) {
  _cspOsalTime_struct updated;
  _cspOsalTime_struct now;
  int rc;

  if (_lorc_enter(client, __func__) != 0) return -EFAULT;
  rc = lorc_root_get_path(client, index, flagsOut, &updated, buffer, bufferSize);
  /* No timer removes a stale root; the reader marks it. */
  if (flagsOut != NULL && rc >= 0 && cspOsalGetUptime(&now) == 0 &&
      !lorc_root_is_valid(&updated, &now)) {
    *flagsOut |= LORC_ROOT_STALE;
  }
  lorc_client_leave(client);
  return rc;
}
