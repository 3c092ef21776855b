/*
 * Timer queue: a sorted list of timers, fired by tmrq_Process.
 *
 * The list is kept in one order at all times: active timers by rising
 * timeout, then inactive ones by rising timeout, so the next due time is
 * always at the head. The list is assumed to be short: every operation
 * walks it.
 */
#include "loreg/tmrq.h"

#include <errno.h>
#include <pthread.h>
#include <stdint.h>
#include <string.h>
#include <sys/queue.h>

#include "common/loreg_debug.h"

#define TMRQ_MAGIC 0x51524D54u /* the bytes "TMRQ" in memory */

/* Instance flag: a pass of tmrq_Process is running. */
#define TMRQ_FLAG_PROCESSING 0x8000u

/* Node flag: found due at the start of the running pass, not yet handled. */
#define TMRQ_NODE_DUE 0x1u

typedef struct tmrq_node {
  tmrq_info info;
  TAILQ_ENTRY(tmrq_node) link;
  uint32_t node_flags;
} tmrq_node;

TAILQ_HEAD(tmrq_node_list, tmrq_node);

struct tmrq_inst {
  uint32_t magic;
  pthread_mutex_t mutex;
  struct tmrq_node_list queue;
  int32_t next_id;
  uint32_t flags;
  const loreg_allocator *allocator;
};

/* The user words must be able to carry a pointer. */
_Static_assert(sizeof(tmrq_user) == 2 * sizeof(uint32_t), "tmrq_user is two 32-bit words");

/*
 * The check at the entry of every operation: a live instance, then its
 * mutex. On success the mutex is held and 0 returned; otherwise the reason
 * is logged in the name of the operation and -22 or -37 returned.
 */
static int _tmrq_enter(tmrq_inst *queue, const char *func) {
  if (queue == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_TMRQ, "%s(NULL): need context pointer\n", func);
    return -EINVAL;
  }
  if (queue->magic != TMRQ_MAGIC) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_TMRQ, "%s(%p): invalid context\n", func, (void *)queue);
    return -EINVAL;
  }
  if (pthread_mutex_lock(&queue->mutex) != 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_TMRQ, "%s(): Unable to lock instance mutex\n", func);
    return -ENOLCK;
  }
  return 0;
}

static void _tmrq_leave(tmrq_inst *queue) {
  pthread_mutex_unlock(&queue->mutex);
}

static int _tmrq_info_missing(const tmrq_info *info, const char *func) {
  if (info != NULL) return 0;
  LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_TMRQ, "%s(): 'info' parameter must not be NULL.\n", func);
  return 1;
}

/* Finds the timer id; stores its index in *index when index is not null. */
static tmrq_node *_tmrq_find_nolock(tmrq_inst *queue, int32_t id, int *index) {
  int i = 0;
  tmrq_node *node;
  TAILQ_FOREACH(node, &queue->queue, link) {
    if (node->info.id == id) {
      if (index != NULL) *index = i;
      return node;
    }
    i++;
  }
  return NULL;
}

static void _tmrq_log_not_found(int32_t id, const char *func) {
  LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_TMRQ, "%s() sorry, timer id=%d not found.\n", func, (int)id);
}

/*
 * Links an unlinked node into its place in the sorted order and returns the
 * index it got. Among equal timeouts the new node goes last, so timers with
 * the same timeout keep the order in which they were set.
 */
static int _tmrq_insert_nolock(tmrq_inst *queue, tmrq_node *node) {
  int index = 0;
  tmrq_node *at;
  TAILQ_FOREACH(at, &queue->queue, link) {
    int at_active = at->info.inactive == 0;
    int new_active = node->info.inactive == 0;
    if (at_active && !new_active) {
      /* Inactive timers go behind every active one. */
    } else if (!at_active && new_active) {
      break;
    } else if (cspOsalCompareTime(&at->info.timeout, &node->info.timeout) > 0) {
      break;
    }
    index++;
  }
  if (at != NULL) {
    TAILQ_INSERT_BEFORE(at, node, link);
  } else {
    TAILQ_INSERT_TAIL(&queue->queue, node, link);
  }
  return index;
}

