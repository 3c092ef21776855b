/*
 * Notification subscriptions of the registry client.
 *
 * A subscription is a node in the client's list: handler, cookie and path.
 * Key updates broadcast by the servers are filtered against the list on
 * the client thread, and matching handlers are called there, always with
 * the client mutex released.
 *
 * Removal is the delicate part. A handler may be running while another
 * thread unsubscribes, and a handler may unsubscribe itself. Nodes are
 * therefore never unlinked by the unsubscribing thread: it only marks the
 * node (bit 0), and the delivery walk on the client thread unlinks marked
 * nodes at its next pass. An external thread then waits on a job of its
 * own, which the walk completes after the node is unlinked and no handler
 * of it can run any more; the client thread itself never waits.
 */
#include <errno.h>
#include <pthread.h>
#include <stddef.h>
#include <string.h>

#include "common/loreg_debug.h"
#include "loreg/apij.h"
#include "loreg/lorc_client.h"
#include "loreg/loreg_alloc.h"
#include "loreg/loreg_msg.h"
#include "loreg/lstr.h"
#include "platform/csp_osal.h"

/* An unregistering thread waits this long at a time for the client thread. */
#define LORC_SUBSCR_REMOVAL_WAIT_SEC 60

/* --- Public entries ---------------------------------------------------- */

/* The checks shared by register and unregister. A call admitted here
 * leaves with lorc_client_leave. */
static int _lorc_subscr_enter(lorc_client *client, lorc_notify_fn handler, const char *caller) {
  if (lorc_client_enter(client) != 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_API, "%s(): client not yet initialized.\n", caller);
    return -EFAULT;
  }
  if (handler == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_API, "%s(): no callback routine given.\n", caller);
    lorc_client_leave(client);
    return -EINVAL;
  }
  return 0;
}

int lorc_notification_register(lorc_client *client, lorc_notify_fn handler, const char *path,
                               void *cookie) {
  int rc = _lorc_subscr_enter(client, handler, __func__);
  if (rc != 0) return rc;
  rc = lorc_subscr_register(client, handler, path != NULL ? path : "/", cookie);
  lorc_client_leave(client);
  return rc;
}

int lorc_notification_unregister(lorc_client *client, lorc_notify_fn handler, const char *path,
                                 void *cookie) {
  int rc = _lorc_subscr_enter(client, handler, __func__);
  if (rc != 0) return rc;
  rc = lorc_subscr_unregister(client, handler, path != NULL ? path : "/", cookie);
  lorc_client_leave(client);
  return rc;
}

int lorc_notification_trigger(lorc_client *client, const char *path, uint32_t filter,
                              int32_t max_rec_level) {
  if (lorc_client_enter(client) != 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_API, "%s(): client not yet initialized.\n",
              __func__);
    return -EFAULT;
  }
  int rc = 0;
  if (path == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_API, "%s(): path missiing.\n", __func__);
    rc = -EINVAL;
  } else if (strlen(path) > UINT16_MAX) {
    /* The length travels in 16 bits: a longer path is refused, not cut. */
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_API, "%s(): path too long (%lu bytes).\n",
              __func__, (unsigned long)strlen(path));
    rc = -EINVAL;
  } else {
    /* reqid 0: the servers answer with key updates only, so no job exists. */
    loreg_msg msg;
    memset(&msg, 0, sizeof(msg));
    msg.header.msgtype = LOREG_MSG_KEY_UPDATE_TRIGGER;
    msg.header.arg0 = filter;
    msg.header.arg1 = (uint32_t)max_rec_level;
    msg.header.len1 = (uint16_t)strlen(path);
    msg.data1 = (char *)(uintptr_t)path;
    if (loreg_send_command(client->lmq.client, client->lmq.service_id, &msg) != 0) {
      rc = -EIO;
    } else {
      LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_CLIENT_API,
                "%s('%s', filter=0x%08x, max_rec_level=%d): success\n", __func__, path,
                (unsigned)filter, (int)max_rec_level);
    }
  }
  lorc_client_leave(client);
  return rc;
}

/* --- Registering ------------------------------------------------------- */

