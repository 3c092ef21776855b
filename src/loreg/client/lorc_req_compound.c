/*
 * Compound bulk requests of the registry client.
 *
 * A bulk job carries out a whole key container: each key's flags name the
 * operation (LORC_BULKOP_*). The job is a small state machine on the client
 * thread. The caller's thread checks the container and sends an echo; the
 * echo's reply brings the job to the client thread, which from then on runs
 * one asynchronous sub-job at a time (a simple request with the job
 * callback of this bulk job), optionally inside one transaction, writes
 * queried values back into the container and waits for the key updates
 * the container asks for. The job is complete when all sub-jobs are
 * finished (LORC_REQ_SUBJOBS_DONE) and all awaited updates have come
 * (LORC_REQ_UPDATES_DONE).
 *
 * After the start, the walk works on the request record and the container
 * on the client thread alone; a collector that ends the job early from
 * another thread meets it under the request mutex. The wait node list
 * is changed under the client mutex.
 */
#include <errno.h>
#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "common/loreg_debug.h"
#include "loreg/apij.h"
#include "loreg/lorc.h"
#include "loreg/lorc_client.h"
#include "loreg/loreg_alloc.h"
#include "loreg/loreg_msg.h"
#include "loreg/lorkc.h"

/* Key flag bits that a set passes on, and that a query or update replaces. */
#define LORC_BULK_SETFLAGS_MASK 0xFFF1Fu
#define LORC_BULK_KEYFLAGS_MASK 0x1Fu
#define LORC_BULK_MARKS (LORC_BULKOP_DONE | LORC_BULKOP_FAILED)
#define LORC_BULK_TRIGGER_LEVEL(flags) (((flags) >> 8) & 0xFFFu)

static uint32_t _lorc_bulk_op(uint32_t flags) { return flags & LORC_BULKOP_MASK; }

static lorc_request *_lorc_req_of(const apij_job_ref *ref) { return (lorc_request *)ref->cookie; }

/* --- Wait nodes -------------------------------------------------------- */

static int _lorc_waitupd_add(lorc_client *client, int32_t jobId) {
  lorc_waitupd_node *node = loreg_malloc(client->allocator, sizeof(*node));
  if (node == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_TASK,
              "%s(): failed to alloc %d bytes for new node\n", __func__, (int)sizeof(*node));
    return -ENOMEM;
  }
  memset(node, 0, sizeof(*node));
  node->jobId = jobId;
  if (pthread_mutex_lock(&client->mutex) != 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_TASK, "%s(): Unable to lock client mutex\n",
              __func__);
    loreg_free(client->allocator, node);
    return -ENOLCK;
  }
  LIST_INSERT_HEAD(&client->waitUpdates, node, link);
  pthread_mutex_unlock(&client->mutex);
  return 0;
}

static void _lorc_waitupd_unlink_free(lorc_client *client, lorc_waitupd_node *node) {
  if (pthread_mutex_lock(&client->mutex) != 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_TASK, "%s(): Unable to lock client mutex\n",
              __func__);
    return;
  }
  LIST_REMOVE(node, link);
  pthread_mutex_unlock(&client->mutex);
  loreg_free(client->allocator, node);
}

static void _lorc_waitupd_remove(lorc_client *client, int32_t jobId) {
  lorc_waitupd_node *node;
  /* Only the client thread changes the list, and this is the client thread. */
  LIST_FOREACH(node, &client->waitUpdates, link) {
    if (node->jobId == jobId) {
      _lorc_waitupd_unlink_free(client, node);
      return;
    }
  }
}

void lorc_waitupd_reset(lorc_client *client) {
  if (client == NULL) return;
  lorc_waitupd_node *node;
  while ((node = LIST_FIRST(&client->waitUpdates)) != NULL) {
    LIST_REMOVE(node, link);
    loreg_free(client->allocator, node);
  }
}

/* --- Start, on the caller's thread ------------------------------------- */

