/*
 * Root path tracking of the registry client.
 *
 * Every repository server announces each of its roots by a key update whose
 * flags carry bit 5. The client keeps one node per root it has heard of,
 * with the time of the last announcement and the sender's address, so that
 * commands for a path can go straight to the server owning it, so that the
 * repository commands know how many servers must answer, and so that
 * subscribers hear when a server comes ("server available") or goes
 * ("server gone").
 *
 * A root stays valid for LORC_ROOT_VALID_SEC seconds after its last
 * announcement. Nothing removes a stale root: every reader applies the
 * validity test itself. The table is written on the client thread only,
 * under the client mutex; readers on any thread take the same mutex.
 */
#include <errno.h>
#include <pthread.h>
#include <stddef.h>
#include <string.h>

#include "common/loreg_debug.h"
#include "loreg/lorc_client.h"
#include "loreg/loreg_alloc.h"
#include "loreg/loreg_msg.h"
#include "loreg/lstr.h"
#include "platform/csp_osal.h"

/* Renewals and creations come with these reasons; a deletion with 0x5002. */
static int _lorc_root_is_announcement(uint32_t reason) {
  return reason == LOREG_REASON_KEY_UPDATE || reason == LOREG_REASON_KEY_ADD ||
         reason == LOREG_REASON_KEY_CHANGE;
}

/* First node whose whole path is a prefix of path (the root covering it). */
static lorc_root_node *_lorc_root_find_covering_nolock(lorc_client *client, const lstr *path) {
  lorc_root_node *node;
  TAILQ_FOREACH(node, &client->roots, link) {
    if (lstr_ncmp(&node->path, path, node->path.len) == 0) return node;
  }
  return NULL;
}

/*
 * Appends a node for a newly announced root. An allocation failure only
 * costs the entry: the caller still tells the subscribers, and commands for
 * the root's paths then go out as plain commands.
 */
static lorc_root_node *_lorc_root_create_nolock(lorc_client *client, const lstr *path,
                                                const lorc_key_struct *item,
                                                const lmq_address *txid) {
  size_t size = sizeof(lorc_root_node) + path->len + 1u;
  lorc_root_node *node = loreg_malloc(client->allocator, size);
  if (node == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_TASK,
              "%s(): failed to alloc %d bytes for new root path node\n", "lorc_root_create",
              (int)size);
    return NULL;
  }
  memset(node, 0, size);
  char *text = (char *)(node + 1);
  memcpy(text, path->ptr, path->len);
  text[path->len] = '\0';
  node->path.ptr = text;
  node->path.len = path->len;
  if (txid != NULL) node->txid = *txid;
  (void)cspOsalGetUptime(&node->updated);
  node->flags = item->flags;
  TAILQ_INSERT_TAIL(&client->roots, node, link);
  return node;
}

void lorc_root_keyupd(lorc_client *client, const lstr *path, const lorc_key_struct *item,
                      uint32_t reason, const lmq_address *txid) {
  if (client == NULL || path == NULL || item == NULL) return;
  if ((item->flags & LORC_KEYF_ROOT) == 0) return;

  if (pthread_mutex_lock(&client->mutex) != 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_TASK, "%s(): Unable to lock client mutex\n",
              __func__);
    return;
  }

  lorc_root_node *node = _lorc_root_find_covering_nolock(client, path);
  if (node != NULL) {
    if (_lorc_root_is_announcement(reason)) {
      /* A renewal: the subscribers heard of this root already. */
      if (txid != NULL) node->txid = *txid;
      node->flags = item->flags;
      (void)cspOsalGetUptime(&node->updated);
      pthread_mutex_unlock(&client->mutex);
      return;
    }
    if (reason == LOREG_REASON_KEY_DELETE) {
      TAILQ_REMOVE(&client->roots, node, link);
      loreg_free(client->allocator, node);
      pthread_mutex_unlock(&client->mutex);
      lorc_subscr_process(client, path, item, LOREG_REASON_SERVER_GONE, 0);
      return;
    }
    pthread_mutex_unlock(&client->mutex);
    return;
  }

  if (_lorc_root_is_announcement(reason)) {
    node = _lorc_root_create_nolock(client, path, item, txid);
    lorc_subscr_new_root_nolock(client, node);
    pthread_mutex_unlock(&client->mutex);
    lorc_subscr_process(client, path, item, LOREG_REASON_SERVER_AVAILABLE, 0);
    return;
  }
  pthread_mutex_unlock(&client->mutex);
}

