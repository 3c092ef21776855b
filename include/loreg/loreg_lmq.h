/*
 * loreg lmq attachment: a registry task's link to the lmq message server
 * under the service name "LOREG".
 *
 * Conventions
 * - Ownership: the lmq server is the caller's. A client given by the caller
 *   stays the caller's; otherwise loreg_lmq_init allocates the client block
 *   and its receive queue through the allocator, and loreg_lmq_shutdown
 *   gives them back. A non-null queue tells the owner that it runs a task
 *   (and a receive loop) of its own.
 * - stages records which set-up steps are done; shutdown undoes exactly
 *   those, so it is safe on a record left by a failed init, and on a zeroed
 *   record (it then does nothing).
 * - Errors: 0 or a negative errno. Every lmq failure is reported as -14
 *   (EFAULT); the lmq code only appears in the log line.
 * - Threads: init and shutdown of one record must not run concurrently with
 *   each other or with any use of the record's client.
 */
#ifndef LOREG_LOREG_LMQ_H
#define LOREG_LOREG_LMQ_H

#include <stdint.h>

#include "loreg/loreg_alloc.h"
#include "loreg/loreg_export.h"
#include "platform/lmq.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Bits of loreg_lmq_ctx.stages. */
#define LOREG_LMQ_STAGE_CLIENT_ALLOC 0x01u /* client block allocated */
#define LOREG_LMQ_STAGE_CLIENT_INIT 0x02u  /* lmqClientInit done */
#define LOREG_LMQ_STAGE_SERVER_ADD 0x04u   /* lmqServerAddClient done */
#define LOREG_LMQ_STAGE_REGISTERED 0x08u   /* lmqRegisterPlainId done */
#define LOREG_LMQ_STAGE_SUBSCRIBED 0x10u   /* lmqSubscribeService done */
#define LOREG_LMQ_STAGE_HOSTING 0x20u      /* lmqHostService done */

/* Service name, registered with its terminator. */
#define LOREG_LMQ_SERVICE_NAME "LOREG"
#define LOREG_LMQ_DEFAULT_QUEUE_SIZE 0x4000u

typedef struct loreg_lmq_ctx {
  uint32_t stages;    /* LOREG_LMQ_STAGE_* */
  int16_t service_id; /* id of "LOREG" */
  lmq_server *server; /* the caller's */
  lmq_client *client; /* the caller's, or allocated here */
  void *queue;        /* receive queue allocated here, else NULL */
  uint32_t queue_size; /* bytes of queue */
} loreg_lmq_ctx;

/*
 * Zeroes *lmq and attaches a task to server under "LOREG". With a non-null
 * client that client is used as it is (it must be initialised and attached
 * to server) and stays the caller's. Without one, a receive queue of
 * queue_kib KiB (0: 16 KiB) and a client block are allocated through
 * allocator, and the client is initialised and attached. host non-zero
 * makes the client the service's host, else a subscriber.
 *
 * Returns 0; -22 for a null lmq or server; -12 when an allocation fails;
 * -14 when an lmq operation fails. After a failure everything reached is
 * undone and *lmq is zeroed (null lmq excepted).
 */
LOREG_EXPORT int loreg_lmq_init(loreg_lmq_ctx *lmq, const loreg_allocator *allocator,
                                lmq_server *server, lmq_client *client, uint32_t queue_kib,
                                int host);

/*
 * Undoes the steps that lmq->stages records, in reverse order, frees the
 * queue if there is one, and zeroes *lmq. allocator must be the one given
 * to loreg_lmq_init. A null lmq does nothing.
 */
LOREG_EXPORT void loreg_lmq_shutdown(loreg_lmq_ctx *lmq, const loreg_allocator *allocator);

#ifdef __cplusplus
}
#endif

#endif