int lorc_req_compound_start(lorc_client *client, lorc_request *request, int32_t jobId,
                            const char *callerName) {
  (void)callerName;
  lorkc_container *container = request->u.compound.container;
  lorkc_it it;
  int rc = lorkc_it_first(container, &it);
  if (rc < 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_API,
              "%s(): failed to init container iterator (1). (code=%d)\n", __func__, rc);
    return rc;
  }
  if (rc == 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_API, "%s(): container is empty.\n", __func__);
    return -EINVAL;
  }

  /* Clear the marks of an earlier run, so that a container can be reused. */
  int counted = 0;
  int transactions = 0;
  for (; rc == 1; rc = lorkc_it_next(&it)) {
    uint32_t flags = it.key.flags;
    uint32_t op = _lorc_bulk_op(flags);
    if (op == 0) continue;
    if (op == LORC_BULKOP_TRANSACTION && ++transactions > 1) {
      LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_API,
                "%s(): more than one key with BULKOP_TRANSACTION.\n", __func__);
      return -EINVAL;
    }
    if (flags & LORC_BULK_MARKS) lorkc_it_chflags(&it, flags & ~LORC_BULK_MARKS);
    counted++;
  }
  if (counted == 0) {
    LOREG_LOG(LOREG_LVL_WARN, LOREG_MOD_CLIENT_API,
              "%s(): no LORC_BULKOP_xxx code found in container - continue anyway.\n", __func__);
  }

  /* The echo's reply carries the job to the client thread. */
  loreg_msg msg;
  memset(&msg, 0, sizeof(msg));
  msg.header.msgtype = LOREG_MSG_ECHO;
  msg.header.reqid = (uint32_t)jobId;
  msg.header.arg0 = LORC_COMPOUND_ECHO_MARK;
  rc = loreg_send_command(client->lmq.client, client->lmq.service_id, &msg);
  if (rc != 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_API,
              "%s(job=%d): failed sending command. (code=%d)\n", __func__, (int)jobId, rc);
    return rc;
  }
  return 0;
}

/* --- The walk, on the client thread ------------------------------------ */

/*
 * The walk runs on the client thread, but a job's collector may end the
 * job early from another thread, and the caller takes the container back as
 * soon as the collector returns. Each step of the walk therefore holds the
 * request mutex while it works on the record and the container, and leaves
 * a record marked LORC_REQ_COLLECTED alone. A step gives the mutex up
 * before it completes the job.
 */

/* A step's outcome when the job goes on; otherwise the job's final value. */
#define LORC_BULK_PENDING 1

static void _lorc_req_compound_cb(lorc_client *client, apij_job_ref *ref, int32_t value,
                                  void *cookie);

/* Marks the key under the walk's iterator as failed, if it stands on one. */
static void _lorc_req_compound_mark_failed(lorc_request *request) {
  lorkc_it *it = &request->u.compound.it;
  if (lorkc_it_valid(it) == 1) lorkc_it_chflags(it, it->key.flags | LORC_BULKOP_FAILED);
}

/* Completes the job after a step, with the request mutex released: with 0 once
 * sub-jobs and updates are in, or with a failure. */
static void _lorc_req_compound_complete(lorc_client *client, int32_t jobId, int outcome) {
  if (outcome == LORC_BULK_PENDING) return;
  if (outcome == 0) {
    _lorc_waitupd_remove(client, jobId);
    LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_CLIENT_TASK, "Job %d (COMPOUND) successfully done.\n",
              (int)jobId);
  }
  apij_JobDone(client->jobs, jobId, outcome);
}

/*
 * Starts the next sub-job, or ends the transaction, or finds that nothing
 * remains. Returns LORC_BULK_PENDING while a sub-job runs or updates are
 * awaited, else the job's final value. Request mutex held.
 */
