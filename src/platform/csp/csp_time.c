#include "platform/csp_osal.h"

#include <errno.h>
#include <pthread.h>
#include <time.h>

#define USEC_PER_SEC 1000000

const _cspOsalTime_struct CSP_OSAL_TIME_NEG_INFINITY = {INT64_MIN, 0};

/* The uptime clock's test offset in microseconds, moved only forwards by
 * the test hook. One atomic word: every timed wait reads the clock, and a
 * lock here would be taken several times per message. */
static int64_t g_uptime_offset_usec;
/* Largest single move of the test hook: a hundred years. */
#define CSP_UPTIME_ADVANCE_MAX_SEC 3155760000LL

/* Listeners of the test hook. Called under g_listener_mutex, so that a
 * listener that was removed is never running after the removal returns. */
#define CSP_UPTIME_LISTENERS_MAX 32
typedef struct {
  cspOsalUptimeListener fn;
  void *context;
} _csp_uptime_listener;
static pthread_mutex_t g_listener_mutex = PTHREAD_MUTEX_INITIALIZER;
static _csp_uptime_listener g_listeners[CSP_UPTIME_LISTENERS_MAX];

void cspOsalNormalizeTime(_cspOsalTime_struct *t) {
  t->sec += t->usec / USEC_PER_SEC;
  t->usec %= USEC_PER_SEC;
  if (t->usec < 0) {
    t->usec += USEC_PER_SEC;
    t->sec -= 1;
  }
}

static int _csp_read_clock(clockid_t clock, _cspOsalTime_struct *t) {
  struct timespec ts;
  if (clock_gettime(clock, &ts) != 0) return -errno;
  t->sec = (int64_t)ts.tv_sec;
  t->usec = (int32_t)(ts.tv_nsec / 1000);
  return 0;
}

int cspOsalGetTime(_cspOsalTime_struct *t) { return _csp_read_clock(CLOCK_REALTIME, t); }

int cspOsalGetUptime(_cspOsalTime_struct *t) {
  int rc = _csp_read_clock(CLOCK_MONOTONIC, t);
  if (rc != 0) return rc;
  int64_t offset = __atomic_load_n(&g_uptime_offset_usec, __ATOMIC_ACQUIRE);
  if (offset != 0) {
    _cspOsalTime_struct shift = {offset / USEC_PER_SEC, (int32_t)(offset % USEC_PER_SEC)};
    cspOsalAddTime(t, t, &shift);
  }
  return 0;
}

void cspOsalAddTime(_cspOsalTime_struct *result, const _cspOsalTime_struct *a,
                    const _cspOsalTime_struct *b) {
  _cspOsalTime_struct sum = {a->sec + b->sec, a->usec + b->usec};
  cspOsalNormalizeTime(&sum);
  *result = sum;
}

void cspOsalSubtractTime3(_cspOsalTime_struct *result, const _cspOsalTime_struct *a,
                          const _cspOsalTime_struct *b) {
  _cspOsalTime_struct diff = {a->sec - b->sec, a->usec - b->usec};
  cspOsalNormalizeTime(&diff);
  *result = diff;
}

int cspOsalCompareTime(const _cspOsalTime_struct *a, const _cspOsalTime_struct *b) {
  if (a->sec != b->sec) return a->sec < b->sec ? -1 : 1;
  if (a->usec != b->usec) return a->usec < b->usec ? -1 : 1;
  return 0;
}

void cspOsalSleep(uint32_t ms) {
  struct timespec ts = {(time_t)(ms / 1000), (long)(ms % 1000) * 1000000L};
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

int _cspOsalPlatform_Common_RelativeTimeout(_cspOsalTime_struct *relative,
                                            const _cspOsalTime_struct *difference) {
  _cspOsalTime_struct d = *difference;
  cspOsalNormalizeTime(&d);
  if (d.sec < 0 || (d.sec == 0 && d.usec < CSP_OSAL_MIN_RELATIVE_USEC)) {
    /* Due already: the shortest positive wait, since zero would read as
     * "no timeout" to the message loop. */
    d.sec = 0;
    d.usec = CSP_OSAL_MIN_RELATIVE_USEC;
  }
  *relative = d;
  return 0;
}

int _cspOsalPlatform_Common_AbsoluteTimeout(_cspOsalTime_struct *absolute,
                                            const _cspOsalTime_struct *time) {
  _cspOsalTime_struct t = *time;
  cspOsalNormalizeTime(&t);
  if (t.sec < 0) {
    t.sec = 0;
    t.usec = 0;
  }
  *absolute = t;
  return 0;
}

int cspOsalUptimeListenerAdd(cspOsalUptimeListener fn, void *context) {
  if (fn == NULL) return -EINVAL;
  int rc = -ENOMEM;
  pthread_mutex_lock(&g_listener_mutex);
  for (int i = 0; i < CSP_UPTIME_LISTENERS_MAX; i++) {
    if (g_listeners[i].fn == NULL) {
      g_listeners[i].fn = fn;
      g_listeners[i].context = context;
      rc = 0;
      break;
    }
  }
  pthread_mutex_unlock(&g_listener_mutex);
  return rc;
}

int cspOsalUptimeListenerRemove(cspOsalUptimeListener fn, void *context) {
  int rc = -ENOENT;
  pthread_mutex_lock(&g_listener_mutex);
  for (int i = 0; i < CSP_UPTIME_LISTENERS_MAX; i++) {
    if (g_listeners[i].fn == fn && g_listeners[i].context == context) {
      g_listeners[i].fn = NULL;
      g_listeners[i].context = NULL;
      rc = 0;
      break;
    }
  }
  pthread_mutex_unlock(&g_listener_mutex);
  return rc;
}

int cspOsalTestAdvanceUptime(const _cspOsalTime_struct *delta) {
  if (delta == NULL) return -EINVAL;
  _cspOsalTime_struct d = *delta;
  cspOsalNormalizeTime(&d);
  if (d.sec < 0 || d.sec > CSP_UPTIME_ADVANCE_MAX_SEC) return -EINVAL;
  __atomic_fetch_add(&g_uptime_offset_usec, d.sec * USEC_PER_SEC + d.usec, __ATOMIC_ACQ_REL);

  pthread_mutex_lock(&g_listener_mutex);
  for (int i = 0; i < CSP_UPTIME_LISTENERS_MAX; i++) {
    if (g_listeners[i].fn != NULL) g_listeners[i].fn(g_listeners[i].context);
  }
  pthread_mutex_unlock(&g_listener_mutex);
  return 0;
}
