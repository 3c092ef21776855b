/*
 * lors_broadcast: key update notifications of the repository server.
 *
 * One routine builds every notification of type 0x20E1: to all
 * subscribers of the service, or as a reply to one client. Paths are the
 * server's relative paths; the send puts the root path in front, so that
 * clients only see full paths. A failed send is logged by the send
 * operation and changes nothing on the server. Server thread only.
 */
#ifndef LOREG_LORS_BROADCAST_H
#define LOREG_LORS_BROADCAST_H

#include <stdint.h>

#include "loreg/loreg_export.h"
#include "loreg/lors.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The key update trigger's walk: a lors_rp_walk and what its callback
 * needs. walk.user points to the record itself. */
typedef struct lors_trigger_walk {
  lors_rp_walk walk;
  int32_t max_level;
  lors_ctx *server;
  const lmq_address *reply_address;
} lors_trigger_walk;

/*
 * Sends a key update: arg0 the reason, arg1 the node's low eight flags, tid
 * the transaction's id, data0 the node's value, data1 the path with the
 * root path as prefix. node and tas may be null. A null reply_address
 * broadcasts to all subscribers ("Broadcast: ..." line); otherwise the
 * message goes to that client alone ("Reply: ..." line). Returns the
 * send's result.
 */
LOREG_EXPORT int lors_sendKeyUpdate(lors_ctx *server, const lstr *path, const lors_rp_node *node,
                                    const lors_tas *tas, uint32_t reason,
                                    const lmq_address *reply_address);

/* lors_sendKeyUpdate for the root key, without transaction. */
LOREG_EXPORT int lors_sendRootKey(lors_ctx *server, uint32_t reason,
                                  const lmq_address *reply_address);

/* loreg_send_reply on the server's client; path is taken and ignored.
 * Returns the send's result. */
LOREG_EXPORT int lors_send_reply(lors_ctx *server, const lstr *path, const loreg_msg *msg,
                                 const lmq_address *reply_address);

/* Handler of the key update trigger (type 0x00E1): plays a subtree back to
 * the asker, one notification per selected key, nothing on failure.
 * Returns 0. */
LOREG_EXPORT int lors_onKeyUpdate(lors_ctx *server, loreg_msg *msg, const lmq_rx_info *info);

/* The trigger walk's callback. */
LOREG_EXPORT int32_t lors_onKeyUpdate_cb(lors_rp_node *node, lors_rp_walk *walk);

#ifdef __cplusplus
}
#endif

#endif
