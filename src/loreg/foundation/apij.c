/*
 * API job handler: numbered jobs with results, waiters, callbacks and
 * reference counts, all guarded by one instance mutex.
 */
#include "loreg/apij.h"

#include <assert.h>
#include <errno.h>
#include <pthread.h>
#include <stddef.h>
#include <string.h>
#include <sys/queue.h>
#include <time.h>

#include "common/loreg_debug.h"
#include "platform/csp_osal.h"

#define APIJ_INST_MAGIC 0x4A495041u

/* Bits of apij_job_node.flags. */
#define APIJ_JOBF_DONE 0x01u
#define APIJ_JOBF_DELETED 0x02u

/* Bits of apij_job_waiter.state. */
#define APIJ_WAITER_MUTEX 0x01u
#define APIJ_WAITER_COND 0x02u
#define APIJ_WAITER_LOCKED 0x04u
#define APIJ_WAITER_LINKED 0x08u
#define APIJ_WAITER_WAITING 0x10u

#define APIJ_LOG(level, ...) LOREG_LOG((level), LOREG_MOD_APIJ, __VA_ARGS__)

/* A thread waiting for a job; lives on the waiting thread's stack. */
typedef struct apij_job_waiter {
  TAILQ_ENTRY(apij_job_waiter) link;
  pthread_mutex_t mutex;
  pthread_cond_t cond;
  int32_t result;
  uint32_t state;
} apij_job_waiter;

TAILQ_HEAD(apij_waiter_list, apij_job_waiter);

typedef struct apij_job_node {
  apij_job_ref ref; /* the fields a reference copies, in their order */
  TAILQ_ENTRY(apij_job_node) link;
  uint32_t flags;
  int32_t refcount;
  struct apij_waiter_list waiters;
  /* jobCookieSize bytes of cookie storage follow */
} apij_job_node;

typedef struct apij_cb_node {
  int32_t id;
  TAILQ_ENTRY(apij_cb_node) link;
  apij_callback_fn fn;
  void *cookie;
  int32_t unregJobId; /* id of the delay job while removal is pending */
  /* cbCookieSize bytes of cookie storage follow */
} apij_cb_node;

TAILQ_HEAD(apij_job_list, apij_job_node);
TAILQ_HEAD(apij_cb_list, apij_cb_node);

struct apij_inst {
  uint32_t magic;
  void *cookie;
  pthread_mutex_t mutex;
  struct apij_job_list jobs;
  struct apij_cb_list callbacks;
  uint32_t callbackDepth; /* job callbacks running now, in any thread */
  int32_t nextId;
  loreg_allocator *allocator;
  uint32_t jobCookieSize;
  uint32_t cbCookieSize;
  uint32_t instCookieSize;
  /* instCookieSize bytes of cookie storage follow */
};

/* ------------------------------------------------------------------------ */
/* Helpers                                                                   */

/* Points *slot at the storage behind a record (copying the caller's bytes
 * in) or, without storage, at the caller's own pointer. The storage was
 * zeroed with its record. */
static void _apij_cookie_set(void **slot, void *storage, uint32_t size, const void *cookie) {
  if (size == 0) {
    *slot = (void *)cookie;
    return;
  }
  *slot = storage;
  if (cookie != NULL) memcpy(storage, cookie, size);
}

/* Validates the instance and takes its mutex. fn names the caller in the
 * log lines. */
static int _apij_inst_lock(apij_inst *inst, const char *fn) {
  if (inst == NULL) {
    APIJ_LOG(LOREG_LVL_FAIL, "%s(NULL): need context pointer\n", fn);
    return -EINVAL;
  }
  if (inst->magic != APIJ_INST_MAGIC) {
    APIJ_LOG(LOREG_LVL_FAIL, "%s(%p): invalid context\n", fn, (void *)inst);
    return -EINVAL;
  }
  if (pthread_mutex_lock(&inst->mutex) != 0) {
    APIJ_LOG(LOREG_LVL_FAIL, "%s(): Unable to lock instance mutex\n", fn);
    return -ENOLCK;
  }
  return 0;
}