int lorc_subscr_register(lorc_client *client, lorc_notify_fn handler, const char *path,
                         void *cookie) {
  size_t len = strlen(path);
  size_t size = sizeof(lorc_subscr_node) + len + 1u;
  lorc_subscr_node *node = loreg_malloc(client->allocator, size);
  if (node == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_API,
              "%s(): failed to alloc %d bytes for new notification node\n", __func__, (int)size);
    return -ENOMEM;
  }
  memset(node, 0, size);
  char *text = (char *)(node + 1);
  memcpy(text, path, len + 1u);
  node->path.ptr = text;
  node->path.len = (uint32_t)len;
  node->handler = handler;
  node->cookie = cookie;
  node->removalJob = -1;

  if (pthread_mutex_lock(&client->mutex) != 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_API, "%s(): Unable to lock mutex\n", __func__);
    loreg_free(client->allocator, node);
    return -ENOLCK;
  }
  /* A call admitted just before lorc_shutdown began must not add a node
   * behind the shutdown's removal of all subscriptions. */
  if (!lorc_client_valid(client)) {
    pthread_mutex_unlock(&client->mutex);
    loreg_free(client->allocator, node);
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_API, "%s(): client not yet initialized.\n",
              __func__);
    return -EFAULT;
  }
  LIST_INSERT_HEAD(&client->subscriptions, node, link);

  _cspOsalTime_struct now;
  if (cspOsalGetUptime(&now) != 0) {
    pthread_mutex_unlock(&client->mutex);
    return 0;
  }
  lorc_root_node *root = NULL;
  while ((root = lorc_root_findNextMatch_nolock(client, root, &node->path)) != NULL) {
    if (lorc_root_is_valid(&root->updated, &now)) break;
  }
  if (root == NULL) {
    pthread_mutex_unlock(&client->mutex);
    LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_CLIENT_API, "%s(%s) success\n", __func__, path);
    return 0;
  }

  /* The new subscriber must hear of the roots already known, and only the
   * client thread calls handlers: leave the announcement to its next pass. */
  node->flags |= LORC_SUBSCR_ROOTS_PENDING;
  pthread_mutex_unlock(&client->mutex);
  int rc = lorc_client_send_idle(client);
  if (rc != 0) {
    LOREG_LOG(LOREG_LVL_SEVERE, LOREG_MOD_CLIENT_API,
              "%s() FATAL: failed sending idle notification! (code %d) notification callbacks "
              "lost!\n",
              __func__, rc);
  }
  return 0;
}

/* --- Unregistering ----------------------------------------------------- */

static lorc_subscr_node *_lorc_subscr_find_nolock(lorc_client *client, lorc_notify_fn handler,
                                                  const char *path, void *cookie) {
  lorc_subscr_node *node;
  LIST_FOREACH(node, &client->subscriptions, link) {
    if (node->handler == handler && node->cookie == cookie && strcmp(node->path.ptr, path) == 0)
      return node;
  }
  return NULL;
}

int lorc_subscr_unregister(lorc_client *client, lorc_notify_fn handler, const char *path,
                           void *cookie) {
  /* The job exists before the mutex is taken: the job handler's mutex may
   * be taken under the client mutex, never the other way round. */
  apij_inst *jobs = client->jobs;
  int32_t job = apij_JobCreate(jobs, NULL, -1, 0, NULL);
  if (job < 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_API,
              "%s() WARNING: node removal job creation failed  with code %d.\n", __func__,
              (int)job);
    return -EFAULT;
  }
  if (pthread_mutex_lock(&client->mutex) != 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_API, "%s(): Unable to lock mutex\n", __func__);
    apij_JobDestroy(jobs, job);
    return -ENOLCK;
  }
  lorc_subscr_node *node = _lorc_subscr_find_nolock(client, handler, path, cookie);
  if (node == NULL) {
    pthread_mutex_unlock(&client->mutex);
    apij_JobDestroy(jobs, job);
    return -ENODEV;
  }
  node->flags |= LORC_SUBSCR_REMOVED;

  if (lorc_is_client_thread(client)) {
    /* Inside a handler: the walk that called it unlinks the node at its
     * next pass. Waiting here would wait for this very thread. */
    LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_CLIENT_API, "%s(%s): from comm task, no wait.\n",
              __func__, path);
    pthread_mutex_unlock(&client->mutex);
    apij_JobDestroy(jobs, job);
    return 0;
  }

  node->removalJob = job;
  LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_CLIENT_API,
            "%s(%s): from external task, wait for (internal) job %d.\n", __func__, path, (int)job);
  pthread_mutex_unlock(&client->mutex);

  int rc = lorc_client_send_idle(client);
  if (rc != 0) {
    /* The next key update runs a pass as well, so the wait still ends. */
    LOREG_LOG(LOREG_LVL_SEVERE, LOREG_MOD_CLIENT_API,
              "%s() FATAL: failed sending idle notification! (code %d) Deadlock situation "
              "ahead!\n",
              __func__, rc);
  }

  /* A wait recorded with the client: lorc_shutdown ends it, also for a
   * waiter whose job a second unregistering has taken the place of. */
  for (;;) {
    rc = lorc_client_wait(client, job, NULL, LORC_SUBSCR_REMOVAL_WAIT_SEC);
    if (rc != 0) {
      LOREG_LOG(LOREG_LVL_WARN, LOREG_MOD_CLIENT_API,
                "%s() WARNING: failed waiting for node removal job %d, (code %d)\n", __func__,
                (int)job, rc);
    }
    if (rc != -ETIMEDOUT) break;
  }
  apij_JobDestroy(jobs, job);
  return 0;
}

