/*
 * apij: the API job handler.
 *
 * Turns an operation that ends later, usually in another thread, into a
 * numbered job. A job can be waited for with a time limit, is completed
 * once with a result, may run a registered callback at completion, and
 * survives its own destruction for as long as references to it are held.
 * The handler knows nothing of what a job stands for: that lives in an
 * opaque cookie copied into the job.
 *
 * Conventions
 * - Results: 0, a positive id, or a negative errno (-2 unknown id, -12 out
 *   of memory, -22 bad instance or reference, -37 instance mutex not
 *   lockable, -103 job destroyed, -110 timed out, -114 already done). The
 *   single positive exception is +110 from a poll of apij_JobResultGet.
 * - Instances: every function taking an instance validates it first. A
 *   null instance logs "<fn>(NULL): need context pointer", one without the
 *   magic logs "<fn>(<ptr>): invalid context"; both return -22.
 * - Ids: jobs and callbacks draw their ids from one counter of the
 *   instance starting at 1, so a job and a callback never share an id. Ids
 *   are not reused. A failed allocation consumes no id.
 * - Cookies: the instance, each job and each callback carry a cookie. When
 *   the matching size of the configuration is non-zero, the cookie is that
 *   many bytes of storage owned by the record, filled with a copy of the
 *   caller's bytes (zeroed when the caller passes null). When the size is
 *   zero, the cookie is the caller's pointer itself, not owned.
 * - References: an apij_job_ref is a by-value snapshot of a job, taken
 *   when its reference count was raised. Whoever receives one owns exactly
 *   one count and gives it back with apij_JobRefRelease. Its cookie points
 *   into the job, which stays allocated while the count is held.
 * - Memory: the instance and all its nodes come from the allocator of the
 *   configuration (null or LOREG_ALLOCATOR_DEFAULT: malloc and free).
 * - Threads: all functions are thread-safe except apij_InstCreate and
 *   apij_InstDestroy, which must not race with other calls on the same
 *   instance. Only apij_JobResultGet blocks. Callbacks run in the thread
 *   that calls apij_JobDone, with no lock of this module held, and may call
 *   any function of this module; a callback must not wait with
 *   apij_JobResultGet for a delayed unregistering (see apij_CbUnregister).
 */
#ifndef LOREG_APIJ_H
#define LOREG_APIJ_H

#include <stdint.h>

#include "loreg/loreg_alloc.h"
#include "loreg/loreg_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A job handler instance. Opaque. */
typedef struct apij_inst apij_inst;

/* What the creator of an instance passes. A null configuration means all
 * zero. */
typedef struct apij_config {
  loreg_allocator *allocator; /* null or LOREG_ALLOCATOR_DEFAULT: malloc */
  uint32_t jobCookieSize;     /* bytes of cookie storage in each job */
  uint32_t cbCookieSize;      /* bytes of cookie storage in each callback */
  uint32_t instCookieSize;    /* bytes of cookie storage in the instance */
} apij_config;

/* The magic of a live job reference. */
#define APIJ_JOB_REF_MAGIC 0x726A

/* A by-value reference to a job; see the conventions above. */
typedef struct apij_job_ref {
  int32_t id;         /* job id, positive */
  void *cookie;       /* the job's cookie */
  int32_t tmrId;      /* timer attached to the job, -1 for none */
  int32_t callbackId; /* callback run at completion; below 1: none */
  int32_t result;     /* -110 until the job is done */
  uint16_t done;      /* 1 once the job is done */
  uint16_t magic;     /* APIJ_JOB_REF_MAGIC while the count is held */
  apij_inst *inst;    /* the instance */
} apij_job_ref;

/*
 * A job callback: called at the completion of a job whose callbackId names
 * it, with the instance, a reference to the job (held by the handler for
 * the duration of the call; the callback must not release it) and the
 * callback's cookie. The return value is ignored.
 */
typedef int (*apij_callback_fn)(apij_inst *inst, apij_job_ref *ref, void *cookie);

/*
 * Creates an instance. config may be null (all sizes zero, default
 * allocator). cookie becomes the instance cookie by the cookie rule.
 * Returns the instance, or null when memory or the mutex cannot be had.
 */
LOREG_EXPORT apij_inst *apij_InstCreate(const apij_config *config, void *cookie);

/*
 * Destroys the instance with all its jobs and callbacks, whatever their
 * reference counts; waiters wake with -103. References still held then
 * point at freed memory and must not be used. Returns 0, or -22/-37.
 */
LOREG_EXPORT int apij_InstDestroy(apij_inst *inst);

/* Returns the instance cookie, or null (with a log line) for a null or
 * invalid instance. Takes no lock. */
LOREG_EXPORT void *apij_InstCookie(apij_inst *inst);

