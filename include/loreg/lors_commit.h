/*
 * lors_commit: dirty tracking, auto-commit and the server's timers.
 *
 * dirty is 0 while the files hold the tree and -1 while unsaved changes
 * exist. Commits go through lors_commit_default, triggered by a change
 * (LORS_OPT_COMMIT_ON_CHANGE), by the final timer (commit_delay_final ms
 * after the last change) and the intermediate timer (every
 * commit_delay_intermediate ms while dirty) with LORS_OPT_COMMIT_DELAYED,
 * by the end of a transaction and at shutdown. All server timers pass
 * through lors_timer_cb. Server thread only. Delays in milliseconds become
 * times of ms / 1000 seconds and (ms % 1000) * 1000 microseconds.
 */
#ifndef LOREG_LORS_COMMIT_H
#define LOREG_LORS_COMMIT_H

#include <stdint.h>

#include "loreg/loreg_export.h"
#include "loreg/lors.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Marks the repository dirty (non-zero) or clean (0), starting or parking
 * the commit timers and committing at once with LORS_OPT_COMMIT_ON_CHANGE.
 * Returns 1 if the state changed, else 0.
 */
LOREG_EXPORT int lors_repositorySetDirty(lors_ctx *server, int dirty);

/* Does nothing and returns 0 with LORS_OPT_NO_PERSIST or a clean
 * repository; otherwise logs "(label) Committing changes." and returns
 * lors_exprt_default's result. */
LOREG_EXPORT int lors_commit_default(lors_ctx *server, const char *label);

/*
 * Sets a timer due after timeout (or after period if timeout is null),
 * repeating every period if given. With id_ref holding an id above 0 that
 * timer is moved (and reactivated); otherwise a new one is made and its id
 * stored in *id_ref (if not null). Returns the id, -22 for a null server
 * or both times null, or the timer queue's error.
 */
LOREG_EXPORT int lors_timer_set(lors_ctx *server, int32_t *id_ref,
                                const _cspOsalTime_struct *timeout,
                                const _cspOsalTime_struct *period);

/* lors_timer_set with a fresh id; returns it. */
LOREG_EXPORT int lors_timer_create(lors_ctx *server, const _cspOsalTime_struct *timeout,
                                   const _cspOsalTime_struct *period);

/* Destroys a timer. Returns 0, -22 (null server, id not above 0), or the
 * queue's negative result. */
LOREG_EXPORT int lors_timer_destroy(lors_ctx *server, int32_t id);

/*
 * Stops the timer in *id_ref: with destroy it is destroyed and *id_ref set
 * to 0; otherwise it is parked (inactive) and keeps its id. Returns 0 (also
 * for a stored id not above 0), -22 for null arguments, or the queue's
 * error.
 */
LOREG_EXPORT int lors_timer_stop(lors_ctx *server, int32_t *id_ref, int destroy);

/* Fires the due timers and stores in *next the time until the next one;
 * with none, returns the queue's negative result and leaves *next. */
LOREG_EXPORT int lors_timer_process(lors_ctx *server, _cspOsalTime_struct *next);

/* The callback of all the server's timers (user word 0: the server). */
LOREG_EXPORT int lors_timer_cb(tmrq_inst *queue, const tmrq_info *info,
                               const _cspOsalTime_struct *now);

#ifdef __cplusplus
}
#endif

#endif