/* The trace line of an inserted timer; when is "now " for an update. */
static void _tmrq_log_inserted(const tmrq_node *node, int index, const char *when,
                               const char *func) {
  const tmrq_info *info = &node->info;
  LOREG_LOG(LOREG_LVL_TRACE, LOREG_MOD_TMRQ,
            "%s(), id=%d, %sactive, timeout=[%llds+%06dus] period=[%llds+%06dus] %s@idx=%d\n",
            func, (int)info->id, info->inactive ? "in" : "", (long long)info->timeout.sec,
            (int)info->timeout.usec, (long long)info->period.sec, (int)info->period.usec, when,
            index);
}

/*
 * Makes a node from *info under the next id, sorts it in and gives the id
 * back in info->id. Returns the index, or -12 with the queue and the id
 * counter unchanged.
 */
static int _tmrq_node_create_nolock(tmrq_inst *queue, tmrq_info *info) {
  tmrq_node *node = loreg_malloc(queue->allocator, sizeof(*node));
  if (node == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_TMRQ, "%s() failed to alloc %u bytes timer  node\n",
              __func__, (unsigned)sizeof(*node));
    return -ENOMEM;
  }
  node->info = *info;
  node->info.id = queue->next_id++;
  node->node_flags = 0;
  int index = _tmrq_insert_nolock(queue, node);
  _tmrq_log_inserted(node, index, "", __func__);
  info->id = node->info.id;
  return index;
}

/*
 * Replaces the fields of a queued node with *info and sorts it into its new
 * place. The node keeps its flags: a timer found due by the running pass
 * stays a candidate of that pass. Returns the new index.
 */
static int _tmrq_node_update_nolock(tmrq_inst *queue, tmrq_node *node, const tmrq_info *info) {
  TAILQ_REMOVE(&queue->queue, node, link);
  node->info = *info;
  int index = _tmrq_insert_nolock(queue, node);
  _tmrq_log_inserted(node, index, "now ", __func__);
  return index;
}

tmrq_inst *tmrq_InstCreate(const tmrq_params *params) {
  const loreg_allocator *allocator = params != NULL ? params->allocator : NULL;
  tmrq_inst *queue = loreg_malloc(allocator, sizeof(*queue));
  if (queue == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_TMRQ, "%s(): failed to allocate %u bytes context\n",
              __func__, (unsigned)sizeof(*queue));
    return NULL;
  }
  memset(queue, 0, sizeof(*queue));
  int rc = pthread_mutex_init(&queue->mutex, NULL);
  if (rc != 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_TMRQ, "%s(): pthread_mutex_init() failed, errno %d\n",
              __func__, rc);
    loreg_free(allocator, queue);
    return NULL;
  }
  TAILQ_INIT(&queue->queue);
  queue->next_id = 1;
  queue->flags = 0;
  queue->allocator = allocator;
  queue->magic = TMRQ_MAGIC;
  return queue;
}

int tmrq_InstDestroy(tmrq_inst *queue) {
  int rc = _tmrq_enter(queue, __func__);
  if (rc != 0) return rc;
  /* A caller that comes late is refused from here on, not let in. */
  queue->magic = 0;
  int deleted = 0;
  tmrq_node *node;
  while ((node = TAILQ_LAST(&queue->queue, tmrq_node_list)) != NULL) {
    TAILQ_REMOVE(&queue->queue, node, link);
    loreg_free(queue->allocator, node);
    deleted++;
  }
  if (deleted > 0) {
    LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_TMRQ, "%s(): %d timers deleted.\n", __func__, deleted);
  }
  _tmrq_leave(queue);
  pthread_mutex_destroy(&queue->mutex);
  loreg_free(queue->allocator, queue);
  return 0;
}

