/*
 * lors_tas: transactions of the repository server.
 *
 * A transaction gives a client the exclusive use of a subtree for a limited
 * time; an acquired transaction id is a number without lock or limit with
 * which a client marks its changes. The server keeps three queues, each
 * filled at the head: active_q (holding their lock), wait_q (waiting for
 * another tid) and acquired_q. A node is in at most one queue. Between a
 * key and its transaction the links go both ways (node->owner, tas->node),
 * and only while both are set does the key carry KEYF_LOCKED.
 *
 * Everything here runs on the server's thread and takes no lock. Nodes are
 * one allocation each (record, then the path bytes) from the server's
 * allocator.
 */
#ifndef LOREG_LORS_TAS_H
#define LOREG_LORS_TAS_H

#include <stdint.h>
#include <sys/queue.h>

#include "loreg/loreg_alloc.h"
#include "loreg/loreg_export.h"
#include "loreg/loreg_msg.h"
#include "loreg/lstr.h"
#include "platform/lmq.h"

#ifdef __cplusplus
extern "C" {
#endif

struct lors_rp_node;
struct lors_ctx;

/* Default longest duration of a transaction, in milliseconds. */
#define LORS_TA_DEFAULT_DURATION_MS 240000u

typedef struct lors_tas lors_tas;
TAILQ_HEAD(lors_tas_queue, lors_tas);
typedef struct lors_tas_queue lors_tas_queue;

struct lors_tas {
  TAILQ_ENTRY(lors_tas) link;  /* next in its queue, and the link that
                                  points to this node */
  int32_t tid;                 /* from the server's last_tid, never reused */
  lstr path;                   /* relative path; bytes behind the record */
  int32_t timer;               /* waiting, then duration timer; 0 if none */
  lors_tas_queue *queue;       /* the queue it is in, or NULL */
  struct lors_rp_node *node;   /* the locked key, or NULL */
  int32_t wait_tid;            /* tid waited for, 0 if not waiting */
  lmq_address reply_address;   /* where the start reply goes */
  loreg_Header_t request;      /* request header, already with the reply's type;
                                  arg0 waiting time, arg1 duration, in ms */
};

/* Allocates and zeroes a node with a copy of path and the next tid.
 * Returns it, or null after a log line. */
LOREG_EXPORT lors_tas *lors_tas_new(struct lors_ctx *server, const lstr *path);

/* Tries to take the lock of tas->path. Returns 0 when active now (broadcast
 * 0x5003 sent), -13 when it must wait (it is then at the head of wait_q
 * with wait_tid set), or another negative error (out of any queue). */
LOREG_EXPORT int lors_tas_tryActivate(struct lors_ctx *server, lors_tas *tas);

/* Sends the (late) reply to the start request with result, and the tid if
 * result is 0. */
LOREG_EXPORT int lors_tas_sendStartReply(struct lors_ctx *server, lors_tas *tas, int32_t result);

/* Linear searches of active_q and acquired_q by tid. Null if absent. */
LOREG_EXPORT lors_tas *lors_tas_findActive(struct lors_ctx *server, int32_t tid);
LOREG_EXPORT lors_tas *lors_tas_findAcquired(struct lors_ctx *server, int32_t tid);

/* Moves the node to the head of acquired_q. Returns 0. */
LOREG_EXPORT int lors_tas_Acquire(struct lors_ctx *server, lors_tas *tas);

/* Destroys its timer, releases its lock, takes it out of its queue and
 * frees it. */
LOREG_EXPORT void lors_tas_delete(struct lors_ctx *server, lors_tas *tas);

/* Ends an active transaction: broadcast 0x5004, free it, start its
 * waiters newest first, commit with LORS_OPT_COMMIT_ON_TA_END. A waiter
 * that can't start for another reason than a lock (its key is gone) gets
 * the error as its start reply and stays in wait_q with wait_tid 0, which
 * no end and no timer matches, until lors_ta_clearQ frees it at shutdown;
 * its waiting timer is left to fire and find nothing. */
LOREG_EXPORT void lors_tas_handleEnd(struct lors_ctx *server, lors_tas *tas);

/* A transaction timer fell due: a waiter gets -13, an active transaction
 * ends by force; an unknown id is ignored. */
LOREG_EXPORT void lors_tas_onTimer(struct lors_ctx *server, int32_t timer_id);

/* Releases the lock if there is one and takes the node out of its queue
 * (out of the node's own queue if it names another, with a log line). */
LOREG_EXPORT void lors_ta_remove(lors_tas_queue *queue, lors_tas *tas);

/* Releases the locks of, unlinks and frees every node of a queue; timers
 * are not touched. For shutdown. */
LOREG_EXPORT void lors_ta_clearQ(const loreg_allocator *allocator, lors_tas_queue *queue);

/* Request handlers: transaction start (0x0006, 0x000C), end (0x0007),
 * id acquire (0x000D) and release (0x000E). Return 0. */
LOREG_EXPORT int lors_tas_onStart(struct lors_ctx *server, loreg_msg *msg,
                                  const lmq_rx_info *info);
LOREG_EXPORT int lors_tas_onEnd(struct lors_ctx *server, loreg_msg *msg, const lmq_rx_info *info);
LOREG_EXPORT int lors_tas_onAcquire(struct lors_ctx *server, loreg_msg *msg,
                                    const lmq_rx_info *info);
LOREG_EXPORT int lors_tas_onRelease(struct lors_ctx *server, loreg_msg *msg,
                                    const lmq_rx_info *info);

#ifdef __cplusplus
}
#endif

#endif