static void _apij_inst_unlock(apij_inst *inst) {
  int rc = pthread_mutex_unlock(&inst->mutex);
  (void)rc;
  assert(rc == 0);
}

/* Any job with the id, deleted ones included. */
static apij_job_node *_apij_job_find_nolock(apij_inst *inst, int32_t id) {
  apij_job_node *job;
  TAILQ_FOREACH(job, &inst->jobs, link) {
    if (job->ref.id == id) return job;
  }
  return NULL;
}

/* A job with the id that is not marked for deletion. */
static apij_job_node *_apij_job_find_live_nolock(apij_inst *inst, int32_t id) {
  apij_job_node *job = _apij_job_find_nolock(inst, id);
  if (job != NULL && (job->flags & APIJ_JOBF_DELETED)) return NULL;
  return job;
}

static apij_cb_node *_apij_cb_find_nolock(apij_inst *inst, int32_t id) {
  apij_cb_node *cb;
  TAILQ_FOREACH(cb, &inst->callbacks, link) {
    if (cb->id == id) return cb;
  }
  return NULL;
}

/* Raises the count of a job and copies its reference fields. */
static void _apij_job_ref_take_nolock(apij_job_node *job, apij_job_ref *ref) {
  job->refcount++;
  *ref = job->ref;
}

/* ------------------------------------------------------------------------ */
/* Job nodes                                                                 */

static apij_job_node *_apij_jobnode_create_nolock(apij_inst *inst, void *cookie,
                                                  int32_t callbackId) {
  size_t size = sizeof(apij_job_node) + inst->jobCookieSize;
  apij_job_node *job = loreg_malloc(inst->allocator, size);
  if (job == NULL) {
    APIJ_LOG(LOREG_LVL_FAIL, "%s() failed to alloc %u bytes job node\n", __func__,
             (unsigned)size);
    return NULL;
  }
  memset(job, 0, size);
  job->ref.id = inst->nextId++;
  _apij_cookie_set(&job->ref.cookie, job + 1, inst->jobCookieSize, cookie);
  job->ref.tmrId = -1;
  job->ref.callbackId = callbackId;
  job->ref.result = -ETIMEDOUT;
  job->ref.magic = APIJ_JOB_REF_MAGIC;
  job->ref.inst = inst;
  TAILQ_INIT(&job->waiters);
  TAILQ_INSERT_TAIL(&inst->jobs, job, link);
  return job;
}

/*
 * Hands result to every waiter of the job and wakes it. Each waiter is
 * unlinked under the instance lock and finished under its own mutex; the
 * waiter learns that we are done with it when it finds its linked bit
 * clear.
 */
static void _apij_jobnode_release_waiters_nolock(apij_job_node *job, int32_t result) {
  while (!TAILQ_EMPTY(&job->waiters)) {
    apij_job_waiter *waiter = TAILQ_FIRST(&job->waiters);
    TAILQ_REMOVE(&job->waiters, waiter, link);
    if (pthread_mutex_lock(&waiter->mutex) != 0) {
      APIJ_LOG(LOREG_LVL_FAIL, "%s(): Unable to lock mutex\n", __func__);
      continue;
    }
    waiter->result = result;
    waiter->state &= ~APIJ_WAITER_LINKED;
    if (pthread_cond_signal(&waiter->cond) != 0) {
      APIJ_LOG(LOREG_LVL_FAIL, "%s(): Unable to signal condition\n", __func__);
    }
    pthread_mutex_unlock(&waiter->mutex);
  }
}

static void _apij_jobnode_destroy_nolock(apij_inst *inst, apij_job_node *job) {
  _apij_jobnode_release_waiters_nolock(job, -ECONNABORTED);
  APIJ_LOG(LOREG_LVL_TRACE, "%s(%d)\n", __func__, (int)job->ref.id);
  TAILQ_REMOVE(&inst->jobs, job, link);
  loreg_free(inst->allocator, job);
}