int tmrq_TimerCreate(tmrq_inst *queue, tmrq_info *info) {
  if (_tmrq_info_missing(info, __func__)) return -EINVAL;
  int rc = _tmrq_enter(queue, __func__);
  if (rc != 0) return rc;
  rc = _tmrq_node_create_nolock(queue, info);
  _tmrq_leave(queue);
  return rc;
}

int tmrq_TimerDestroy(tmrq_inst *queue, int32_t id) {
  int rc = _tmrq_enter(queue, __func__);
  if (rc != 0) return rc;
  int index = -1;
  tmrq_node *node = _tmrq_find_nolock(queue, id, &index);
  if (node == NULL) {
    _tmrq_log_not_found(id, __func__);
    rc = -ENOENT;
  } else {
    TAILQ_REMOVE(&queue->queue, node, link);
    loreg_free(queue->allocator, node);
    rc = index;
  }
  _tmrq_leave(queue);
  return rc;
}

int tmrq_TimerGet(tmrq_inst *queue, int32_t id, tmrq_info *info) {
  int rc = _tmrq_enter(queue, __func__);
  if (rc != 0) return rc;
  int index = 0;
  tmrq_node *node;
  if (id > 0) {
    node = _tmrq_find_nolock(queue, id, &index);
  } else {
    /* By the sorted order, an inactive head means no active timer at all. */
    node = TAILQ_FIRST(&queue->queue);
    if (node != NULL && node->info.inactive) node = NULL;
  }
  if (node == NULL) {
    rc = -ENOENT;
  } else {
    if (info != NULL) *info = node->info;
    rc = index;
  }
  _tmrq_leave(queue);
  return rc;
}

int tmrq_TimerUpdate(tmrq_inst *queue, const tmrq_info *info) {
  if (_tmrq_info_missing(info, __func__)) return -EINVAL;
  int rc = _tmrq_enter(queue, __func__);
  if (rc != 0) return rc;
  tmrq_node *node = _tmrq_find_nolock(queue, info->id, NULL);
  if (node == NULL) {
    _tmrq_log_not_found(info->id, __func__);
    rc = -ENOENT;
  } else {
    rc = _tmrq_node_update_nolock(queue, node, info);
  }
  _tmrq_leave(queue);
  return rc;
}

static int _tmrq_is_periodic(const _cspOsalTime_struct *period) {
  return period->sec >= 1 || (period->sec == 0 && period->usec >= 1);
}

/*
 * Moves *timeout, which is not later than *now, forward by whole periods to
 * the first tick strictly after *now. When the distance is large, all but
 * the last tick are skipped in one multiplication, so that a timer held up
 * for long with a short period costs no long loop; the loop adds the
 * remaining ticks one by one, which gives the same result as adding the
 * period tick by tick from the start. Returns -1, leaving *timeout as it
 * was, when the period is not positive as a whole (a period whose
 * microseconds cancel its seconds), since no number of ticks would pass
 * *now.
 */
static int _tmrq_advance_past(_cspOsalTime_struct *timeout, const _cspOsalTime_struct *period,
                              const _cspOsalTime_struct *now) {
  /* Up to this many seconds, a time converts to microseconds in int64_t
   * with room to spare. Longer periods pass any now in a few ticks. */
  const int64_t max_sec = INT64_C(4000000000000);
  if (period->sec < max_sec) {
    int64_t period_us = period->sec * 1000000 + period->usec;
    if (period_us <= 0) return -1;
    _cspOsalTime_struct gap;
    cspOsalSubtractTime3(&gap, now, timeout);
    if (gap.sec >= 0 && gap.sec < max_sec) {
      int64_t gap_us = gap.sec * 1000000 + gap.usec;
      int64_t ticks = gap_us / period_us; /* ticks that stay not later than now */
      if (ticks > 1) {
        int64_t jump_us = (ticks - 1) * period_us;
        _cspOsalTime_struct jump = {jump_us / 1000000, (int32_t)(jump_us % 1000000)};
        cspOsalAddTime(timeout, timeout, &jump);
      }
    }
  }
  while (cspOsalCompareTime(timeout, now) <= 0) cspOsalAddTime(timeout, timeout, period);
  return 0;
}

