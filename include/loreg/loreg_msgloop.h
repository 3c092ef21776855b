/*
 * loreg message loop: the receive loop that a registry server task and a
 * client task each run on their own thread.
 *
 * The loop waits for the next lmq message, or for the relative time in
 * next, and calls the owner's handlers: on_msg for a valid registry
 * message, on_sysmsg for an lmq system message of the owner's service,
 * on_timeout when the wait ran out. Each handler may store in *next the
 * longest time to wait for the following message; before each call next
 * is reset to CSP_OSAL_TIME_NEG_INFINITY, which means "no timeout".
 *
 * Conventions
 * - Ownership: the loop keeps nothing. Messages are handled in place in
 *   the caller's buffer: msg.data0 and msg.data1 are valid during on_msg
 *   only.
 * - Null arguments: loop, loop->lmq, its client, loop->on_msg, loop->stop
 *   and buffer must not be null (-22). Null on_sysmsg or on_timeout
 *   handlers are skipped.
 * - Stop: the loop ends when *stop holds a non-zero value. It reads the
 *   flag on entry and after every message, also a dropped one, with an
 *   atomic load; another thread sets it with an atomic store and then
 *   wakes the loop with a message (e.g. loreg_send_self_notification).
 * - Threads: one thread runs the loop of a client; the handlers run on it.
 */
#ifndef LOREG_LOREG_MSGLOOP_H
#define LOREG_LOREG_MSGLOOP_H

#include <stdint.h>

#include "loreg/loreg_export.h"
#include "loreg/loreg_lmq.h"
#include "loreg/loreg_msg.h"
#include "platform/csp_osal.h"
#include "platform/lmq.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Size of the buffer that loreg_msgloop takes. One byte stays free behind
 * the largest message, for the zero that validation stores after data1. */
#define LOREG_MSGLOOP_BUFFER_SIZE 0x2000u

/* Takes a registry message; returns 0, or non-zero for a message the
 * owner doesn't take (the loop logs it and goes on). */
typedef int (*loreg_loop_msg_fn)(void *user, loreg_msg *msg, const lmq_rx_info *info,
                                 _cspOsalTime_struct *next);
/* An lmq system message that concerns the owner's service. */
typedef void (*loreg_loop_sysmsg_fn)(void *user, uint32_t type, uint32_t subtype,
                                     _cspOsalTime_struct *next);
/* The wait for a message ran out after next. */
typedef void (*loreg_loop_timeout_fn)(void *user, _cspOsalTime_struct *next);

typedef struct loreg_loop {
  loreg_lmq_ctx *lmq;               /* the owner's attachment */
  loreg_loop_msg_fn on_msg;
  loreg_loop_sysmsg_fn on_sysmsg;
  loreg_loop_timeout_fn on_timeout;
  _cspOsalTime_struct next;         /* relative time to wait at most */
  int32_t *stop;                    /* the loop ends when it holds non-zero */
  void *user;                       /* handed to the handlers */
} loreg_loop;

/*
 * Runs the loop until *loop->stop is non-zero; if it is set on entry the
 * loop doesn't receive at all. buffer has LOREG_MSGLOOP_BUFFER_SIZE bytes;
 * the receive is told one byte less. The first wait has no timeout; after
 * that next is used if it is positive (at least one second, or zero
 * seconds and some microseconds), else the wait lasts until a message
 * comes. Bad messages, receive failures and refused messages are logged
 * and dropped; nothing ends the loop but the stop flag.
 *
 * Returns 0 when stopped, or -22 for a null argument.
 */
LOREG_EXPORT int loreg_msgloop(loreg_loop *loop, void *buffer);

#ifdef __cplusplus
}
#endif

#endif