static int _lorc_req_compound_next_subjob_nolock(lorc_client *client, lorc_request *request,
                                                 int32_t jobId) {
  lorkc_it *it = &request->u.compound.it;
  int32_t timeOut = -request->u.compound.callbackId;

  while (lorkc_it_valid(it) == 1) {
    const lorc_key_struct *key = &it->key;
    uint32_t op = _lorc_bulk_op(key->flags);
    const char *word = NULL;
    int rc = 0;
    switch (op) {
      case LORC_BULKOP_SET:
        word = "set value";
        rc = lorc_value_set(client, request->u.compound.tid, key->path, key->value, key->value_len,
                            key->flags & LORC_BULK_SETFLAGS_MASK, timeOut);
        break;
      case LORC_BULKOP_QUERY:
        word = "query value";
        rc = lorc_value_query(client, request->u.compound.tid, key->path, NULL, 0, timeOut);
        break;
      case LORC_BULKOP_DELETE:
        word = "delete key";
        rc = lorc_key_delete(client, request->u.compound.tid, key->path, timeOut);
        break;
      case LORC_BULKOP_TRANSACTION:
        /* Opened once per run: a server that answered with a tid of 0
         * would otherwise be asked again and again. */
        if (request->u.compound.tid == 0 && (key->flags & LORC_BULKOP_DONE) == 0) {
          uint32_t waitTimeMs = 0;
          if (key->value != NULL && key->value_len > 0)
            waitTimeMs = (uint32_t)strtoul((const char *)key->value, NULL, 10);
          word = "start transaction";
          rc = lorc_transaction_timed_start(client, key->path, waitTimeMs, 0, timeOut);
        }
        break;
      case LORC_BULKOP_TRIGGER:
        /* Nothing answers a trigger but key updates: no sub-job to wait for. */
        lorc_notification_trigger(client, key->path, 0xFFFFFFFFu,
                                  (int32_t)LORC_BULK_TRIGGER_LEVEL(key->flags));
        lorkc_it_chflags(it, key->flags | LORC_BULKOP_DONE);
        break;
      default:
        break;
    }
    if (word == NULL) {
      lorkc_it_next(it);
      continue;
    }
    if (rc > 0) {
      request->u.compound.subjob = rc;
      return LORC_BULK_PENDING;
    }
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_TASK, "%s(%d): failed to %s timeout=%d. (code %d)\n",
              "_lorc_req_compound_next_subjob", (int)jobId, word, (int)timeOut, rc);
    _lorc_req_compound_mark_failed(request);
    return rc;
  }

  if (request->u.compound.tid > 0) {
    int rc = lorc_transaction_end(client, request->u.compound.tid, timeOut);
    if (rc > 0) {
      request->u.compound.subjob = rc;
      return LORC_BULK_PENDING;
    }
    /* The job ends with the failure. The transaction stays recorded, so
     * that the termination ends it; a wait node still there goes at the
     * next key update. */
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_TASK, "%s(%d): failed to %s timeout=%d. (code %d)\n",
              "_lorc_req_compound_next_subjob", (int)jobId, "end transaction", (int)timeOut, rc);
    return rc;
  }

  lorc_request_set_type_bits(request, LORC_REQ_SUBJOBS_DONE);
  return (lorc_request_type(request) & LORC_REQ_UPDATES_DONE) ? 0 : LORC_BULK_PENDING;
}

/* The echo's reply: registers the sub-jobs' callback, places the walk and
 * the wait for updates, and starts the first sub-job. Request mutex held. */
