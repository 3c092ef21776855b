#include "platform/csp_thread.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "platform/csp_debug.h"

#define CSP_DEBUG_CHANNEL_OSAL 0x6Du

/* Names kept beside pthread_attr_t objects, which have no room for one.
 * The table is small: attributes live only from init to destroy around a
 * thread creation. */
#define CSP_THREAD_NAMES_MAX 64
typedef struct {
  const pthread_attr_t *attr;
  char name[CSP_OSAL_THREAD_NAME_MAX + 1];
} _csp_attr_name;

static pthread_mutex_t g_names_mutex = PTHREAD_MUTEX_INITIALIZER;
static _csp_attr_name g_names[CSP_THREAD_NAMES_MAX];

/* What the trampoline hands to the new thread. */
typedef struct {
  void *(*start)(void *);
  void *arg;
  char name[CSP_OSAL_THREAD_NAME_MAX + 1];
} _csp_thread_start;

static _csp_attr_name *_csp_find_name_nolock(const pthread_attr_t *attr) {
  for (int i = 0; i < CSP_THREAD_NAMES_MAX; i++) {
    if (g_names[i].attr == attr) return &g_names[i];
  }
  return NULL;
}

static void _csp_forget_name(const pthread_attr_t *attr) {
  pthread_mutex_lock(&g_names_mutex);
  _csp_attr_name *entry = _csp_find_name_nolock(attr);
  if (entry != NULL) memset(entry, 0, sizeof *entry);
  pthread_mutex_unlock(&g_names_mutex);
}

int _cspOsalPOSIX_pthread_attr_init(pthread_attr_t *attr) {
  if (attr == NULL) return -EINVAL;
  int rc = pthread_attr_init(attr);
  if (rc != 0) return -rc;
  /* An attribute object at a reused address must not inherit a name. */
  _csp_forget_name(attr);
  return 0;
}

int _cspOsalPOSIX_pthread_attr_destroy(pthread_attr_t *attr) {
  if (attr == NULL) return -EINVAL;
  _csp_forget_name(attr);
  int rc = pthread_attr_destroy(attr);
  return rc == 0 ? 0 : -rc;
}

int _cspOsalPOSIX_pthread_attr_setname_norvi(pthread_attr_t *attr, const char *name) {
  if (attr == NULL) return -EINVAL;
  if (name == NULL || name[0] == '\0') {
    _csp_forget_name(attr);
    return 0;
  }
  int rc = -ENOMEM;
  pthread_mutex_lock(&g_names_mutex);
  _csp_attr_name *entry = _csp_find_name_nolock(attr);
  if (entry == NULL) entry = _csp_find_name_nolock(NULL);
  if (entry != NULL) {
    entry->attr = attr;
    strncpy(entry->name, name, CSP_OSAL_THREAD_NAME_MAX);
    entry->name[CSP_OSAL_THREAD_NAME_MAX] = '\0';
    rc = 0;
  }
  pthread_mutex_unlock(&g_names_mutex);
  return rc;
}

static void *_csp_thread_trampoline(void *arg) {
  _csp_thread_start start = *(_csp_thread_start *)arg;
  free(arg);
  if (start.name[0] != '\0') pthread_setname_np(pthread_self(), start.name);
  return start.start(start.arg);
}

/* Builds the attributes the thread is really created with: the caller's
 * settings, with a stack size that is too small for this C library (and
 * for sanitizer builds) raised to the platform minimum. A fresh object is
 * filled rather than a copy, since pthread_attr_t may own memory. */
static int _csp_effective_attr(pthread_attr_t *out, const pthread_attr_t *attr) {
  int rc = pthread_attr_init(out);
  if (rc != 0 || attr == NULL) return rc;

  int detach, inherit, policy, scope;
  size_t stack_size, guard_size;
  struct sched_param param;
  if ((rc = pthread_attr_getdetachstate(attr, &detach)) != 0 ||
      (rc = pthread_attr_getinheritsched(attr, &inherit)) != 0 ||
      (rc = pthread_attr_getschedpolicy(attr, &policy)) != 0 ||
      (rc = pthread_attr_getschedparam(attr, &param)) != 0 ||
      (rc = pthread_attr_getscope(attr, &scope)) != 0 ||
      (rc = pthread_attr_getstacksize(attr, &stack_size)) != 0 ||
      (rc = pthread_attr_getguardsize(attr, &guard_size)) != 0) {
    pthread_attr_destroy(out);
    return rc;
  }
  if (stack_size < CSP_OSAL_MIN_STACK_SIZE) stack_size = CSP_OSAL_MIN_STACK_SIZE;
  if ((rc = pthread_attr_setdetachstate(out, detach)) != 0 ||
      (rc = pthread_attr_setinheritsched(out, inherit)) != 0 ||
      (rc = pthread_attr_setschedpolicy(out, policy)) != 0 ||
      (rc = pthread_attr_setschedparam(out, &param)) != 0 ||
      (rc = pthread_attr_setscope(out, scope)) != 0 ||
      (rc = pthread_attr_setstacksize(out, stack_size)) != 0 ||
      (rc = pthread_attr_setguardsize(out, guard_size)) != 0) {
    pthread_attr_destroy(out);
  }
  return rc;
}

int _cspOsalPOSIX_pthread_create_line(pthread_t *thread, const pthread_attr_t *attr,
                                      void *(*start)(void *), void *arg, const char *file,
                                      int line) {
  if (thread == NULL || start == NULL) return -EINVAL;
  _csp_thread_start *boot = calloc(1, sizeof *boot);
  if (boot == NULL) return -ENOMEM;
  boot->start = start;
  boot->arg = arg;
  if (attr != NULL) {
    pthread_mutex_lock(&g_names_mutex);
    _csp_attr_name *entry = _csp_find_name_nolock(attr);
    if (entry != NULL) memcpy(boot->name, entry->name, sizeof boot->name);
    pthread_mutex_unlock(&g_names_mutex);
  }

  pthread_attr_t effective;
  int rc = _csp_effective_attr(&effective, attr);
  if (rc == 0) {
    rc = pthread_create(thread, &effective, _csp_thread_trampoline, boot);
    pthread_attr_destroy(&effective);
  }
  if (rc != 0) {
    if (cspDebugCheckLevelGetFrameAndChunk(CSP_DEBUG_CHANNEL_OSAL, 3000, 0))
      cspDebugOutput0("%s(): creating thread '%s' failed at %s:%d (code %d)\n", __func__,
                      boot->name, file ? file : "?", line, rc);
    free(boot);
    return -rc;
  }
  return 0;
}