/* --- Delivering -------------------------------------------------------- */

/*
 * Calls a handler with the client mutex released. Returns 0 with the mutex
 * held again, or -37 when it could not be re-taken (the mutex is then not
 * held).
 */
static int _lorc_subscr_call_unlocked(lorc_client *client, lorc_subscr_node *node, uint32_t reason,
                                      const lorc_key_struct *item, int32_t tid) {
  lorc_notify_fn handler = node->handler;
  void *cookie = node->cookie;
  pthread_mutex_unlock(&client->mutex);
  handler(client, reason, item, tid, &node->path, cookie);
  if (pthread_mutex_lock(&client->mutex) != 0) return -ENOLCK;
  return 0;
}

/*
 * Announces every valid root that matches the node's path with "server
 * available", then clears the pending mark. Returns 0, or -37 when the
 * mutex was lost after a handler call.
 */
static int _lorc_subscr_announce_roots_nolock(lorc_client *client, lorc_subscr_node *node) {
  lorc_root_node *root = NULL;
  while ((root = lorc_root_findNextMatch_nolock(client, root, &node->path)) != NULL) {
    _cspOsalTime_struct now;
    if (cspOsalGetUptime(&now) != 0) break;
    if (!lorc_root_is_valid(&root->updated, &now)) continue;
    /* A handler that unsubscribed itself is not called again. */
    if (node->flags & LORC_SUBSCR_REMOVED) break;
    lorc_key_struct rootItem;
    rootItem.path = root->path.ptr;
    rootItem.flags = (root->flags & ~LORC_KEYF_VALUE) | LORC_KEYF_ROOT;
    rootItem.value = NULL;
    rootItem.value_len = 0;
    /* The root node cannot vanish meanwhile: only this thread unlinks roots. */
    if (_lorc_subscr_call_unlocked(client, node, LOREG_REASON_SERVER_AVAILABLE, &rootItem, 0) !=
        0) {
      LOREG_LOG(LOREG_LVL_SEVERE, LOREG_MOD_CLIENT_TASK,
                "%s(2): FATAL: failed to re-lock mutex after notification handler call\n",
                "lorc_subscr_process");
      return -ENOLCK;
    }
  }
  node->flags &= ~LORC_SUBSCR_ROOTS_PENDING;
  return 0;
}

/* Length over which a subscription and an update must agree. */
static uint32_t _lorc_subscr_cmp_len(const lorc_subscr_node *node, const lstr *path,
                                     const lorc_key_struct *item, uint32_t reason) {
  int exact = reason == LOREG_REASON_KEY_UPDATE || reason == LOREG_REASON_KEY_ADD ||
              reason == LOREG_REASON_KEY_CHANGE ||
              (reason == LOREG_REASON_KEY_DELETE && (item->flags & LORC_KEYF_DIR) == 0);
  if (exact) return node->path.len;
  return node->path.len < path->len ? node->path.len : path->len;
}

/*
 * Logs, frees and signals the waiter of each unlinked node with result. The
 * node is freed first, so a waiter that wakes finds it gone.
 */
static void _lorc_subscr_free_list(lorc_client *client, struct lorc_subscr_list *list,
                                   int32_t result, const char *callerName) {
  lorc_subscr_node *node;
  while ((node = LIST_FIRST(list)) != NULL) {
    LIST_REMOVE(node, link);
    int32_t removalJob = node->removalJob;
    LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_CLIENT_TASK,
              "%s(): delete notification for %s, (internal) job=%d\n", callerName, node->path.ptr,
              (int)removalJob);
    loreg_free(client->allocator, node);
    if (removalJob > 0 && apij_JobDone(client->jobs, removalJob, result) != 0) {
      LOREG_LOG(LOREG_LVL_SEVERE, LOREG_MOD_CLIENT_TASK,
                "%s(): FATAL: failed to signal notification removal job %d! Deadlock situation "
                "ahead!\n",
                callerName, (int)removalJob);
    }
  }
}

