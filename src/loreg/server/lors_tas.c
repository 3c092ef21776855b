/*
 * Transaction scheduler of the repository server: who holds which subtree,
 * who waits for whom, and in which order waiters get their turn.
 *
 * A node is in at most one of the server's three queues, named by
 * tas->queue; all queues are filled at the head. A waiter in wait_q always
 * has a wait_tid of 1 or more. The one exception is a waiter whose start
 * failed for good after the awaited transaction ended (see
 * _lors_tas_park): it stays in wait_q with wait_tid 0, which no end and no
 * timer ever matches, only so that shutdown finds and frees it.
 */
#include "loreg/lors_tas.h"

#include <assert.h>
#include <string.h>

#include "common/loreg_debug.h"
#include "loreg/lors.h"
#include "loreg/lors_broadcast.h"
#include "loreg/lors_commit.h"
#include "server/lors_private.h"

/* Name printed by the start handler's timer failure line. */
static const char _lors_tas_start_name[] = "lors_onTransactionStart";

/* Cuts both links between the transaction and its key, and the key's lock
 * flag with them. */
static void _lors_tas_unlock(lors_tas *tas) {
  struct lors_rp_node *key = tas->node;
  if (key == NULL) return;
  if (key->owner == tas) {
    key->owner = NULL;
    key->flags &= ~KEYF_LOCKED;
  }
  tas->node = NULL;
}

/* Takes the node out of whatever queue it is in; the lock is not touched. */
static void _lors_tas_unqueue(lors_tas *tas) {
  if (tas->queue == NULL) return;
  TAILQ_REMOVE(tas->queue, tas, link);
  tas->queue = NULL;
}

/* Puts the node at the head of queue, out of any other first. */
static void _lors_tas_enqueue(lors_tas_queue *queue, lors_tas *tas) {
  _lors_tas_unqueue(tas);
  TAILQ_INSERT_HEAD(queue, tas, link);
  tas->queue = queue;
}

static lors_tas *_lors_tas_findTid(lors_tas_queue *queue, int32_t tid) {
  lors_tas *tas;
  TAILQ_FOREACH(tas, queue, link) {
    if (tas->tid == tid) return tas;
  }
  return NULL;
}

/*
 * A waiter that could not start after the awaited transaction ended has
 * had its error reply; it must neither be answered again nor freed while
 * its waiting timer is still set, since that timer is not cancelled and
 * fires later. Such a node goes back into wait_q with wait_tid 0: no end
 * matches it (tids start at 1), lors_tas_onTimer skips waiters without a
 * wait_tid, so its timer finds nothing, and neither store nor the tid
 * searches look at wait_q. Kept there, it is still reachable, and
 * lors_ta_clearQ frees it at shutdown like any waiter instead of leaking
 * it.
 */
static void _lors_tas_park(lors_ctx *server, lors_tas *tas) {
  tas->wait_tid = 0;
  _lors_tas_enqueue(&server->wait_q, tas);
}

lors_tas *lors_tas_new(lors_ctx *server, const lstr *path) {
  if (server == NULL || path == NULL) return NULL;
  /* One zeroed byte beyond the path terminates it for the log lines. */
  size_t size = sizeof(lors_tas) + (size_t)path->len + 1;
  lors_tas *tas = loreg_malloc(server->allocator, size);
  if (tas == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER,
              "%s(): failed to malloc %u byte(s) for new transaction node\n", __func__,
              (unsigned)size);
    return NULL;
  }
  memset(tas, 0, size);
  tas->path.ptr = (char *)(tas + 1);
  tas->path.len = path->len;
  if (path->len > 0) memcpy(tas->path.ptr, path->ptr, path->len);
  tas->tid = ++server->last_tid;
  return tas;
}

