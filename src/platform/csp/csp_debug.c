#include "platform/csp_debug.h"

#include <errno.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>

#define CSP_DEBUG_LINE_MAX 1024

/* Thresholds are read on every log call from any thread: atomics keep the
 * hot path free of locks. */
static uint32_t g_thresholds[CSP_DEBUG_CHANNELS];
static int g_thresholds_ready;
static pthread_once_t g_thresholds_once = PTHREAD_ONCE_INIT;

/* Sink calls hold the lock for reading, so that a sink that is replaced is
 * no longer running once cspDebugSetSink returns. */
static pthread_rwlock_t g_sink_lock = PTHREAD_RWLOCK_INITIALIZER;
static cspDebugSink g_sink;
static void *g_sink_context;

/* What the last check of this thread was about, for the sink. */
static __thread uint32_t t_channel;
static __thread uint32_t t_level;
static __thread uint32_t t_module;

static void _csp_debug_init_thresholds(void) {
  for (int i = 0; i < CSP_DEBUG_CHANNELS; i++) {
    __atomic_store_n(&g_thresholds[i], CSP_DEBUG_DEFAULT_THRESHOLD, __ATOMIC_RELAXED);
  }
  __atomic_store_n(&g_thresholds_ready, 1, __ATOMIC_RELEASE);
}

static void _csp_debug_ensure_thresholds(void) {
  if (!__atomic_load_n(&g_thresholds_ready, __ATOMIC_ACQUIRE)) {
    pthread_once(&g_thresholds_once, _csp_debug_init_thresholds);
  }
}

int cspDebugCheckLevelGetFrameAndChunk(uint32_t channel, uint32_t level, uint32_t module) {
  if (channel >= CSP_DEBUG_CHANNELS) return 0;
  _csp_debug_ensure_thresholds();
  if (level > __atomic_load_n(&g_thresholds[channel], __ATOMIC_RELAXED)) return 0;
  t_channel = channel;
  t_level = level;
  t_module = module;
  return 1;
}

int cspDebugSetThreshold(uint32_t channel, uint32_t level) {
  if (channel >= CSP_DEBUG_CHANNELS) return -EINVAL;
  _csp_debug_ensure_thresholds();
  return (int)__atomic_exchange_n(&g_thresholds[channel], level, __ATOMIC_RELAXED);
}

int cspDebugGetThreshold(uint32_t channel) {
  if (channel >= CSP_DEBUG_CHANNELS) return -EINVAL;
  _csp_debug_ensure_thresholds();
  return (int)__atomic_load_n(&g_thresholds[channel], __ATOMIC_RELAXED);
}

void cspDebugSetSink(cspDebugSink sink, void *context) {
  pthread_rwlock_wrlock(&g_sink_lock);
  g_sink = sink;
  g_sink_context = context;
  pthread_rwlock_unlock(&g_sink_lock);
}

void cspDebugOutput0(const char *format, ...) {
  char text[CSP_DEBUG_LINE_MAX];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);

  pthread_rwlock_rdlock(&g_sink_lock);
  if (g_sink != NULL) {
    g_sink(g_sink_context, t_channel, t_level, t_module, text);
  } else {
    fputs(text, stderr);
  }
  pthread_rwlock_unlock(&g_sink_lock);
}