/* Marks a job deleted after waking its waiters; frees it unless a
 * reference still holds it. */
static void _apij_JobDestroy_node_nolock(apij_inst *inst, apij_job_node *job) {
  _apij_jobnode_release_waiters_nolock(job, -ECONNABORTED);
  job->flags |= APIJ_JOBF_DELETED;
  APIJ_LOG(LOREG_LVL_TRACE, "%s(%d), refcount=%d\n", __func__, (int)job->ref.id,
           (int)job->refcount);
  if (job->refcount < 1) _apij_jobnode_destroy_nolock(inst, job);
}

static int _apij_JobDestroy_nolock(apij_inst *inst, int32_t jobId) {
  apij_job_node *job = _apij_job_find_nolock(inst, jobId);
  if (job == NULL) {
    APIJ_LOG(LOREG_LVL_FAIL, "%s(): unknown job id %d.\n", __func__, (int)jobId);
    return -ENOENT;
  }
  _apij_JobDestroy_node_nolock(inst, job);
  return 0;
}

static int _apij_JobRefRelease_nolock(apij_inst *inst, apij_job_ref *ref) {
  apij_job_node *job = _apij_job_find_nolock(inst, ref->id);
  int rc = -ENOENT;
  if (job != NULL) {
    job->refcount--;
    APIJ_LOG(LOREG_LVL_TRACE, "%s(%d), refcount=%d\n", __func__, (int)job->ref.id,
             (int)job->refcount);
    if ((job->flags & APIJ_JOBF_DELETED) && job->refcount <= 0) {
      _apij_jobnode_destroy_nolock(inst, job);
    }
    rc = 0;
  }
  ref->magic = 0;
  return rc;
}

/* ------------------------------------------------------------------------ */
/* Callback nodes                                                            */

static apij_cb_node *_apij_cbnode_create_nolock(apij_inst *inst, apij_callback_fn fn,
                                                void *cookie) {
  size_t size = sizeof(apij_cb_node) + inst->cbCookieSize;
  apij_cb_node *cb = loreg_malloc(inst->allocator, size);
  if (cb == NULL) {
    APIJ_LOG(LOREG_LVL_FAIL, "%s() failed to alloc %u bytes callback node\n", __func__,
             (unsigned)size);
    return NULL;
  }
  memset(cb, 0, size);
  cb->id = inst->nextId++;
  cb->fn = fn;
  _apij_cookie_set(&cb->cookie, cb + 1, inst->cbCookieSize, cookie);
  TAILQ_INSERT_TAIL(&inst->callbacks, cb, link);
  return cb;
}

static void _apij_cbnode_destroy_nolock(apij_inst *inst, apij_cb_node *cb) {
  TAILQ_REMOVE(&inst->callbacks, cb, link);
  loreg_free(inst->allocator, cb);
}

/* ------------------------------------------------------------------------ */
/* Completion                                                                */

static int _apij_JobDone_nolock(apij_inst *inst, int32_t jobId, int32_t result, int *fatal);

/*
 * Removes the callbacks whose unregistering was delayed while callbacks
 * ran, and completes each delay job with 0 so that whoever waits for the
 * unregistering wakes up. Runs when the last running callback has ended.
 */
static void _apij_callback_cleanup_nolock(apij_inst *inst) {
  apij_cb_node *cb = TAILQ_FIRST(&inst->callbacks);
  while (cb != NULL) {
    apij_cb_node *next = TAILQ_NEXT(cb, link);
    if (cb->unregJobId >= 1) {
      int32_t delayJobId = cb->unregJobId;
      int fatal = 0;
      APIJ_LOG(LOREG_LVL_DETAIL, "%s(): late unregistering callback_id %d (jobid=%d).\n",
               __func__, (int)cb->id, (int)delayJobId);
      _apij_cbnode_destroy_nolock(inst, cb);
      /* A delay job has no callback, so this never gives up the lock. */
      (void)_apij_JobDone_nolock(inst, delayJobId, 0, &fatal);
      (void)_apij_JobDestroy_nolock(inst, delayJobId);
    }
    cb = next;
  }
}

