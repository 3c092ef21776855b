/*
 * Dirty tracking, auto-commit and the server's layer over its timer queue.
 *
 * Every timer of the server (root key broadcast, the two commit timers,
 * the transactions' timers) carries lors_timer_cb as its callback and the
 * server as its user pointer; the callback sorts them out by id. The commit
 * timers are made once in the server's life and parked in between, so that
 * their ids stay valid and a later mark of a change only re-arms them.
 */
#include "loreg/lors_commit.h"

#include <string.h>

#include "common/loreg_debug.h"
#include "loreg/lors_broadcast.h"
#include "loreg/lors_export.h"
#include "loreg/lors_tas.h"
#include "server/lors_private.h"

/* A timer description with the server's callback and user pointer. */
static void _lors_timer_info(lors_ctx *server, tmrq_info *info) {
  memset(info, 0, sizeof(*info));
  info->callback = lors_timer_cb;
  info->user.ptr = server;
}

int lors_repositorySetDirty(lors_ctx *server, int dirty) {
  if (server == NULL) return 0;
  const int delayed = (server->options & LORS_OPT_COMMIT_DELAYED) != 0;

  if (dirty == 0) {
    if (server->dirty == 0) return 0;
    LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_SERVER, "Repository is clean again.\n");
    server->dirty = 0;
    /* Parked, not destroyed: the next change re-arms the same timers. */
    lors_timer_stop(server, &server->commit_timer_final, 0);
    lors_timer_stop(server, &server->commit_timer_intermediate, 0);
    return 1;
  }

  int changed = 0;
  _cspOsalTime_struct delay;
  if (server->dirty == 0) {
    LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_SERVER, "Repository just became dirty.\n");
    server->dirty = -1;
    changed = 1;
    /* The intermediate timer keeps its rhythm from the first change of a
     * dirty period: it is started here only. */
    if (delayed && server->commit_delay_intermediate != 0) {
      _lors_ms_to_time(server->commit_delay_intermediate, &delay);
      lors_timer_set(server, &server->commit_timer_intermediate, &delay, &delay);
    }
  }
  /* The final timer is pushed back by its full delay at every change, so
   * it falls due only once the repository has come to rest. A timer that
   * can't be set isn't reported: the next change tries again. */
  if (delayed && server->commit_delay_final != 0) {
    _lors_ms_to_time(server->commit_delay_final, &delay);
    lors_timer_set(server, &server->commit_timer_final, &delay, NULL);
  }
  if ((server->options & LORS_OPT_COMMIT_ON_CHANGE) != 0) {
    lors_commit_default(server, "immediate change auto-commit");
  }
  return changed;
}

int lors_commit_default(lors_ctx *server, const char *label) {
  if (server == NULL) return -22;
  if ((server->options & LORS_OPT_NO_PERSIST) != 0 || server->dirty == 0) return 0;
  LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_SERVER, "(%s) Committing changes.\n", label);
  return lors_exprt_default(server, label);
}

int lors_timer_set(lors_ctx *server, int32_t *id_ref, const _cspOsalTime_struct *timeout,
                   const _cspOsalTime_struct *period) {
  if (server == NULL || (timeout == NULL && period == NULL)) return -22;

  tmrq_info info;
  _lors_timer_info(server, &info);
  _cspOsalTime_struct now;
  cspOsalGetUptime(&now);
  cspOsalAddTime(&info.timeout, &now, timeout != NULL ? timeout : period);
  if (period != NULL) info.period = *period;

  int rc;
  if (id_ref != NULL && *id_ref > 0) {
    /* The same timer moves to its new time; a parked one is armed again,
     * since inactive is 0 in the new description. */
    info.id = *id_ref;
    rc = tmrq_TimerUpdate(server->timers, &info);
    return rc < 0 ? rc : *id_ref;
  }
  rc = tmrq_TimerCreate(server->timers, &info);
  if (rc < 0) return rc;
  if (id_ref != NULL) *id_ref = info.id;
  return info.id;
}

int lors_timer_create(lors_ctx *server, const _cspOsalTime_struct *timeout,
                      const _cspOsalTime_struct *period) {
  return lors_timer_set(server, NULL, timeout, period);
}

int lors_timer_destroy(lors_ctx *server, int32_t id) {
  if (server == NULL || id <= 0) return -22;
  int rc = tmrq_TimerDestroy(server->timers, id);
  return rc < 0 ? rc : 0;
}

int lors_timer_stop(lors_ctx *server, int32_t *id_ref, int destroy) {
  if (server == NULL || id_ref == NULL) return -22;
  if (*id_ref <= 0) return 0;

  if (destroy) {
    int rc = lors_timer_destroy(server, *id_ref);
    if (rc == 0) *id_ref = 0;
    return rc;
  }

  /* Parked: the queue keeps the timer under its id, and it never fires
   * until lors_timer_set arms it again. */
  tmrq_info info;
  _lors_timer_info(server, &info);
  info.id = *id_ref;
  info.inactive = 1;
  int rc = tmrq_TimerUpdate(server->timers, &info);
  return rc < 0 ? rc : 0;
}

int lors_timer_process(lors_ctx *server, _cspOsalTime_struct *next) {
  if (server == NULL) return -22;

  /* now is not taken again after the callbacks: time spent in them, such
   * as in a commit, counts as not passed. */
  _cspOsalTime_struct now;
  cspOsalGetUptime(&now);
  tmrq_Process(server->timers, &now);

  tmrq_info info;
  int rc = tmrq_TimerGet(server->timers, 0, &info);
  if (rc < 0) return rc;
  if (next != NULL) {
    /* A timer that is already due still gives a positive wait, never the
     * zero that would mean "no timeout" to the loop. */
    _cspOsalTime_struct difference;
    cspOsalSubtractTime3(&difference, &info.timeout, &now);
    _cspOsalPlatform_Common_RelativeTimeout(next, &difference);
  }
  return 0;
}

int lors_timer_cb(tmrq_inst *queue, const tmrq_info *info, const _cspOsalTime_struct *now) {
  (void)queue;
  (void)now;
  if (info == NULL) return 0;
  lors_ctx *server = info->user.ptr;
  if (server == NULL) return 0;

  int32_t id = info->id;
  if (id == server->root_timer) {
    lors_sendRootKey(server, LOREG_REASON_KEY_UPDATE, NULL);
  } else if (id == server->commit_timer_final) {
    lors_commit_default(server, "delayed final auto-commit");
  } else if (id == server->commit_timer_intermediate) {
    lors_commit_default(server, "delayed intermediate auto-commit");
  } else {
    lors_tas_onTimer(server, id);
  }
  return 0;
}
