/*
 * Validation of a received registry message, inside the library.
 *
 * loreg_validate_msg (loreg_msg.h) is this check with its log lines. The
 * quiet form lets a caller look at a message that the message loop may
 * still receive and validate itself, so that a refused message is logged
 * once, by the loop.
 */
#ifndef LOREG_MESSAGING_LOREG_MSG_CHECK_H
#define LOREG_MESSAGING_LOREG_MSG_CHECK_H

#include <stdint.h>

#include "loreg/loreg_msg.h"

#ifdef __cplusplus
extern "C" {
#endif

/* loreg_validate_msg, logging its reasons only when quiet is 0. */
int loreg_msg_check(loreg_msg *msg, void *buffer, uint32_t buffer_size, const lmq_rx_info *info,
                    int quiet);

/* The quiet check of a message that lmq offers to an idle reply handler
 * (size bytes in a buffer of buffer_size, from the address from), with
 * *info filled as lmqCXReceive would have filled it. Returns 0 or the
 * check's error. */
int loreg_msg_check_offered(loreg_msg *msg, lmq_rx_info *info, void *message, uint32_t size,
                            uint32_t buffer_size, const lmq_address *from);

#ifdef __cplusplus
}
#endif

#endif