lorc_root_node *lorc_root_findNextMatch_nolock(lorc_client *client, lorc_root_node *previous,
                                               const lstr *path) {
  if (client == NULL || path == NULL) return NULL;
  lorc_root_node *node =
      previous != NULL ? TAILQ_NEXT(previous, link) : TAILQ_FIRST(&client->roots);
  for (; node != NULL; node = TAILQ_NEXT(node, link)) {
    uint32_t n = node->path.len < path->len ? node->path.len : path->len;
    if (lstr_ncmp(&node->path, path, n) == 0) return node;
  }
  return NULL;
}

int lorc_root_get_txid(lorc_client *client, const char *path, lmq_address *txidOut,
                       _cspOsalTime_struct *updatedOut) {
  if (client == NULL || path == NULL) return -EINVAL;
  lstr key;
  lstr_cinit(&key, path);
  if (pthread_mutex_lock(&client->mutex) != 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_API, "%s(): Unable to lock client mutex\n",
              __func__);
    return -ENOLCK;
  }
  int rc = -ENOENT;
  lorc_root_node *node = _lorc_root_find_covering_nolock(client, &key);
  if (node != NULL) {
    if (txidOut != NULL) *txidOut = node->txid;
    if (updatedOut != NULL) *updatedOut = node->updated;
    rc = 0;
  }
  pthread_mutex_unlock(&client->mutex);
  return rc;
}

int lorc_root_get_path(lorc_client *client, int32_t index, uint32_t *flagsOut,
                       _cspOsalTime_struct *updatedOut, char *buffer, uint32_t bufferSize) {
  if (client == NULL) return -EINVAL;
  if (index < 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_API, "%s(): invalid index %d\n", __func__,
              (int)index);
    return -EINVAL;
  }
  if (bufferSize != 0 && buffer == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_API, "%s(): invalid buffer given.\n", __func__);
    return -EINVAL;
  }
  if (pthread_mutex_lock(&client->mutex) != 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_API, "%s(): Unable to lock client mutex\n",
              __func__);
    return -ENOLCK;
  }
  lorc_root_node *node = TAILQ_FIRST(&client->roots);
  for (int32_t i = 0; node != NULL && i < index; i++) node = TAILQ_NEXT(node, link);
  if (node == NULL) {
    pthread_mutex_unlock(&client->mutex);
    return -ENOENT;
  }
  if (flagsOut != NULL) *flagsOut = node->flags;
  if (updatedOut != NULL) *updatedOut = node->updated;
  int rc = 0;
  if (buffer != NULL && bufferSize != 0) {
    uint32_t n = node->path.len < bufferSize - 1u ? node->path.len : bufferSize - 1u;
    memcpy(buffer, node->path.ptr, n);
    buffer[n] = '\0';
    rc = (int)n;
  }
  pthread_mutex_unlock(&client->mutex);
  return rc;
}

int lorc_root_is_valid(const _cspOsalTime_struct *updated, const _cspOsalTime_struct *now) {
  if (updated == NULL || now == NULL) return 0;
  const _cspOsalTime_struct validity = {LORC_ROOT_VALID_SEC, 0};
  _cspOsalTime_struct limit;
  cspOsalAddTime(&limit, updated, &validity);
  return cspOsalCompareTime(&limit, now) >= 0;
}