int lors_tas_tryActivate(lors_ctx *server, lors_tas *tas) {
  if (server == NULL || tas == NULL) return -22;

  /* tid 0 meets every lock, so the search stops at the highest lock on the
   * path, which is then the one to wait for. */
  lors_rp_path_req req;
  memset(&req, 0, sizeof(req));
  req.allocator = server->allocator;
  req.root = server->root;
  req.path = tas->path;
  req.mode = 0;
  req.value = NULL;
  req.tid = 0;
  lors_rp_path_res res;
  int32_t rc = lors_rp_PathFind(&req, &res);
  lors_tas *owner = NULL;
  if (rc == -13) {
    owner = res.owner;
  } else if (rc == 0) {
    rc = lors_rp_ScanRecursive(res.node, 0, &owner);
  }

  if (rc == -13) {
    assert(owner != NULL);
    tas->wait_tid = owner->tid;
    _lors_tas_enqueue(&server->wait_q, tas);
    return -13;
  }

  if (rc == 0) {
    /* The duration timer reuses the waiting timer if there is one, so a
     * waiter that starts needs no allocation here. */
    _cspOsalTime_struct duration;
    _lors_ms_to_time(tas->request.arg1, &duration);
    int timer = lors_timer_set(server, &tas->timer, &duration, NULL);
    if (timer < 0) rc = timer;
  }

  if (rc != 0) {
    /* Above all -2: a transaction starts only on an existing key. */
    tas->wait_tid = 0;
    _lors_tas_unqueue(tas);
    return rc;
  }

  tas->wait_tid = 0;
  _lors_tas_unqueue(tas);
  tas->node = res.node;
  res.node->owner = tas;
  res.node->flags |= KEYF_LOCKED;
  _lors_tas_enqueue(&server->active_q, tas);
  lors_sendKeyUpdate(server, &tas->path, tas->node, tas, LOREG_REASON_TA_START, NULL);
  return 0;
}

int lors_tas_sendStartReply(lors_ctx *server, lors_tas *tas, int32_t result) {
  if (server == NULL || tas == NULL) return -22;
  loreg_msg msg;
  memset(&msg, 0, sizeof(msg));
  msg.header = tas->request;
  msg.header.len0 = 0;
  msg.header.len1 = 0;
  msg.header.result = result;
  if (result == 0) msg.header.tid = tas->tid;
  return loreg_send_reply(server->lmq.client, &msg, &tas->reply_address);
}

lors_tas *lors_tas_findActive(lors_ctx *server, int32_t tid) {
  if (server == NULL) return NULL;
  return _lors_tas_findTid(&server->active_q, tid);
}

lors_tas *lors_tas_findAcquired(lors_ctx *server, int32_t tid) {
  if (server == NULL) return NULL;
  return _lors_tas_findTid(&server->acquired_q, tid);
}

int lors_tas_Acquire(lors_ctx *server, lors_tas *tas) {
  if (server == NULL || tas == NULL) return -22;
  _lors_tas_enqueue(&server->acquired_q, tas);
  return 0;
}

void lors_tas_delete(lors_ctx *server, lors_tas *tas) {
  if (server == NULL || tas == NULL) return;
  if (tas->timer != 0) {
    lors_timer_destroy(server, tas->timer);
    tas->timer = 0;
  }
  _lors_tas_unlock(tas);
  _lors_tas_unqueue(tas);
  loreg_free(server->allocator, tas);
}

