/*
 * lors_commands: request handlers of the repository server.
 *
 * Each handler takes a validated request and the rx info of its sender,
 * applies the path rule of its type (a request that fails it gets no
 * reply at all), and answers with the request's header in which only the
 * documented fields change (reqid echoed), by lors_send_reply. Handlers
 * return 0 and leave the request as it came. Server thread only, called by
 * the dispatch, which has checked the server: the handlers don't look at
 * magic, since the stop signal is served after shutdown cleared it.
 * Transactions have their handlers in lors_tas.h, the key update trigger
 * in lors_broadcast.h.
 */
#ifndef LOREG_LORS_COMMANDS_H
#define LOREG_LORS_COMMANDS_H

#include "loreg/loreg_export.h"
#include "loreg/lors.h"

#ifdef __cplusplus
extern "C" {
#endif

/* 0x0001: value and flags of a key. Strict path rule. */
LOREG_EXPORT int lors_onValueQuery(lors_ctx *server, loreg_msg *msg, const lmq_rx_info *info);
/* 0x0002: sets value and/or flags, creating the key if asked. Strict. */
LOREG_EXPORT int lors_onValueSet(lors_ctx *server, loreg_msg *msg, const lmq_rx_info *info);
/* 0x0003: deletes a key and its subtree. Loose path rule. */
LOREG_EXPORT int lors_onKeyDelete(lors_ctx *server, loreg_msg *msg, const lmq_rx_info *info);
/* 0x0004: counts the selected children of a key. Loose. */
LOREG_EXPORT int lors_onKeyCount(lors_ctx *server, loreg_msg *msg, const lmq_rx_info *info);
/* 0x0005: name and flags of a selected child by index, or of the key. Strict. */
LOREG_EXPORT int lors_onKeyQuery(lors_ctx *server, loreg_msg *msg, const lmq_rx_info *info);
/* 0x0008 and 0x0009: store and reload the repository. */
LOREG_EXPORT int lors_onRepositoryStore(lors_ctx *server, loreg_msg *msg, const lmq_rx_info *info);
LOREG_EXPORT int lors_onRepositoryReload(lors_ctx *server, loreg_msg *msg,
                                         const lmq_rx_info *info);
/* 0x000A: the server's own stop signal. */
LOREG_EXPORT int lors_onStopSignal(lors_ctx *server, loreg_msg *msg, const lmq_rx_info *info);
/* 0x000B: sends the message back as it came, as type 0x100B. */
LOREG_EXPORT int lors_onEcho(lors_ctx *server, loreg_msg *msg, const lmq_rx_info *info);
/* 0x00E2: one root key notification to the asker. */
LOREG_EXPORT int lors_onRootKeyQuery(lors_ctx *server, loreg_msg *msg, const lmq_rx_info *info);

#ifdef __cplusplus
}
#endif

#endif