/*
 * Creates an open job with the cookie (by the cookie rule), the timer id
 * and the callback id (below 1: none). When refOut is not null it receives
 * a reference that owns one count; otherwise the job has no count and
 * apij_JobDestroy frees it at once. Returns the job id, -12 (refOut then
 * zeroed), or -22/-37.
 */
LOREG_EXPORT int apij_JobCreate(apij_inst *inst, void *cookie, int32_t tmrId, int32_t callbackId,
                                apij_job_ref *refOut);

/*
 * Destroys a job in any state: its waiters wake with -103, it is marked
 * deleted and becomes invisible to lookups and completion; its memory goes
 * at once, or when the last reference is released. Returns 0, -2 for an
 * unknown id, or -22/-37.
 */
LOREG_EXPORT int apij_JobDestroy(apij_inst *inst, int32_t jobId);

/*
 * Completes a job with result: waiters wake with it, then the job's
 * callback runs in this thread (unless it is being unregistered). Returns
 * 0 (also when a callback ran), -2 for an unknown or deleted job, -114 for
 * a job already done (its first result stands), -22/-37, or -14 when the
 * instance could not be locked again after the callback, a fatal state.
 */
LOREG_EXPORT int apij_JobDone(apij_inst *inst, int32_t jobId, int32_t result);

/*
 * Gets the result of a job: waits up to timeOut seconds when timeOut is
 * above 0, only polls otherwise. The return value and *result (result may
 * be null) are separate:
 *
 *   situation                               return     *result
 *   job already done                        0          the job's result
 *   timeOut > 0, woken by completion        0          the job's result
 *   timeOut > 0, woken by destruction       0          -103
 *   timeOut > 0, wait failed                -110 on expiry, else minus
 *                                           the wait's error code; -14
 *   timeOut <= 0, job not done, unknown,
 *     or bad instance                       +110       -14
 *   timeOut > 0, unknown job                -2         -14
 *   timeOut > 0, bad instance or no lock    -22, -37   -14
 *
 * The wait is a single condition wait: a spurious wake-up reads as success
 * with result 0. A waiter on a job destroyed but still referenced waits
 * until the job is freed (-103) or its time is up. Never wait inside a job callback for the
 * delay job of apij_CbUnregister.
 */
LOREG_EXPORT int apij_JobResultGet(apij_inst *inst, int32_t jobId, int32_t *result,
                                   int32_t timeOut);

/* Attaches a timer id to a job. Returns 0, -2 for an unknown or deleted
 * job, or -22/-37. */
LOREG_EXPORT int apij_JobAssignTmrId(apij_inst *inst, int32_t jobId, int32_t tmrId);

/*
 * Looks a job up by id, skipping deleted jobs. With refOut not null, it
 * raises the count and fills *refOut (which the caller then owns); with
 * null it is a pure lookup. Returns the job id, -2 (refOut zeroed), or
 * -22/-37.
 */
LOREG_EXPORT int apij_JobRefGet(apij_inst *inst, int32_t jobId, apij_job_ref *refOut);

/* Whether a job is done, without a reference: 1 done, 0 not yet, -2 for
 * an unknown or deleted job, -22/-37 for the instance. */
LOREG_EXPORT int apij_JobIsDone(apij_inst *inst, int32_t jobId);

/* The same as apij_JobRefGet, finding the first non-deleted job with the
 * timer id. */
LOREG_EXPORT int apij_JobRefGetTmr(apij_inst *inst, int32_t tmrId, apij_job_ref *refOut);

/*
 * Gives back the count owned by *ref and clears its magic, so that a
 * second release fails. A deleted job whose count drops to 0 is freed.
 * Returns 0, -22 for a null reference or one without the magic (checked
 * before the instance), -2 for an unknown job (the magic is cleared too),
 * or -22/-37 for the instance.
 */
LOREG_EXPORT int apij_JobRefRelease(apij_inst *inst, apij_job_ref *ref);

/* Registers a job callback with its cookie (by the cookie rule). fn is
 * not checked. Returns the callback id, -12, or -22/-37. */
LOREG_EXPORT int apij_CbRegister(apij_inst *inst, apij_callback_fn fn, void *cookie);

/*
 * Unregisters a callback. With removeJobs non-zero, every open job with
 * this callback id is destroyed first (waiters wake with -103). When no
 * callback runs anywhere in the instance, the callback goes at once and 0
 * is returned. Otherwise the removal is delayed until no callback runs any
 * more: the callback is not called again, and the positive id of a delay
 * job is returned, which completes with 0 once the callback has gone
 * (wait for it with apij_JobResultGet, but never from inside a callback).
 * Returns -2 for an unknown callback or one already being unregistered,
 * -12 when the delay job cannot be had, or -22/-37.
 */
LOREG_EXPORT int apij_CbUnregister(apij_inst *inst, int32_t callbackId, int removeJobs);

#ifdef __cplusplus
}
#endif

#endif
