/*
 * tmrq: a sorted queue of one-shot and periodic timers.
 *
 * The queue has no thread of its own. Its owner asks it for the next due
 * time (tmrq_TimerGet with id 0), sleeps until then, and calls tmrq_Process
 * with the current time; tmrq_Process runs the callbacks of the timers that
 * are due, on the calling thread.
 *
 * Conventions
 * - Times are absolute _cspOsalTime_struct values on whatever clock the
 *   owner chose (the registry uses the uptime clock); the queue never reads
 *   a clock itself, it only compares the times it is given.
 * - Ordering: active timers come first, by rising timeout, then the
 *   inactive (parked) ones, also by rising timeout. A timer goes behind
 *   existing timers with an equal timeout, so equal timeouts fire in the
 *   order in which they were set. Results that are indexes count from the
 *   head of the queue, which is 0.
 * - A period of zero or less makes a timer one-shot. A one-shot timer that
 *   has fired stays in the queue as an inactive timer, under its id, until
 *   it is destroyed; tmrq_TimerUpdate with inactive 0 arms it again.
 * - Ownership: the queue keeps its own copy of each tmrq_info; callers'
 *   records are only read (and given the id back by tmrq_TimerCreate). The
 *   user words are kept and handed back unchanged, never interpreted.
 * - Errors come back as negative errno values: -22 for a null or invalid
 *   instance or a null required pointer, -37 when the instance's mutex
 *   cannot be locked, -2 for an unknown timer id, -12 when memory fails,
 *   -11 when tmrq_Process is already running. Each is also logged.
 * - Threads: every function but tmrq_InstDestroy may be called from any
 *   thread at any time, also from inside a timer callback (the queue's
 *   mutex is released around each callback). tmrq_InstDestroy must be the
 *   last call: the owner stops its other threads first.
 */
#ifndef LOREG_TMRQ_H
#define LOREG_TMRQ_H

#include <stdint.h>

#include "loreg/loreg_alloc.h"
#include "loreg/loreg_export.h"
#include "platform/csp_osal.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A timer queue instance; created by tmrq_InstCreate. */
typedef struct tmrq_inst tmrq_inst;

struct tmrq_info;

/*
 * Called by tmrq_Process for a timer that fell due, with the queue's mutex
 * released. info is a copy of the timer as it now stands in the queue: a
 * periodic timer's timeout is already advanced past now, a one-shot timer is
 * already inactive. The callback may call every function of the queue but
 * tmrq_InstDestroy. Its result is ignored.
 */
typedef int (*tmrq_callback)(tmrq_inst *queue, const struct tmrq_info *info,
                             const _cspOsalTime_struct *now);

/* The owner's data of a timer: two 32-bit words, or one pointer in them. */
typedef union tmrq_user {
  uint32_t word[2];
  void *ptr;
} tmrq_user;

/* The description of one timer, as callers fill it in and read it back. */
typedef struct tmrq_info {
  int32_t id;                  /* assigned by the queue, above 0 */
  _cspOsalTime_struct timeout; /* absolute time at which the timer falls due */
  _cspOsalTime_struct period;  /* repeat distance; zero or less: one-shot */
  int32_t inactive;            /* non-zero: parked, never fires */
  tmrq_callback callback;      /* may be null */
  tmrq_user user;              /* the owner's data, kept unchanged */
} tmrq_info;

/* Creation parameters. */
typedef struct tmrq_params {
  const loreg_allocator *allocator; /* memory of the instance and its timers */
} tmrq_params;

/*
 * Creates an empty queue. params may be null, which selects malloc and
 * free; the allocator must outlive the queue. Returns the instance, or
 * null if its memory or its mutex cannot be had.
 */
LOREG_EXPORT tmrq_inst *tmrq_InstCreate(const tmrq_params *params);

/*
 * Destroys the queue and all timers still in it, without calling any
 * callback. No other call may run or follow. Returns 0, or -22 / -37 from
 * the instance check.
 */
LOREG_EXPORT int tmrq_InstDestroy(tmrq_inst *queue);

/*
 * Adds a timer described by *info (id ignored). The queue assigns the next
 * id, which is never reused in this queue, and stores it in info->id.
 * Returns the timer's index in the queue (0: it is now the first, i.e. the
 * next to fall due if active), -22 for a null info or queue, -12 when no
 * memory is left (the queue and the id counter are then unchanged).
 */
LOREG_EXPORT int tmrq_TimerCreate(tmrq_inst *queue, tmrq_info *info);

/* Removes and frees the timer id. Returns its former index, or -2 if there
 * is no such timer. */
LOREG_EXPORT int tmrq_TimerDestroy(tmrq_inst *queue, int32_t id);

/*
 * Looks a timer up. With id above 0, finds that timer and returns its
 * index, or -2 if there is none. With id 0 or less, looks at the head of
 * the queue only: returns 0 if the queue holds an active timer (the one
 * that falls due next), -2 if it is empty or holds only inactive timers.
 * When a timer is found and info is not null, its tmrq_info is copied to
 * *info. Not finding anything logs nothing.
 */
LOREG_EXPORT int tmrq_TimerGet(tmrq_inst *queue, int32_t id, tmrq_info *info);

/*
 * Replaces all fields of the timer info->id with *info and sorts it into
 * its new place. Returns its new index, -22 for a null info or queue, -2
 * if there is no such timer.
 */
LOREG_EXPORT int tmrq_TimerUpdate(tmrq_inst *queue, const tmrq_info *info);

/*
 * Fires every active timer whose timeout is not later than *now, in queue
 * order, each at most once per call. A periodic timer is moved by whole
 * periods to the first tick after *now (ticks it missed are skipped, it
 * fires once); a one-shot timer becomes inactive. Timers that a callback
 * creates, or re-arms to a time not later than *now, wait for the next
 * call. Returns the number of timers fired, -22 for a null now or queue,
 * -11 if a pass is already running (from a callback or another thread).
 * If the mutex cannot be taken back after a callback, the pass is
 * abandoned with the lock's error, and the queue refuses all later passes.
 */
LOREG_EXPORT int tmrq_Process(tmrq_inst *queue, const _cspOsalTime_struct *now);

#ifdef __cplusplus
}
#endif

#endif
