#include "loreg/lors_broadcast.h"

#include <string.h>

#include "common/loreg_debug.h"

/* The trigger's walk builds each key's path in a buffer on the stack:
 * paths up to LORS_TRIGGER_PATH_MAX characters, and room for a zero. */
#define LORS_TRIGGER_PATH_MAX 0x1FFu
#define LORS_TRIGGER_PATH_BUFFER (LORS_TRIGGER_PATH_MAX + 1u)

int lors_sendKeyUpdate(lors_ctx *server, const lstr *path, const lors_rp_node *node,
                       const lors_tas *tas, uint32_t reason, const lmq_address *reply_address) {
  loreg_msg msg;

  memset(&msg, 0, sizeof(msg));
  msg.header.msgtype = LOREG_MSG_KEY_UPDATE;
  msg.header.arg0 = reason;
  if (node != NULL) {
    msg.header.arg1 = node->flags & 0xFFu;
    msg.header.len0 = (uint16_t)node->value.len;
    msg.data0 = node->value.ptr;
  }
  if (tas != NULL) msg.header.tid = tas->tid;
  msg.header.len1 = (uint16_t)path->len;
  msg.data1 = path->ptr;
  /* Clients only ever see full paths: the send puts the root path in
   * front of the relative one. */
  msg.prefix = server->root_path_text;

  if (reply_address == NULL) {
    LOREG_LOG(LOREG_LVL_TRACE, LOREG_MOD_SERVER, "Broadcast: %s flags=0x%02x, tid=%d, path='%.*s'\n",
              lorc_get_reason_txt(reason), (unsigned)msg.header.arg1, (int)msg.header.tid,
              (int)path->len, path->ptr);
    return loreg_send_notification(server->lmq.client, server->lmq.service_id, &msg);
  }
  LOREG_LOG(LOREG_LVL_TRACE, LOREG_MOD_SERVER, "Reply: %s flags=0x%02x, tid=%d, path='%.*s'\n",
            lorc_get_reason_txt(reason), (unsigned)msg.header.arg1, (int)msg.header.tid,
            (int)path->len, path->ptr);
  return loreg_send_reply(server->lmq.client, &msg, reply_address);
}

int lors_sendRootKey(lors_ctx *server, uint32_t reason, const lmq_address *reply_address) {
  return lors_sendKeyUpdate(server, &server->root->name, server->root, NULL, reason,
                            reply_address);
}

int lors_send_reply(lors_ctx *server, const lstr *path, const loreg_msg *msg,
                    const lmq_address *reply_address) {
  (void)path;
  return loreg_send_reply(server->lmq.client, msg, reply_address);
}

int32_t lors_onKeyUpdate_cb(lors_rp_node *node, lors_rp_walk *walk) {
  lors_trigger_walk *trigger = walk->user;

  /* Too deep: nothing for this key, and the walk stays out of its
   * children. */
  if (walk->level > trigger->max_level) return 1;
  lstr_zterm(&walk->path);
  (void)lors_sendKeyUpdate(trigger->server, &walk->path, node, NULL, LOREG_REASON_KEY_UPDATE,
                           trigger->reply_address);
  return walk->level >= trigger->max_level ? 1 : 0;
}

int lors_onKeyUpdate(lors_ctx *server, loreg_msg *msg, const lmq_rx_info *info) {
  lstr relative;
  lors_rp_path_res res;
  lors_tas *tas;
  char buffer[LORS_TRIGGER_PATH_BUFFER];
  lors_trigger_walk trigger;

  if (lors_path_check(server, msg, 0, &relative) != 0) return 0;
  /* The trigger reads past every lock, so the tid check can't refuse it. */
  if (lors_find_key(server, &relative, 0, NULL, -1, &res, &tas) != 0) return 0;
  if (relative.len >= LORS_TRIGGER_PATH_BUFFER) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER, "%s() path exeeded %d characters - request ignored\n",
              "lors_onKeyUpdate", (int)LORS_TRIGGER_PATH_MAX);
    return 0;
  }

  memset(&trigger, 0, sizeof(trigger));
  trigger.walk.visited = 0;
  trigger.walk.level = 0;
  trigger.walk.path.ptr = buffer;
  trigger.walk.path_max = LORS_TRIGGER_PATH_MAX;
  trigger.walk.mask = msg->header.arg0;
  trigger.walk.callback = lors_onKeyUpdate_cb;
  trigger.walk.user = &trigger;
  trigger.max_level = (int32_t)msg->header.arg1;
  trigger.server = server;
  trigger.reply_address = &info->reply;
  lstr_cpy(&trigger.walk.path, &relative);

  /* The walk appends the start key's own name again. */
  if (trigger.walk.path.len >= res.node->name.len) trigger.walk.path.len -= res.node->name.len;
  (void)lors_rp_TreeWalk(res.node, &trigger.walk);
  return 0;
}