static int _lorc_req_compound_begin_nolock(lorc_client *client, lorc_request *request,
                                           int32_t jobId) {
  request->u.compound.subjob = 0;
  int rc = lorc_api_job_cb_register(client, _lorc_req_compound_cb, NULL, (void *)(intptr_t)jobId);
  if (rc < 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_TASK,
              "%s(%d): failed to register subjob-callback. (code %d)\n", "lorc_req_compound_reply",
              (int)jobId, rc);
    return rc;
  }
  request->u.compound.callbackId = rc;

  /* The transaction key goes first, wherever it stands. */
  lorkc_container *container = request->u.compound.container;
  lorkc_it *it = &request->u.compound.it;
  rc = lorkc_it_first(container, it);
  while (rc == 1 && _lorc_bulk_op(it->key.flags) != LORC_BULKOP_TRANSACTION) rc = lorkc_it_next(it);
  if (rc == 0) rc = lorkc_it_first(container, it);
  if (rc < 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_TASK, "%s(%d): failed to init iterator. (code %d)\n",
              "lorc_req_compound_reply", (int)jobId, rc);
    return rc;
  }

  lorkc_it local;
  rc = lorkc_it_first(container, &local);
  while (rc == 1 && _lorc_bulk_op(local.key.flags) != LORC_BULKOP_WAITUPDATE)
    rc = lorkc_it_next(&local);
  if (rc == 1) {
    rc = _lorc_waitupd_add(client, jobId);
  } else if (rc == 0) {
    lorc_request_set_type_bits(request, LORC_REQ_UPDATES_DONE);
  }
  if (rc < 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_TASK,
              "%s(%d): failed to init BULKOP_WAITUPDATE handling. (code %d)\n",
              "lorc_req_compound_reply", (int)jobId, rc);
    return rc;
  }

  return _lorc_req_compound_next_subjob_nolock(client, request, jobId);
}

void lorc_req_compound_reply(lorc_client *client, apij_job_ref *ref, loreg_msg *msg) {
  lorc_request *request = _lorc_req_of(ref);
  int32_t jobId = ref->id;
  int outcome;

  lorc_request_lock();
  if (lorc_request_type(request) & LORC_REQ_COLLECTED) {
    lorc_request_unlock();
    return;
  }
  if (msg->header.msgtype != LOREG_MSG_REPLY_TYPE(LOREG_MSG_ECHO) ||
      msg->header.arg0 != LORC_COMPOUND_ECHO_MARK || request->u.compound.subjob >= 0) {
    /* Also the echo's answer of a second server: the walk runs once. */
    LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_CLIENT_TASK,
              "%s(%d): unexpected: msgtype=0x%04x, parm0=0x%04x, subjob=%d\n", __func__, (int)jobId,
              (unsigned)msg->header.msgtype, (unsigned)msg->header.arg0,
              (int)request->u.compound.subjob);
    lorc_request_unlock();
    return;
  }
  outcome = _lorc_req_compound_begin_nolock(client, request, jobId);
  lorc_request_unlock();
  _lorc_req_compound_complete(client, jobId, outcome);
}

/*
 * Books the result of the finished sub-job on the key under the walk's
 * iterator. Returns 0, or the failure's code with *word naming the step;
 * *rewound is set when the walk starts over after the transaction opened.
 */
static int _lorc_req_compound_subjob_done(lorc_request *request, const lorc_request *sub,
                                          int32_t value, const char **word, int *rewound) {
  lorkc_it *it = &request->u.compound.it;
  uint32_t flags = it->key.flags;
  int valid = lorkc_it_valid(it);
  uint32_t op = valid == 1 ? _lorc_bulk_op(flags) : 0;

  request->u.compound.subjob = 0;
  *rewound = 0;

  if (valid == 1 && op == LORC_BULKOP_TRANSACTION) {
    *word = "transaction start";
    if (value < 0) {
      request->u.compound.tid = 0;
      return value;
    }
    request->u.compound.tid = value;
    lorkc_it_chflags(it, flags | LORC_BULKOP_DONE);
    /* All keys run inside the transaction, those before its key as well. */
    lorkc_it_first(request->u.compound.container, it);
    *rewound = 1;
    return 0;
  }
  if (valid != 1 && request->u.compound.tid > 0) {
    *word = "transaction end";
    request->u.compound.tid = 0;
    return value < 0 ? value : 0;
  }
  switch (op) {
    case LORC_BULKOP_QUERY: {
      *word = "value query";
      if (value < 0) return value;
      /* The reply's value still lies in the receive buffer: the sub-job
       * completes inside the reply's handling. */
      lorc_key_struct key;
      key.path = it->key.path;
      key.flags = (flags & ~LORC_BULK_KEYFLAGS_MASK) |
                  (sub->msg.header.arg1 & LORC_BULK_KEYFLAGS_MASK) | LORC_BULKOP_DONE;
      key.value = sub->msg.data0;
      key.value_len = sub->msg.header.len0;
      int rc = lorkc_it_modify(it, &key);
      return rc < 0 ? rc : 0;
    }
    case LORC_BULKOP_SET:
    case LORC_BULKOP_DELETE:
      *word = op == LORC_BULKOP_SET ? "value set" : "key delete";
      if (value < 0) return value;
      lorkc_it_chflags(it, flags | LORC_BULKOP_DONE);
      return 0;
    default:
      *word = "<unknown>";
      return -EFAULT;
  }
}

