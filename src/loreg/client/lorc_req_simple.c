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

/* Copies a successful reply's value into the result buffer, allocating it
 * first for the lorc_m_ queries. At most bufferSize - 1 bytes are copied,
 * then a zero byte; the rest of a longer value is cut off. */
static void _lorc_req_simple_take_value(lorc_client *client, lorc_request *request,
                                        const loreg_msg *msg) {
  uint32_t len = msg->header.len0;

  if (request->type & LORC_REQ_ALLOCATED) {
    request->u.simple.bufferSize = len + 1u;
    request->u.simple.buffer = loreg_malloc(client->allocator, request->u.simple.bufferSize);
    if (request->u.simple.buffer == NULL) {
      LORC_TASK_LOG(LOREG_LVL_FAIL, "%s(reqid=%d) failed to alloc %u bytes for result\n",
                    "lorc_req_simple_reply", (int)msg->header.reqid,
                    (unsigned)request->u.simple.bufferSize);
      request->msg.header.result = -ENOMEM;
      return;
    }
  }
  if (request->u.simple.buffer != NULL && request->u.simple.bufferSize != 0) {
    if (len > request->u.simple.bufferSize - 1u) len = request->u.simple.bufferSize - 1u;
    if (len != 0) memcpy(request->u.simple.buffer, msg->data0, len);
    ((char *)request->u.simple.buffer)[len] = '\0';
    request->u.simple.resultLen = len;
  }
}

void lorc_req_simple_reply(lorc_client *client, apij_job_ref *ref, loreg_msg *msg) {
  lorc_request *request = (lorc_request *)ref->cookie;
  int32_t result;

  request->msg = *msg;
  if (msg->header.result == 0) _lorc_req_simple_take_value(client, request, msg);

  if (request->u.simple.pendingReplies != 0) {
    /* One reply per server: the job ends with the last one, carrying the
     * first failure among them. */
    if (request->u.simple.firstError == 0 && request->msg.header.result != 0) {
      request->u.simple.firstError = request->msg.header.result;
    }
    request->u.simple.pendingReplies--;
    if (request->u.simple.pendingReplies != 0) {
      request->msg.data0 = NULL;
      request->msg.data1 = NULL;
      return;
    }
    result = request->u.simple.firstError;
  } else {
    result = request->msg.header.result;
  }

  apij_JobDone(client->jobs, ref->id, result);
  /* The value points into the loop's receive buffer. It stayed valid for
   * the completion callback, which ran inside apij_JobDone (a bulk job
   * reads a queried value there); it is not valid after this message. */
  request->msg.data0 = NULL;
  request->msg.data1 = NULL;
}

int lorc_req_simple_postproc(lorc_client *client, apij_job_ref *ref) {
  const lorc_request *request = (const lorc_request *)ref->cookie;
  int32_t result = ref->result;
  int value;

  (void)client;
  if (!ref->done) {
    LORC_API_LOG(LOREG_LVL_FAIL, "%s(job=%d): not done yet!\n", __func__, (int)ref->id);
    return -EFAULT;
  }
  /* Fields are read one by one: the client thread may still be clearing
   * the value pointer of the record after the completion. */
  switch (request->msg.header.msgtype) {
    case LOREG_MSG_REPLY_TYPE(LOREG_MSG_VALUE_QUERY):
      LORC_API_LOG(LOREG_LVL_DETAIL, "Job %d (VALUE_QUERY): result=%d. %u byte(s)\n",
                   (int)ref->id, (int)result, (unsigned)request->u.simple.resultLen);
      value = result != 0 ? result : (int)request->u.simple.resultLen;
      if ((request->type & LORC_REQ_ALLOCATED) && request->u.simple.bufferOut != NULL) {
        *request->u.simple.bufferOut = request->u.simple.buffer;
      }
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
      if ((request->type & LORC_REQ_ALLOCATED) && request->u.simple.bufferOut != NULL) {
        *request->u.simple.bufferOut = request->u.simple.buffer;
      }
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
