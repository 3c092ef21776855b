/*
 * csp OS layer: time.
 *
 * Conventions
 * - A _cspOsalTime_struct is always normalised: 0 <= usec < 1000000, the
 *   sign lives in sec. Every function here returns normalised values.
 * - Two clocks: cspOsalGetTime reads the wall clock (CLOCK_REALTIME, the
 *   clock of pthread_cond_timedwait with default attributes);
 *   cspOsalGetUptime reads the monotonic clock plus a test offset.
 * - The uptime clock has a test hook, cspOsalTestAdvanceUptime, which moves
 *   it forward and wakes every waiter registered with
 *   cspOsalUptimeListenerAdd, so that code with timers of minutes is tested
 *   without sleeping.
 * - Pointer arguments must not be null unless stated; all functions are
 *   thread-safe.
 */
#ifndef PLATFORM_CSP_OSAL_H
#define PLATFORM_CSP_OSAL_H

#include <stdint.h>

#include "platform/csp_export.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct _cspOsalTime_struct {
  int64_t sec;  /* seconds */
  int32_t usec; /* microseconds, 0..999999 */
} _cspOsalTime_struct;

/* The earliest representable time; a loop given it waits without timeout. */
CSP_EXPORT extern const _cspOsalTime_struct CSP_OSAL_TIME_NEG_INFINITY;

/* The smallest timeout the relative conversion hands out for a due time. */
#define CSP_OSAL_MIN_RELATIVE_USEC 1

/* Stores the wall clock time in *t. Returns 0, or -errno of clock_gettime. */
CSP_EXPORT int cspOsalGetTime(_cspOsalTime_struct *t);

/* Stores the monotonic uptime, test offset included, in *t. Returns 0 or
 * -errno. */
CSP_EXPORT int cspOsalGetUptime(_cspOsalTime_struct *t);

/* *result = *a + *b, normalised. result may alias a or b. */
CSP_EXPORT void cspOsalAddTime(_cspOsalTime_struct *result, const _cspOsalTime_struct *a,
                               const _cspOsalTime_struct *b);

/* *result = *a - *b, normalised. result may alias a or b. */
CSP_EXPORT void cspOsalSubtractTime3(_cspOsalTime_struct *result, const _cspOsalTime_struct *a,
                                     const _cspOsalTime_struct *b);

/* Returns -1, 0 or 1 as *a is earlier than, equal to or later than *b. */
CSP_EXPORT int cspOsalCompareTime(const _cspOsalTime_struct *a, const _cspOsalTime_struct *b);

/* Normalises *t in place (carries microseconds into seconds). */
CSP_EXPORT void cspOsalNormalizeTime(_cspOsalTime_struct *t);

/* Sleeps for ms milliseconds of real time, resuming after signals. */
CSP_EXPORT void cspOsalSleep(uint32_t ms);

/*
 * Converts a time difference (a deadline minus now) into the relative
 * timeout that a wait takes. A difference of zero or less means that the
 * deadline is already due: the result is then CSP_OSAL_MIN_RELATIVE_USEC
 * microseconds, never zero, because a zero timeout means "no timeout" to
 * the message loop. Returns 0.
 */
CSP_EXPORT int _cspOsalPlatform_Common_RelativeTimeout(_cspOsalTime_struct *relative,
                                                       const _cspOsalTime_struct *difference);

/*
 * Converts an absolute wall clock time (cspOsalGetTime plus a delay) into
 * the absolute time that pthread_cond_timedwait with default attributes
 * expects. A negative time becomes 0. Returns 0.
 */
CSP_EXPORT int _cspOsalPlatform_Common_AbsoluteTimeout(_cspOsalTime_struct *absolute,
                                                       const _cspOsalTime_struct *time);

/* Called after the uptime clock was moved by the test hook. */
typedef void (*cspOsalUptimeListener)(void *context);

/* Registers a listener of the test hook. Returns 0, -22 for a null
 * function, -12 when the table (32 entries) is full. */
CSP_EXPORT int cspOsalUptimeListenerAdd(cspOsalUptimeListener fn, void *context);

/* Removes a listener registered with the same pair. Returns 0 or -2. After
 * the return the listener is not running and will not be called again. */
CSP_EXPORT int cspOsalUptimeListenerRemove(cspOsalUptimeListener fn, void *context);

/*
 * Test hook: moves the uptime clock forward by *delta (negative deltas and
 * deltas of more than a hundred years are refused with -22) and calls every
 * registered listener, so that waits measured on the uptime clock see the
 * new time at once. Returns 0.
 */
CSP_EXPORT int cspOsalTestAdvanceUptime(const _cspOsalTime_struct *delta);

#ifdef __cplusplus
}
#endif

#endif