/*
 * Runs the callback of a completed job, if it has one that is not being
 * unregistered. The instance mutex is given up around the call; the job
 * is pinned by a count meanwhile and callbackDepth keeps the callback
 * node alive. Sets *fatal when the mutex cannot be taken again; the
 * caller then holds no lock.
 */
static int _apij_callback_perform_nolock(apij_inst *inst, apij_job_node *job, int *fatal) {
  apij_cb_node *cb;
  apij_job_ref ref;
  apij_callback_fn fn;
  void *cookie;

  if (job->ref.callbackId < 1) return 0;
  cb = _apij_cb_find_nolock(inst, job->ref.callbackId);
  if (cb == NULL || cb->unregJobId > 0) return 0;

  inst->callbackDepth++;
  _apij_job_ref_take_nolock(job, &ref);
  fn = cb->fn;
  cookie = cb->cookie;
  _apij_inst_unlock(inst);

  (void)fn(inst, &ref, cookie);

  if (_apij_inst_lock(inst, __func__) != 0) {
    APIJ_LOG(LOREG_LVL_SEVERE, "%s(): FATAL: Unable to re-lock instance mutex!! Will crash soon.\n",
             __func__);
    *fatal = 1;
    return -EFAULT;
  }
  (void)_apij_JobRefRelease_nolock(inst, &ref);
  inst->callbackDepth--;
  if (inst->callbackDepth > 0 || TAILQ_EMPTY(&inst->callbacks)) return 0;
  _apij_callback_cleanup_nolock(inst);
  return 0;
}

static int _apij_JobDone_nolock(apij_inst *inst, int32_t jobId, int32_t result, int *fatal) {
  apij_job_node *job = _apij_job_find_nolock(inst, jobId);
  if (job == NULL) {
    APIJ_LOG(LOREG_LVL_FAIL, "%s(): unknown job id %d.\n", __func__, (int)jobId);
    return -ENOENT;
  }
  /* Done is tested first: a job done and then deleted answers -114. */
  if (job->flags & APIJ_JOBF_DONE) {
    APIJ_LOG(LOREG_LVL_FAIL, "%s(): job id %d alredy done.\n", __func__, (int)jobId);
    return -EALREADY;
  }
  if (job->flags & APIJ_JOBF_DELETED) {
    APIJ_LOG(LOREG_LVL_FAIL, "%s(): job id %d is marked for deletion.\n", __func__, (int)jobId);
    return -ENOENT;
  }
  job->flags |= APIJ_JOBF_DONE;
  job->ref.done = 1;
  job->ref.result = result;
  APIJ_LOG(LOREG_LVL_DETAIL, "%s(%d), result=%d\n", __func__, (int)jobId, (int)result);
  _apij_jobnode_release_waiters_nolock(job, result);
  return _apij_callback_perform_nolock(inst, job, fatal);
}

/* ------------------------------------------------------------------------ */
/* Waiting                                                                   */

/*
 * Looks the job up and, for a wait, links the waiter into it with its wait
 * mutex locked, so that no completion can signal before the wait begins.
 * Returns 0 for a linked waiter, -114 for a job already done (its result in
 * the waiter), -110 for a poll of an open job, or an error.
 */