void lors_tas_handleEnd(lors_ctx *server, lors_tas *tas) {
  if (server == NULL || tas == NULL) return;

  int32_t ended = tas->tid;
  lors_sendKeyUpdate(server, &tas->path, tas->node, tas, LOREG_REASON_TA_END, NULL);
  lors_ta_remove(&server->active_q, tas);
  lors_tas_delete(server, tas);

  /* Newest waiter first. A waiter that has to wait again goes to the head
   * and so lies behind the walk; one parked after an error goes there too. */
  lors_tas *waiter = TAILQ_FIRST(&server->wait_q);
  while (waiter != NULL) {
    lors_tas *successor = TAILQ_NEXT(waiter, link);
    if (waiter->wait_tid == ended) {
      int rc = lors_tas_tryActivate(server, waiter);
      if (rc == 0) {
        LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_SERVER, "%s(): started tid %d '%s' after tid %d ended\n",
                  __func__, (int)waiter->tid, waiter->path.ptr, (int)ended);
        lors_tas_sendStartReply(server, waiter, 0);
      } else if (rc == -13) {
        LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_SERVER,
                  "%s(): tid %d '%s' now waits on tid %d after tid %d ended\n", __func__,
                  (int)waiter->tid, waiter->path.ptr, (int)waiter->wait_tid, (int)ended);
      } else {
        LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER,
                  "%s(): error %d starting tid %d '%s' after tid %d ended\n", __func__, rc,
                  (int)waiter->tid, waiter->path.ptr, (int)ended);
        waiter->wait_tid = 0;
        lors_tas_sendStartReply(server, waiter, rc);
        _lors_tas_park(server, waiter);
      }
    }
    waiter = successor;
  }

  if (server->dirty != 0 && (server->options & LORS_OPT_COMMIT_ON_TA_END) != 0) {
    lors_commit_default(server, "immediate ta-end auto-commit");
  }
}

void lors_tas_onTimer(lors_ctx *server, int32_t timer_id) {
  if (server == NULL || timer_id <= 0) return;

  lors_tas *tas;
  TAILQ_FOREACH(tas, &server->wait_q, link) {
    if (tas->timer == timer_id && tas->wait_tid != 0) break;
  }
  if (tas != NULL) {
    LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_SERVER,
              "%s(): timeout for tid %d '%s' while waiting for tid %d\n", __func__, (int)tas->tid,
              tas->path.ptr, (int)tas->wait_tid);
    lors_tas_sendStartReply(server, tas, -13);
    lors_tas_delete(server, tas);
    return;
  }

  TAILQ_FOREACH(tas, &server->active_q, link) {
    if (tas->timer == timer_id) break;
  }
  if (tas != NULL) {
    LOREG_LOG(LOREG_LVL_WARN, LOREG_MOD_SERVER, "%s(): transaction %d, path='%s': forced termination.\n",
              __func__, (int)tas->tid, tas->path.ptr);
    lors_tas_handleEnd(server, tas);
  }
}

void lors_ta_remove(lors_tas_queue *queue, lors_tas *tas) {
  if (tas == NULL) return;
  _lors_tas_unlock(tas);
  if (tas->queue != queue) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER, "%s(): attempt to remove from wrong queue %p; node is in %p\n",
              __func__, (void *)queue, (void *)tas->queue);
  }
  _lors_tas_unqueue(tas);
}

void lors_ta_clearQ(const loreg_allocator *allocator, lors_tas_queue *queue) {
  if (queue == NULL) return;
  lors_tas *tas;
  while ((tas = TAILQ_FIRST(queue)) != NULL) {
    _lors_tas_unlock(tas);
    TAILQ_REMOVE(queue, tas, link);
    tas->queue = NULL;
    loreg_free(allocator, tas);
  }
}

/* Sends the reply of a transaction request that goes out at once. */
static void _lors_tas_reply(lors_ctx *server, const lstr *path, loreg_msg *msg,
                            const lmq_rx_info *info) {
  lors_send_reply(server, path, msg, &info->reply);
}