/* Books a finished sub-job and goes on. Request mutex held. */
static int _lorc_req_compound_step_nolock(lorc_client *client, lorc_request *request,
                                          const apij_job_ref *ref, int32_t value, int32_t jobId) {
  const lorc_request *sub = _lorc_req_of(ref);
  if ((lorc_request_type(request) & LORC_REQ_KIND_MASK) != LORC_REQ_COMPOUND ||
      (lorc_request_type(sub) & LORC_REQ_KIND_MASK) != LORC_REQ_SIMPLE ||
      request->u.compound.subjob != ref->id) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_TASK, "%s(): WARNING: inconsistent data.\n",
              "_lorc_req_compound_cb");
    return LORC_BULK_PENDING;
  }

  const char *word = "<unknown>";
  int rewound = 0;
  int rc = _lorc_req_compound_subjob_done(request, sub, value, &word, &rewound);
  if (rc != 0) {
    _lorc_req_compound_mark_failed(request);
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_TASK,
              "%s(%d): %s failed - bulk job terminates with error %d.\n", "_lorc_req_compound_cb",
              (int)jobId, word, rc);
    return rc;
  }
  if (!rewound && lorkc_it_valid(&request->u.compound.it) == 1)
    lorkc_it_next(&request->u.compound.it);
  return _lorc_req_compound_next_subjob_nolock(client, request, jobId);
}

/* Job callback of every sub-job. It runs inside the sub-job's completion,
 * while the reply's value still lies in the receive buffer. */
static void _lorc_req_compound_cb(lorc_client *client, apij_job_ref *ref, int32_t value,
                                  void *cookie) {
  int32_t jobId = (int32_t)(intptr_t)cookie;
  apij_job_ref compound;
  int outcome = LORC_BULK_PENDING;

  if (apij_JobRefGet(client->jobs, jobId, &compound) < 1) return;
  lorc_request *request = _lorc_req_of(&compound);
  lorc_request_lock();
  if ((lorc_request_type(request) & LORC_REQ_COLLECTED) == 0) {
    outcome = _lorc_req_compound_step_nolock(client, request, ref, value, jobId);
  }
  lorc_request_unlock();
  _lorc_req_compound_complete(client, jobId, outcome);
  apij_JobRefRelease(client->jobs, &compound);
}

/* --- Awaited updates --------------------------------------------------- */

/*
 * Books one update on a waiting key; afterwards the walk's own iterator is
 * placed anew, since the change may have moved the records beneath it.
 */
static void _lorc_req_compound_update_single(lorc_request *request, lorkc_it *local,
                                             const lorc_key_struct *item) {
  lorc_key_struct key;
  key.path = local->key.path;
  key.flags = (local->key.flags & ~LORC_BULK_KEYFLAGS_MASK) |
              (item->flags & LORC_BULK_KEYFLAGS_MASK) | LORC_BULKOP_DONE;
  key.value = item->value;
  key.value_len = item->value_len;
  int rc = lorkc_it_modify(local, &key);
  if (rc < 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_TASK,
              "%s(): failed to update path '%s'. (code %d) - continue.\n", __func__,
              local->key.path, rc);
  }
  lorkc_it *it = &request->u.compound.it;
  lorkc_it_findidx(request->u.compound.container, it, it->index);
}

