/*
 * Simple and timer requests.
 *
 * A simple request is one command and one reply (one reply per server for
 * the repository commands). A timer request is a job that no server takes
 * part in: it ends when its timer expires. Start runs on the caller's
 * thread with the caller's copy of the request; reply and expiry run on the
 * client thread on the job's copy; post-processing runs wherever the job is
 * collected.
 */
#include <errno.h>
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "common/loreg_debug.h"
#include "loreg/lorc_client.h"

#define LORC_API_LOG(level, ...) LOREG_LOG((level), LOREG_MOD_CLIENT_API, __VA_ARGS__)
#define LORC_TASK_LOG(level, ...) LOREG_LOG((level), LOREG_MOD_CLIENT_TASK, __VA_ARGS__)

/* ------------------------------------------------------------------------ */
/* Simple requests                                                           */

int lorc_req_simple_start(lorc_client *client, lorc_request *request, const char *path,
                          int32_t jobId, const char *callerName) {
  lmq_address txid;
  _cspOsalTime_struct updated;
  _cspOsalTime_struct now;
  int asReply = 0;
  int rc;

  /* The reply carries the request id back: it is how it finds its job. */
  request->msg.header.reqid = (uint32_t)jobId;

  /* A command for a path under a root that its server announced recently
   * goes straight to that server. */
  if (path != NULL && lorc_root_get_txid(client, path, &txid, &updated) == 0 &&
      cspOsalGetUptime(&now) == 0 && lorc_root_is_valid(&updated, &now)) {
    asReply = 1;
  }
  LORC_API_LOG(LOREG_LVL_TRACE, "%s(job=%d): send as %s\n", callerName, (int)jobId,
               asReply ? "reply" : "command");
  if (asReply) {
    rc = loreg_send_reply(client->lmq.client, &request->msg, &txid);
  } else {
    rc = loreg_send_command(client->lmq.client, client->lmq.service_id, &request->msg);
  }
  if (rc != 0) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(job=%d): failed sending command%s. (code=%d)\n", callerName,
                 (int)jobId, asReply ? " as reply" : "", rc);
  }
  return rc;
}

/* Copies a successful reply's value into the result buffer: the caller's,
 * or for the lorc_m_ queries the one allocated for it (null when that
 * failed, which fails the job with -12). At most bufferSize - 1 bytes are
 * copied, then a zero byte; the rest of a longer value is cut off. */
static void _lorc_req_simple_take_value(lorc_request *request, const loreg_msg *msg,
                                        void *allocated) {
  uint32_t len = msg->header.len0;

  if (lorc_request_type(request) & LORC_REQ_ALLOCATED) {
    if (allocated == NULL) {
      request->msg.header.result = -ENOMEM;
      return;
    }
    request->u.simple.bufferSize = len + 1u;
    request->u.simple.buffer = allocated;
  }
  if (request->u.simple.buffer != NULL && request->u.simple.bufferSize != 0) {
    if (len > request->u.simple.bufferSize - 1u) len = request->u.simple.bufferSize - 1u;
    if (len != 0) memcpy(request->u.simple.buffer, msg->data0, len);
    ((char *)request->u.simple.buffer)[len] = '\0';
    request->u.simple.resultLen = len;
  }
}

/* Takes a reply into the record, under the request mutex. Returns 1 when
 * the job is to be completed with *result, 0 when it waits for more
 * replies, -1 when its collector has given it up (nothing was taken). */
static int _lorc_req_simple_take_nolock(lorc_request *request, const loreg_msg *msg,
                                        void *allocated, int32_t *result) {
  if (lorc_request_type(request) & LORC_REQ_COLLECTED) return -1;

  request->msg = *msg;
  if (msg->header.result == 0) _lorc_req_simple_take_value(request, msg, allocated);
  if (request->u.simple.pendingReplies == 0) {
    *result = request->msg.header.result;
    return 1;
  }
  /* One reply per server: the job ends with the last one, carrying the
   * first failure among them. */
  if (request->u.simple.firstError == 0 && request->msg.header.result != 0) {
    request->u.simple.firstError = request->msg.header.result;
  }
  request->u.simple.pendingReplies--;
  if (request->u.simple.pendingReplies != 0) {
    request->msg.data0 = NULL;
    request->msg.data1 = NULL;
    return 0;
  }
  *result = request->u.simple.firstError;
  return 1;
}