static int _apij_job_waiter_attach(apij_inst *inst, int32_t jobId, apij_job_waiter *waiter,
                                   int32_t timeOut, const char *caller) {
  apij_job_node *job;
  int status = _apij_inst_lock(inst, caller);
  if (status != 0) return status;

  job = _apij_job_find_nolock(inst, jobId);
  if (job == NULL) {
    APIJ_LOG(LOREG_LVL_FAIL, "%s(): Unkown job id %d\n", __func__, (int)jobId);
    status = -ENOENT;
  } else if (job->flags & APIJ_JOBF_DONE) {
    waiter->result = job->ref.result;
    status = -EALREADY;
  } else if (timeOut > 0) {
    status = -ENOLCK;
    if (pthread_mutex_init(&waiter->mutex, NULL) != 0) {
      APIJ_LOG(LOREG_LVL_FAIL, "%s(): Unable to init mutex\n", __func__);
    } else {
      waiter->state |= APIJ_WAITER_MUTEX;
      if (pthread_cond_init(&waiter->cond, NULL) != 0) {
        APIJ_LOG(LOREG_LVL_FAIL, "%s(): Unable to init condition\n", __func__);
      } else {
        waiter->state |= APIJ_WAITER_COND;
        if (pthread_mutex_lock(&waiter->mutex) != 0) {
          APIJ_LOG(LOREG_LVL_FAIL, "%s(): Unable to lock wait mutex\n", __func__);
        } else {
          TAILQ_INSERT_TAIL(&job->waiters, waiter, link);
          waiter->state |= APIJ_WAITER_LOCKED | APIJ_WAITER_LINKED | APIJ_WAITER_WAITING;
          status = 0;
        }
      }
    }
  } else {
    status = -ETIMEDOUT;
  }
  _apij_inst_unlock(inst);
  return status;
}

/*
 * Unlinks a waiter that no releaser has unlinked yet. Passing the instance
 * lock also guarantees that a releaser which already unlinked the waiter
 * is finished with its mutex before the waiter destroys it.
 */
static void _apij_job_waiter_detach(apij_inst *inst, int32_t jobId, apij_job_waiter *waiter) {
  apij_job_node *job;
  apij_job_waiter *it;
  if (pthread_mutex_lock(&inst->mutex) != 0) {
    APIJ_LOG(LOREG_LVL_SEVERE, "%s(): FATAL: Unable to re-lock instance mutex!! Will crash soon.\n",
             __func__);
    return;
  }
  job = _apij_job_find_nolock(inst, jobId);
  if (job == NULL) {
    APIJ_LOG(LOREG_LVL_DETAIL, "%s(): Job id %d already gone\n", __func__, (int)jobId);
  } else {
    TAILQ_FOREACH(it, &job->waiters, link) {
      if (it == waiter) {
        TAILQ_REMOVE(&job->waiters, waiter, link);
        break;
      }
    }
  }
  _apij_inst_unlock(inst);
}

/* Waits once on the waiter's condition until timeOut seconds from now.
 * Returns 0 or the negated error of the wait. */
static int _apij_job_waiter_wait(apij_job_waiter *waiter, int32_t timeOut) {
  _cspOsalTime_struct deadline;
  _cspOsalTime_struct absolute;
  struct timespec ts;
  int rc;

  (void)cspOsalGetTime(&deadline);
  deadline.sec += timeOut;
  (void)_cspOsalPlatform_Common_AbsoluteTimeout(&absolute, &deadline);
  ts.tv_sec = (time_t)absolute.sec;
  ts.tv_nsec = (long)absolute.usec * 1000L;
  /* One wait only: a wake-up without a signal counts as a completion with
   * the waiter's zero result. */
  rc = pthread_cond_timedwait(&waiter->cond, &waiter->mutex, &ts);
  return -rc;
}

/* ------------------------------------------------------------------------ */
/* Public interface                                                          */