int lorc_root_count_valid(lorc_client *client, const _cspOsalTime_struct *now) {
  if (client == NULL) return -EINVAL;
  if (now == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_API, "%s(): current time missing (pNow == NULL).\n",
              __func__);
    return -EINVAL;
  }
  if (pthread_mutex_lock(&client->mutex) != 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_API, "%s(): Unable to lock client mutex\n",
              __func__);
    return -ENOLCK;
  }
  int count = 0;
  lorc_root_node *node;
  TAILQ_FOREACH(node, &client->roots, link) {
    if (lorc_root_is_valid(&node->updated, now)) count++;
  }
  pthread_mutex_unlock(&client->mutex);
  return count;
}

void lorc_root_reset_nolock(lorc_client *client) {
  if (client == NULL) return;
  lorc_root_node *node;
  while ((node = TAILQ_FIRST(&client->roots)) != NULL) {
    TAILQ_REMOVE(&client->roots, node, link);
    loreg_free(client->allocator, node);
  }
}

/* --- Asking the servers for their roots --------------------------------- */

/* Arms the retry timer delayMs from now, or parks it for 0. A timer that
 * becomes the first wakes the loop unless this is the loop. */
static void _lorc_root_query_timer_set(lorc_client *client, uint32_t delayMs) {
  _cspOsalTime_struct delay = {(int64_t)(delayMs / 1000u), (int32_t)((delayMs % 1000u) * 1000u)};
  _cspOsalTime_struct now;
  tmrq_info info;
  int rc;

  if (client->rootQueryTimerId == 0) {
    if (delayMs == 0) return;
    rc = lorc_timer_create(client, &delay, NULL); /* the new timer's id */
    if (rc > 0) client->rootQueryTimerId = rc;
  } else {
    rc = tmrq_TimerGet(client->timers, client->rootQueryTimerId, &info);
    if (rc >= 0) rc = cspOsalGetUptime(&now);
    if (rc >= 0) {
      cspOsalAddTime(&info.timeout, &now, &delay);
      info.inactive = delayMs == 0;
      rc = tmrq_TimerUpdate(client->timers, &info); /* its place in the queue */
      if (rc == 0 && delayMs != 0 && !lorc_is_client_thread(client)) {
        (void)lorc_client_send_idle(client);
      }
    }
  }
  if (rc < 0 && delayMs != 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_TASK,
              "%s(): no timer for the root query's retry (code %d)\n", __func__, rc);
  }
}

/*
 * Asks every host of the service for its root, which each sends back as a
 * key update to this client alone. A query lost to a busy bus would leave
 * a server unknown until its next announcement, so one that cannot go is
 * sent again on the client's timer, LORC_ROOT_QUERY_RETRY_MS later and
 * twice as long after each further failure. With no host at all (-113)
 * there is nobody to ask: a host that comes brings its own presence
 * message, and with it a new query.
 */
void lorc_root_query_send(lorc_client *client) {
  loreg_msg query;
  uint32_t delay;
  int rc;

  memset(&query, 0, sizeof(query));
  query.header.msgtype = LOREG_MSG_ROOT_KEY_QUERY;
  rc = loreg_send_command(client->lmq.client, client->lmq.service_id, &query);
  if (rc == 0 || rc == -EHOSTUNREACH) {
    if (client->rootQueryDelayMs != 0) _lorc_root_query_timer_set(client, 0);
    client->rootQueryDelayMs = 0;
    return;
  }
  delay = client->rootQueryDelayMs == 0 ? LORC_ROOT_QUERY_RETRY_MS : client->rootQueryDelayMs * 2u;
  if (delay > LORC_ROOT_QUERY_RETRY_MAX_MS) delay = LORC_ROOT_QUERY_RETRY_MAX_MS;
  client->rootQueryDelayMs = delay;
  LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_CLIENT_TASK,
            "%s(): root query not sent (code %d), again in %u ms\n", __func__, rc,
            (unsigned)delay);
  _lorc_root_query_timer_set(client, delay);
}