/* Marks every active timer that is due at now; returns how many there are. */
static int _tmrq_mark_due_nolock(tmrq_inst *queue, const _cspOsalTime_struct *now) {
  int due = 0;
  tmrq_node *node;
  TAILQ_FOREACH(node, &queue->queue, link) {
    if (!node->info.inactive && cspOsalCompareTime(&node->info.timeout, now) <= 0) {
      node->node_flags |= TMRQ_NODE_DUE;
      due++;
    }
  }
  return due;
}

/*
 * Returns the first node that is still marked due and still due at now,
 * clearing the mark of every marked node it passes on the way, or null.
 * A callback may have re-armed, parked or destroyed any timer, so the
 * marks are the only thing trusted from before the callback.
 */
static tmrq_node *_tmrq_next_due_nolock(tmrq_inst *queue, const _cspOsalTime_struct *now) {
  tmrq_node *node;
  TAILQ_FOREACH(node, &queue->queue, link) {
    if (!(node->node_flags & TMRQ_NODE_DUE)) continue;
    node->node_flags &= ~TMRQ_NODE_DUE;
    if (node->info.inactive || cspOsalCompareTime(&node->info.timeout, now) > 0) continue;
    return node;
  }
  return NULL;
}

int tmrq_Process(tmrq_inst *queue, const _cspOsalTime_struct *now) {
  if (now == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_TMRQ, "%s(): 'now' parameter must not be NULL.\n",
              __func__);
    return -EINVAL;
  }
  int rc = _tmrq_enter(queue, __func__);
  if (rc != 0) return rc;
  if (queue->flags & TMRQ_FLAG_PROCESSING) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_TMRQ, "%s(): timer queue is being processed already.\n",
              __func__);
    _tmrq_leave(queue);
    return -EAGAIN;
  }
  /* The mark keeps other passes out while the mutex is released around
   * the callbacks. */
  queue->flags |= TMRQ_FLAG_PROCESSING;
  if (_tmrq_mark_due_nolock(queue, now) == 0) {
    queue->flags &= ~TMRQ_FLAG_PROCESSING;
    _tmrq_leave(queue);
    return 0;
  }

  int fired = 0;
  tmrq_node *node;
  /* Each round starts from the head again, since a callback may have
   * changed anything. A timer fires at most once per pass because its due
   * mark is cleared before its callback runs, and timers set during the
   * pass never carry the mark. */
  while ((node = _tmrq_next_due_nolock(queue, now)) != NULL) {
    tmrq_info local = node->info;
    if (!_tmrq_is_periodic(&local.period) ||
        _tmrq_advance_past(&local.timeout, &local.period, now) != 0) {
      /* A one-shot timer stays known under its id, parked. */
      local.inactive = 1;
    }
    _tmrq_node_update_nolock(queue, node, &local);
    if (local.callback != NULL) {
      _tmrq_leave(queue);
      local.callback(queue, &local, now);
      rc = _tmrq_enter(queue, __func__);
      if (rc != 0) {
        /* The queue is left as it is, mark included, so that it cannot be
         * processed again: nothing is known about its state any more. */
        LOREG_LOG(LOREG_LVL_SEVERE, LOREG_MOD_TMRQ,
                  "%s() FATAL: failed to re-lock instance after callback - aborting!\n", __func__);
        LOREG_LOG(LOREG_LVL_SEVERE, LOREG_MOD_TMRQ,
                  "%s(): FATAL failure after callback - aborting!\n", __func__);
        return rc;
      }
    }
    fired++;
  }

  queue->flags &= ~TMRQ_FLAG_PROCESSING;
  _tmrq_leave(queue);
  return fired;
}
