/*
 * csp OS layer: threads with names.
 *
 * Conventions
 * - The attribute object is a plain pthread_attr_t, so callers may use the
 *   pthread_attr_set* functions on it between init and destroy. The name
 *   is kept beside it by the layer, keyed by the attribute's address.
 * - A thread created through _cspOsalPOSIX_pthread_create_line carries its
 *   name (at most 15 characters, longer names are cut) in the OS, visible
 *   in /proc/self/task/<tid>/comm.
 * - A stack size below CSP_OSAL_MIN_STACK_SIZE is raised to it at creation:
 *   the C library and the sanitizers need more than the small stacks that
 *   embedded code asks for.
 * - Results: 0 or a negative errno.
 */
#ifndef PLATFORM_CSP_THREAD_H
#define PLATFORM_CSP_THREAD_H

#include <pthread.h>

#include "platform/csp_export.h"

#ifdef __cplusplus
extern "C" {
#endif

#define CSP_OSAL_THREAD_NAME_MAX 15
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define CSP_OSAL_MIN_STACK_SIZE (1024u * 1024u)
#else
#define CSP_OSAL_MIN_STACK_SIZE (64u * 1024u)
#endif

/* Initialises *attr with pthread_attr_init and no name. */
CSP_EXPORT int _cspOsalPOSIX_pthread_attr_init(pthread_attr_t *attr);

/* Releases *attr and the name kept for it. */
CSP_EXPORT int _cspOsalPOSIX_pthread_attr_destroy(pthread_attr_t *attr);

/* Gives threads created with *attr the name. A null or empty name clears
 * it. Returns 0, -22 for a null attr, -12 when no room is left for it. */
CSP_EXPORT int _cspOsalPOSIX_pthread_attr_setname_norvi(pthread_attr_t *attr, const char *name);

/*
 * Creates a thread running start(arg) with the attributes and name of
 * *attr (attr may be null: defaults, no name). file and line name the
 * caller for the failure message. Returns 0 or -errno of pthread_create.
 */
CSP_EXPORT int _cspOsalPOSIX_pthread_create_line(pthread_t *thread, const pthread_attr_t *attr,
                                                 void *(*start)(void *), void *arg,
                                                 const char *file, int line);

#ifdef __cplusplus
}
#endif

#endif