/* Takes a client-allocated result buffer out of the record, for freeing. */
static void *_lorc_req_simple_take_buffer_nolock(lorc_request *request) {
  void *buffer = NULL;

  if (lorc_request_type(request) & LORC_REQ_ALLOCATED) {
    buffer = request->u.simple.buffer;
    request->u.simple.buffer = NULL;
  }
  return buffer;
}

void lorc_req_simple_reply(lorc_client *client, apij_job_ref *ref, loreg_msg *msg) {
  lorc_request *request = (lorc_request *)ref->cookie;
  void *allocated = NULL;
  int32_t result = 0;
  int taken;

  /* Simple jobs are completed by one thread at a time (the client thread,
   * or a replying thread while the client thread is held in its receive),
   * so the reference tells exactly whether this one is done. A further
   * reply (a second server answering a command that went to all, or a
   * repeated one) is dropped: the job's collector may be reading the
   * record, and a client-allocated buffer in it is already the caller's. */
  if (ref->done) return;

  /* A lorc_m_ query's buffer is allocated before the record is taken, so
   * that the host's allocator never runs under the request mutex. */
  if (msg->header.result == 0 && (lorc_request_type(request) & LORC_REQ_ALLOCATED)) {
    allocated = loreg_malloc(client->allocator, (size_t)msg->header.len0 + 1u);
    if (allocated == NULL) {
      LORC_TASK_LOG(LOREG_LVL_FAIL, "%s(reqid=%d) failed to alloc %u bytes for result\n",
                    "lorc_req_simple_reply", (int)msg->header.reqid,
                    (unsigned)msg->header.len0 + 1u);
    }
  }
  lorc_request_lock();
  taken = _lorc_req_simple_take_nolock(request, msg, allocated, &result);
  lorc_request_unlock();
  if (taken < 0) {
    /* Given up by its collector: the caller has its buffer back. */
    if (allocated != NULL) loreg_free(client->allocator, allocated);
    return;
  }
  if (taken == 0) return;

  if (apij_JobDone(client->jobs, ref->id, result) == -ENOENT) {
    /* Destroyed meanwhile without being collected: nobody takes a buffer
     * that the client allocated. */
    lorc_request_lock();
    allocated = _lorc_req_simple_take_buffer_nolock(request);
    lorc_request_unlock();
    if (allocated != NULL) loreg_free(client->allocator, allocated);
  }
  /* The value points into the loop's receive buffer. It stayed valid for
   * the completion callback, which ran inside apij_JobDone (a bulk job
   * reads a queried value there); it is not valid after this message. */
  request->msg.data0 = NULL;
  request->msg.data1 = NULL;
}

/* The collector gives up a job that is not done: a reply still to come
 * must not write into the caller's buffer any more, and a buffer that the
 * client allocated for it goes back. */
static void _lorc_req_simple_give_up(lorc_client *client, lorc_request *request) {
  void *buffer;

  lorc_request_lock();
  lorc_request_set_type_bits(request, LORC_REQ_COLLECTED);
  buffer = _lorc_req_simple_take_buffer_nolock(request);
  lorc_request_unlock();
  if (buffer != NULL) loreg_free(client->allocator, buffer);
}

/* A lorc_m_ query's buffer becomes the caller's, who frees it with
 * lorc_m_free. */
static void _lorc_req_simple_hand_over(const lorc_request *request) {
  if ((lorc_request_type(request) & LORC_REQ_ALLOCATED) && request->u.simple.bufferOut != NULL) {
    *request->u.simple.bufferOut = request->u.simple.buffer;
  }
}