apij_inst *apij_InstCreate(const apij_config *config, void *cookie) {
  static const apij_config no_config;
  apij_inst *inst;
  size_t size;
  int rc;

  if (config == NULL) config = &no_config;
  size = sizeof(apij_inst) + config->instCookieSize;
  inst = loreg_malloc(config->allocator, size);
  if (inst == NULL) {
    APIJ_LOG(LOREG_LVL_FAIL, "%s(): failed to allocate %u bytes context\n", __func__,
             (unsigned)size);
    return NULL;
  }
  memset(inst, 0, size);
  rc = pthread_mutex_init(&inst->mutex, NULL);
  if (rc != 0) {
    APIJ_LOG(LOREG_LVL_FAIL, "%s(): pthread_mutex_init() failed, errno %d\n", __func__, rc);
    loreg_free(config->allocator, inst);
    return NULL;
  }
  TAILQ_INIT(&inst->jobs);
  TAILQ_INIT(&inst->callbacks);
  inst->callbackDepth = 0;
  inst->nextId = 1;
  inst->allocator = config->allocator;
  inst->jobCookieSize = config->jobCookieSize;
  inst->cbCookieSize = config->cbCookieSize;
  inst->instCookieSize = config->instCookieSize;
  _apij_cookie_set(&inst->cookie, inst + 1, inst->instCookieSize, cookie);
  inst->magic = APIJ_INST_MAGIC;
  return inst;
}

int apij_InstDestroy(apij_inst *inst) {
  int jobs = 0;
  int refs = 0;
  int callbacks = 0;
  int rc = _apij_inst_lock(inst, __func__);
  if (rc != 0) return rc;

  inst->magic = 0;
  while (!TAILQ_EMPTY(&inst->jobs)) {
    apij_job_node *job = TAILQ_LAST(&inst->jobs, apij_job_list);
    jobs++;
    refs += job->refcount;
    _apij_jobnode_destroy_nolock(inst, job);
  }
  if (refs > 0) {
    APIJ_LOG(LOREG_LVL_WARN, "%s(): %d jobs with %d outstanding references deleted.\n", __func__,
             jobs, refs);
  } else {
    APIJ_LOG(LOREG_LVL_DETAIL, "%s(): %d jobs deleted.\n", __func__, jobs);
  }
  while (!TAILQ_EMPTY(&inst->callbacks)) {
    callbacks++;
    _apij_cbnode_destroy_nolock(inst, TAILQ_LAST(&inst->callbacks, apij_cb_list));
  }
  APIJ_LOG(LOREG_LVL_DETAIL, "%s(): %d callback subscriptions deleted.\n", __func__, callbacks);
  _apij_inst_unlock(inst);
  pthread_mutex_destroy(&inst->mutex);
  loreg_free(inst->allocator, inst);
  return 0;
}

void *apij_InstCookie(apij_inst *inst) {
  if (inst == NULL || inst->magic != APIJ_INST_MAGIC) {
    APIJ_LOG(LOREG_LVL_FAIL, "%s(NULL): invalid context pointer\n", __func__);
    return NULL;
  }
  return inst->cookie;
}

int apij_JobCreate(apij_inst *inst, void *cookie, int32_t tmrId, int32_t callbackId,
                   apij_job_ref *refOut) {
  apij_job_node *job;
  int rc;

  if (refOut != NULL) memset(refOut, 0, sizeof(*refOut));
  rc = _apij_inst_lock(inst, __func__);
  if (rc != 0) return rc;
  job = _apij_jobnode_create_nolock(inst, cookie, callbackId);
  if (job == NULL) {
    _apij_inst_unlock(inst);
    return -ENOMEM;
  }
  job->ref.tmrId = tmrId;
  if (refOut != NULL) _apij_job_ref_take_nolock(job, refOut);
  rc = job->ref.id;
  _apij_inst_unlock(inst);
  return rc;
}

int apij_JobDestroy(apij_inst *inst, int32_t jobId) {
  int rc = _apij_inst_lock(inst, __func__);
  if (rc != 0) return rc;
  rc = _apij_JobDestroy_nolock(inst, jobId);
  _apij_inst_unlock(inst);
  return rc;
}

int apij_JobDone(apij_inst *inst, int32_t jobId, int32_t result) {
  int fatal = 0;
  int rc = _apij_inst_lock(inst, __func__);
  if (rc != 0) return rc;
  rc = _apij_JobDone_nolock(inst, jobId, result, &fatal);
  /* In the fatal state the mutex is not held any more. */
  if (!fatal) _apij_inst_unlock(inst);
  return rc;
}