int lors_tas_onStart(lors_ctx *server, loreg_msg *msg, const lmq_rx_info *info) {
  if (server == NULL || msg == NULL || info == NULL) return 0;
  lstr path;
  if (lors_path_check(server, msg, 0, &path) != 0) return 0;

  /* A transaction is never without a limit; the fixed-default start never
   * waits. */
  if (msg->header.msgtype == LOREG_MSG_TA_START) {
    msg->header.arg0 = 0;
    msg->header.arg1 = 0;
  }
  if (msg->header.arg1 == 0) msg->header.arg1 = LORS_TA_DEFAULT_DURATION_MS;

  msg->header.msgtype = LOREG_MSG_REPLY_TYPE(msg->header.msgtype);
  msg->header.tid = 0;
  msg->header.len0 = 0;
  msg->header.len1 = 0;

  lors_tas *tas = lors_tas_new(server, &path);
  if (tas == NULL) {
    msg->header.result = -12;
    _lors_tas_reply(server, &path, msg, info);
    return 0;
  }
  tas->request = msg->header;
  tas->reply_address = info->reply;

  int rc = lors_tas_tryActivate(server, tas);
  if (rc == 0) {
    msg->header.result = 0;
    msg->header.tid = tas->tid;
    _lors_tas_reply(server, &path, msg, info);
    return 0;
  }
  if (rc == -13 && msg->header.arg0 != 0) {
    _cspOsalTime_struct wait;
    _lors_ms_to_time(msg->header.arg0, &wait);
    int timer = lors_timer_set(server, &tas->timer, &wait, NULL);
    if (timer > 0) return 0; /* the reply comes when it starts or times out */
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER, "%s(reqid=%d) path='%s' failed setting up timer for %u ms\n",
              _lors_tas_start_name, (int)msg->header.reqid, tas->path.ptr,
              (unsigned)msg->header.arg0);
    rc = timer;
  }

  msg->header.result = rc;
  msg->header.tid = 0;
  lors_tas_delete(server, tas);
  _lors_tas_reply(server, &path, msg, info);
  return 0;
}

int lors_tas_onEnd(lors_ctx *server, loreg_msg *msg, const lmq_rx_info *info) {
  if (server == NULL || msg == NULL || info == NULL) return 0;
  /* Only running transactions end here; any other tid gets no reply, and
   * the client's own timer ends its wait. */
  lors_tas *tas = lors_tas_findActive(server, msg->header.tid);
  if (tas == NULL) return 0;
  lors_tas_handleEnd(server, tas);

  msg->header.msgtype = LOREG_MSG_REPLY_TYPE(LOREG_MSG_TA_END);
  msg->header.result = 0;
  msg->header.len0 = 0;
  msg->header.len1 = 0;
  _lors_tas_reply(server, NULL, msg, info);
  return 0;
}

int lors_tas_onAcquire(lors_ctx *server, loreg_msg *msg, const lmq_rx_info *info) {
  if (server == NULL || msg == NULL || info == NULL) return 0;
  lstr path;
  if (lors_path_check(server, msg, 0, &path) != 0) return 0;

  /* The key needn't exist: the path is not searched, nothing is locked. */
  msg->header.msgtype = LOREG_MSG_REPLY_TYPE(LOREG_MSG_TID_ACQUIRE);
  msg->header.tid = 0;
  msg->header.len0 = 0;
  msg->header.len1 = 0;

  lors_tas *tas = lors_tas_new(server, &path);
  if (tas == NULL) {
    msg->header.result = -12;
  } else {
    tas->request = msg->header;
    tas->reply_address = info->reply;
    lors_tas_Acquire(server, tas);
    msg->header.result = 0;
    msg->header.tid = tas->tid;
  }
  _lors_tas_reply(server, &path, msg, info);
  return 0;
}

int lors_tas_onRelease(lors_ctx *server, loreg_msg *msg, const lmq_rx_info *info) {
  if (server == NULL || msg == NULL || info == NULL) return 0;
  lors_tas *tas = lors_tas_findAcquired(server, msg->header.tid);
  if (tas == NULL) {
    msg->header.result = -2;
  } else {
    lors_tas_delete(server, tas);
    msg->header.result = 0;
  }
  msg->header.msgtype = LOREG_MSG_REPLY_TYPE(LOREG_MSG_TID_RELEASE);
  msg->header.len0 = 0;
  msg->header.len1 = 0;
  _lors_tas_reply(server, NULL, msg, info);
  return 0;
}