void lorc_subscr_process(lorc_client *client, const lstr *path, const lorc_key_struct *item,
                         uint32_t reason, int32_t tid) {
  if (client == NULL) return;
  struct lorc_subscr_list removed = LIST_HEAD_INITIALIZER(removed);
  lorc_subscr_node *removedTail = NULL;

  if (pthread_mutex_lock(&client->mutex) != 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_TASK, "%s(): Unable to lock client mutex\n",
              __func__);
    return;
  }

  lorc_subscr_node *node = LIST_FIRST(&client->subscriptions);
  while (node != NULL) {
    if (node->flags & LORC_SUBSCR_REMOVED) {
      /* Unlinked here and freed after the walk, with no lock held. The
       * private list keeps the order of the subscriptions. */
      lorc_subscr_node *next = LIST_NEXT(node, link);
      LIST_REMOVE(node, link);
      if (removedTail == NULL)
        LIST_INSERT_HEAD(&removed, node, link);
      else
        LIST_INSERT_AFTER(removedTail, node, link);
      removedTail = node;
      node = next;
      continue;
    }

    if (path != NULL && item != NULL &&
        !(reason == LOREG_REASON_SERVER_AVAILABLE && (node->flags & LORC_SUBSCR_ROOTS_PENDING))) {
      uint32_t n = _lorc_subscr_cmp_len(node, path, item, reason);
      if (lstr_ncmp(&node->path, path, n) == 0) {
        if (_lorc_subscr_call_unlocked(client, node, reason, item, tid) != 0) {
          LOREG_LOG(LOREG_LVL_SEVERE, LOREG_MOD_CLIENT_TASK,
                    "%s(1): FATAL: failed to re-lock mutex after notification handler call\n",
                    __func__);
          return;
        }
      }
    }

    if (node->flags & LORC_SUBSCR_ROOTS_PENDING) {
      if (node->flags & LORC_SUBSCR_REMOVED) {
        node->flags &= ~LORC_SUBSCR_ROOTS_PENDING;
      } else if (_lorc_subscr_announce_roots_nolock(client, node) != 0) {
        return;
      }
    }

    /* Only this routine unlinks nodes, so node is still linked; nodes added
     * meanwhile at the head are not reached in this pass. */
    node = LIST_NEXT(node, link);
  }

  pthread_mutex_unlock(&client->mutex);
  _lorc_subscr_free_list(client, &removed, 0, __func__);
}

int lorc_subscr_would_act(lorc_client *client, const lstr *path, const lorc_key_struct *item,
                          uint32_t reason) {
  const lorc_subscr_node *node;
  int act = 0;

  if (pthread_mutex_trylock(&client->mutex) != 0) return 1;
  LIST_FOREACH(node, &client->subscriptions, link) {
    if (node->flags & (LORC_SUBSCR_REMOVED | LORC_SUBSCR_ROOTS_PENDING)) {
      act = 1;
    } else {
      uint32_t n = _lorc_subscr_cmp_len(node, path, item, reason);
      act = lstr_ncmp(&node->path, path, n) == 0;
    }
    if (act) break;
  }
  pthread_mutex_unlock(&client->mutex);
  return act;
}

void lorc_subscr_reset_nolock(lorc_client *client) {
  if (client == NULL) return;
  lorc_subscr_node *node;
  while ((node = LIST_FIRST(&client->subscriptions)) != NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_TASK,
              "%s() WARNING: force deleting notification subscription %s, (internal) job=%d\n",
              __func__, node->path.ptr, (int)node->removalJob);
    LIST_REMOVE(node, link);
    struct lorc_subscr_list one = LIST_HEAD_INITIALIZER(one);
    LIST_INSERT_HEAD(&one, node, link);
    /* The waiter learns that the client is going away, and leaves without
     * touching the job handler that the shutdown destroys next. */
    _lorc_subscr_free_list(client, &one, -ECONNABORTED, __func__);
  }
}

void lorc_subscr_new_root_nolock(lorc_client *client, lorc_root_node *root) {
  /* A hook point for every new root; nothing to do today. */
  (void)client;
  (void)root;
}