int lorc_req_simple_postproc(lorc_client *client, apij_job_ref *ref) {
  lorc_request *request = (lorc_request *)ref->cookie;
  int32_t result = ref->result;
  int value;

  if (!ref->done) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(job=%d): not done yet!\n", __func__, (int)ref->id);
    _lorc_req_simple_give_up(client, request);
    return -EFAULT;
  }
  /* Fields are read one by one: the client thread may still be clearing
   * the value pointer of the record after the completion. */
  switch (request->msg.header.msgtype) {
    case LOREG_MSG_REPLY_TYPE(LOREG_MSG_VALUE_QUERY):
      LORC_API_LOG(LOREG_LVL_DETAIL, "Job %d (VALUE_QUERY): result=%d. %u byte(s)\n",
                   (int)ref->id, (int)result, (unsigned)request->u.simple.resultLen);
      value = result != 0 ? result : (int)request->u.simple.resultLen;
      _lorc_req_simple_hand_over(request);
      return value;
    case LOREG_MSG_REPLY_TYPE(LOREG_MSG_KEY_COUNT):
      LORC_API_LOG(LOREG_LVL_DETAIL, "Job %d (KEY_COUNT): result=%d. %d key(s)\n", (int)ref->id,
                   (int)result, (int)request->msg.header.arg0);
      return result != 0 ? result : (int)request->msg.header.arg0;
    case LOREG_MSG_REPLY_TYPE(LOREG_MSG_KEY_QUERY):
      LORC_API_LOG(LOREG_LVL_DETAIL, "Job %d (KEY_QUERY): result=%d. %u byte(s)\n", (int)ref->id,
                   (int)result, (unsigned)request->u.simple.resultLen);
      value = result != 0 ? result : (int)request->u.simple.resultLen;
      /* On a failure the reply's arg0 is only the mask echoed. */
      if (result == 0 && request->u.simple.keyFlagsOut != NULL) {
        *request->u.simple.keyFlagsOut = request->msg.header.arg0;
      }
      _lorc_req_simple_hand_over(request);
      return value;
    case LOREG_MSG_REPLY_TYPE(LOREG_MSG_TA_START):
      LORC_API_LOG(LOREG_LVL_DETAIL, "Job %d (TRANSACTION_START): result=%d. tid=%d\n",
                   (int)ref->id, (int)result, (int)request->msg.header.tid);
      return result != 0 ? result : (int)request->msg.header.tid;
    case LOREG_MSG_REPLY_TYPE(LOREG_MSG_TA_START_TIMED):
      LORC_API_LOG(LOREG_LVL_DETAIL, "Job %d (TIMED_TRANSACTION_START): result=%d. tid=%d\n",
                   (int)ref->id, (int)result, (int)request->msg.header.tid);
      return result != 0 ? result : (int)request->msg.header.tid;
    case LOREG_MSG_REPLY_TYPE(LOREG_MSG_TID_ACQUIRE):
      LORC_API_LOG(LOREG_LVL_DETAIL, "Job %d (TRANSID_ACQUIRE): result=%d. tid=%d\n",
                   (int)ref->id, (int)result, (int)request->msg.header.tid);
      return result != 0 ? result : (int)request->msg.header.tid;
    default:
      LORC_API_LOG(LOREG_LVL_DETAIL, "Job %d: result=%d.\n", (int)ref->id, (int)result);
      return result;
  }
}

/* ------------------------------------------------------------------------ */
/* Timer requests                                                            */

int lorc_req_timer_start(lorc_client *client, lorc_request *request, int32_t jobId,
                         const char *callerName) {
  _cspOsalTime_struct timeout;
  uint32_t ms = request->u.simple.bufferSize;
  int timerId;
  int rc;

  /* The expiry handler takes the client mutex before it looks for the
   * job, so a timer that fires at once cannot miss its job. */
  if (pthread_mutex_lock(&client->mutex) != 0) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(): Unable to lock mutex\n", __func__);
    return -ENOLCK;
  }
  timeout.sec = (int64_t)(ms / 1000u);
  timeout.usec = (int32_t)((ms % 1000u) * 1000u);
  timerId = lorc_timer_create(client, &timeout, NULL);
  if (timerId < 0) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(%d): failed to create timer, %d\n", callerName, (int)jobId,
                 timerId);
    pthread_mutex_unlock(&client->mutex);
    return timerId;
  }
  rc = apij_JobAssignTmrId(client->jobs, jobId, timerId);
  if (rc != 0) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(): failed associate timer %d to job %d, %d\n", callerName,
                 timerId, (int)jobId, rc);
    lorc_timer_destroy(client, timerId);
    pthread_mutex_unlock(&client->mutex);
    return rc;
  }
  LORC_API_LOG(LOREG_LVL_DETAIL, "%s(job=%d): timer %d created, %u ms\n", callerName, (int)jobId,
               timerId, (unsigned)ms);
  pthread_mutex_unlock(&client->mutex);
  return 0;
}

int lorc_req_timer_postproc(lorc_client *client, apij_job_ref *ref) {
  const lorc_request *request = (const lorc_request *)ref->cookie;
  int value;

  if (!ref->done) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(job=%d): not done yet!\n", __func__, (int)ref->id);
    value = -EFAULT;
  } else if (ref->result == -ETIMEDOUT) {
    value = (int)(intptr_t)request->u.simple.buffer;
  } else {
    value = ref->result;
  }
  /* An expired one-shot timer is parked in the queue until destroyed; a
   * timer already gone makes the destroy fail, which does not matter. */
  if (ref->tmrId >= 0) (void)lorc_timer_destroy(client, ref->tmrId);
  return value;
}