int apij_JobResultGet(apij_inst *inst, int32_t jobId, int32_t *result, int32_t timeOut) {
  apij_job_waiter waiter;
  uint32_t state;
  int status;
  int rc;
  int32_t out;

  memset(&waiter, 0, sizeof(waiter));
  status = _apij_job_waiter_attach(inst, jobId, &waiter, timeOut, __func__);

  if (status == -EALREADY) {
    APIJ_LOG(LOREG_LVL_DETAIL, "%s(): Job id %d already done with result %d, no need to wait.\n",
             __func__, (int)jobId, (int)waiter.result);
  } else if (status == 0) {
    status = _apij_job_waiter_wait(&waiter, timeOut);
  }
  if (status != 0 && status != -EALREADY) {
    if (timeOut < 1) {
      APIJ_LOG(LOREG_LVL_DETAIL, "%s(%d): Job not done yet\n", __func__, (int)jobId);
    } else {
      APIJ_LOG(LOREG_LVL_FAIL, "%s(%d): Waiting failed witch code %d\n", __func__, (int)jobId,
               status);
    }
  }

  /* The state is read under the wait mutex: a releaser clears the linked
   * bit under it, and after that never touches the waiter again. */
  state = waiter.state;
  if (state & APIJ_WAITER_LOCKED) pthread_mutex_unlock(&waiter.mutex);
  if (state & APIJ_WAITER_LINKED) _apij_job_waiter_detach(inst, jobId, &waiter);
  if (state & APIJ_WAITER_COND) pthread_cond_destroy(&waiter.cond);
  if (state & APIJ_WAITER_MUTEX) pthread_mutex_destroy(&waiter.mutex);

  if (status == 0 || status == -EALREADY) {
    out = waiter.result;
    rc = 0;
  } else {
    out = -EFAULT;
    rc = timeOut < 1 ? ETIMEDOUT : status;
  }
  if (result != NULL) *result = out;
  return rc;
}

int apij_JobAssignTmrId(apij_inst *inst, int32_t jobId, int32_t tmrId) {
  apij_job_node *job;
  int rc = _apij_inst_lock(inst, __func__);
  if (rc != 0) return rc;
  job = _apij_job_find_live_nolock(inst, jobId);
  if (job == NULL) {
    rc = -ENOENT;
  } else {
    job->ref.tmrId = tmrId;
  }
  _apij_inst_unlock(inst);
  return rc;
}

int apij_JobRefGet(apij_inst *inst, int32_t jobId, apij_job_ref *refOut) {
  apij_job_node *job;
  int rc;

  if (refOut != NULL) memset(refOut, 0, sizeof(*refOut));
  rc = _apij_inst_lock(inst, __func__);
  if (rc != 0) return rc;
  job = _apij_job_find_live_nolock(inst, jobId);
  if (job == NULL) {
    rc = -ENOENT;
  } else {
    if (refOut != NULL) _apij_job_ref_take_nolock(job, refOut);
    rc = job->ref.id;
  }
  _apij_inst_unlock(inst);
  return rc;
}

int apij_JobIsDone(apij_inst *inst, int32_t jobId) {
  apij_job_node *job;
  int rc = _apij_inst_lock(inst, __func__);

  if (rc != 0) return rc;
  job = _apij_job_find_live_nolock(inst, jobId);
  rc = job == NULL ? -ENOENT : job->ref.done != 0;
  _apij_inst_unlock(inst);
  return rc;
}

int apij_JobRefGetTmr(apij_inst *inst, int32_t tmrId, apij_job_ref *refOut) {
  apij_job_node *job;
  int rc;

  if (refOut != NULL) memset(refOut, 0, sizeof(*refOut));
  rc = _apij_inst_lock(inst, __func__);
  if (rc != 0) return rc;
  rc = -ENOENT;
  TAILQ_FOREACH(job, &inst->jobs, link) {
    if (job->ref.tmrId == tmrId && !(job->flags & APIJ_JOBF_DELETED)) {
      if (refOut != NULL) _apij_job_ref_take_nolock(job, refOut);
      rc = job->ref.id;
      break;
    }
  }
  _apij_inst_unlock(inst);
  return rc;
}