/* Books an update on the keys of one job that waits for it. Returns
 * LORC_BULK_PENDING, or 0 when the job is complete. Request mutex held. */
static int _lorc_req_compound_update_nolock(lorc_request *request, const lorc_key_struct *item) {
  lorkc_it local;
  int missing = 0;
  int rc = lorkc_it_first(request->u.compound.container, &local);
  for (; rc == 1; rc = lorkc_it_next(&local)) {
    if (_lorc_bulk_op(local.key.flags) != LORC_BULKOP_WAITUPDATE) continue;
    if (strcmp(local.key.path, item->path) == 0)
      _lorc_req_compound_update_single(request, &local, item);
    else if ((local.key.flags & LORC_BULKOP_DONE) == 0)
      missing++;
  }
  if (missing != 0) return LORC_BULK_PENDING;
  lorc_request_set_type_bits(request, LORC_REQ_UPDATES_DONE);
  return (lorc_request_type(request) & LORC_REQ_SUBJOBS_DONE) ? 0 : LORC_BULK_PENDING;
}

void lorc_req_compound_keyupd(lorc_client *client, const lorc_key_struct *item) {
  if (client == NULL || item == NULL || item->path == NULL) return;

  /* Only the client thread changes the list, and this is the client thread;
   * the next node is taken before the current one may go. */
  lorc_waitupd_node *node = LIST_FIRST(&client->waitUpdates);
  while (node != NULL) {
    lorc_waitupd_node *next = LIST_NEXT(node, link);
    int32_t jobId = node->jobId;
    apij_job_ref ref;
    if (apij_JobRefGet(client->jobs, jobId, &ref) < 1) {
      _lorc_waitupd_unlink_free(client, node);
      node = next;
      continue;
    }
    lorc_request *request = _lorc_req_of(&ref);
    int outcome = LORC_BULK_PENDING;
    int ended = ref.done != 0;
    lorc_request_lock();
    /* A job that has ended (by a failure, or by its collector) has given
     * its container back to the caller. Bulk jobs are completed on this
     * thread alone, so the reference tells exactly whether it is done. */
    if (ended || (lorc_request_type(request) & LORC_REQ_COLLECTED)) {
      ended = 1;
    } else {
      outcome = _lorc_req_compound_update_nolock(request, item);
    }
    lorc_request_unlock();
    if (ended) _lorc_waitupd_unlink_free(client, node);
    _lorc_req_compound_complete(client, jobId, outcome);
    apij_JobRefRelease(client->jobs, &ref);
    node = next;
  }
}

/* --- Termination ------------------------------------------------------- */

/*
 * Every way out of a bulk job comes here: an open transaction is ended by
 * sending its end, and the sub-jobs' callback is unregistered, which deletes
 * a sub-job still running. The collector may call this before the job is
 * done, on any thread: the mark it leaves keeps the client thread's walk
 * away from the record and the container from then on.
 */
static int _lorc_req_compound_terminate(lorc_client *client, apij_job_ref *ref) {
  lorc_request *request = _lorc_req_of(ref);

  lorc_request_lock();
  lorc_request_set_type_bits(request, LORC_REQ_COLLECTED);
  int32_t callbackId = request->u.compound.callbackId;
  if (callbackId > 0) {
    if (request->u.compound.tid > 0) {
      int rc = lorc_transaction_end(client, request->u.compound.tid, -callbackId);
      if (rc < 0) {
        LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_API,
                  "%s(%d): failed to end transaction. (code %d)\n", __func__, (int)ref->id, rc);
      }
      request->u.compound.tid = 0;
    }
    int rc = lorc_job_cb_unregister(client, callbackId, 1);
    if (rc < 0) {
      LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_API,
                "%s(%d): failed to unregister completion callback. (code %d)\n", __func__,
                (int)ref->id, rc);
    }
    request->u.compound.callbackId = 0;
  }
  lorc_request_unlock();
  return ref->result;
}

int lorc_req_compound_postproc(lorc_client *client, apij_job_ref *ref) {
  return _lorc_req_compound_terminate(client, ref);
}