int apij_JobRefRelease(apij_inst *inst, apij_job_ref *ref) {
  int rc;
  if (ref == NULL || ref->magic != APIJ_JOB_REF_MAGIC) {
    APIJ_LOG(LOREG_LVL_FAIL, "%s(): invalid job reference given.\n", __func__);
    return -EINVAL;
  }
  rc = _apij_inst_lock(inst, __func__);
  if (rc != 0) return rc;
  rc = _apij_JobRefRelease_nolock(inst, ref);
  _apij_inst_unlock(inst);
  return rc;
}

int apij_CbRegister(apij_inst *inst, apij_callback_fn fn, void *cookie) {
  apij_cb_node *cb;
  int rc = _apij_inst_lock(inst, __func__);
  if (rc != 0) return rc;
  cb = _apij_cbnode_create_nolock(inst, fn, cookie);
  if (cb == NULL) {
    rc = -ENOMEM;
  } else {
    rc = cb->id;
    APIJ_LOG(LOREG_LVL_DETAIL, "%s() callback id %d registered.\n", __func__, (int)cb->id);
  }
  _apij_inst_unlock(inst);
  return rc;
}

/* Destroys every open job that would call the callback. */
static void _apij_cb_remove_jobs_nolock(apij_inst *inst, int32_t callbackId) {
  apij_job_node *job = TAILQ_FIRST(&inst->jobs);
  while (job != NULL) {
    apij_job_node *next = TAILQ_NEXT(job, link);
    if (job->ref.callbackId == callbackId && !(job->flags & APIJ_JOBF_DONE)) {
      _apij_JobDestroy_node_nolock(inst, job);
    }
    job = next;
  }
}

int apij_CbUnregister(apij_inst *inst, int32_t callbackId, int removeJobs) {
  apij_cb_node *cb;
  apij_job_node *delayJob = NULL;
  int rc = _apij_inst_lock(inst, __func__);
  if (rc != 0) return rc;

  cb = _apij_cb_find_nolock(inst, callbackId);
  if (cb == NULL || cb->unregJobId != 0) {
    APIJ_LOG(LOREG_LVL_FAIL, "%s(): unknown callback id %d.\n", __func__, (int)callbackId);
    _apij_inst_unlock(inst);
    return -ENOENT;
  }
  /*
   * While a callback runs anywhere, this one may be running too, so its
   * node has to stay until the depth falls to 0. The delay job is made
   * before any job is removed, so that a failed allocation changes
   * nothing; it has no callback and so the job walk never touches it.
   */
  if (inst->callbackDepth > 0) {
    delayJob = _apij_jobnode_create_nolock(inst, NULL, 0);
    if (delayJob == NULL) {
      APIJ_LOG(LOREG_LVL_FAIL, "%s(): failed delay unregistering of callback id %d.\n", __func__,
               (int)callbackId);
      _apij_inst_unlock(inst);
      return -ENOMEM;
    }
  }
  if (removeJobs) _apij_cb_remove_jobs_nolock(inst, callbackId);
  if (delayJob == NULL) {
    _apij_cbnode_destroy_nolock(inst, cb);
    APIJ_LOG(LOREG_LVL_DETAIL, "%s() callback id %d unregistered.\n", __func__, (int)callbackId);
    rc = 0;
  } else {
    cb->unregJobId = delayJob->ref.id;
    APIJ_LOG(LOREG_LVL_DETAIL, "%s() delay unregistering of callback id %d (jobid=%d).\n",
             __func__, (int)callbackId, (int)delayJob->ref.id);
    rc = delayJob->ref.id;
  }
  _apij_inst_unlock(inst);
  return rc;
}
