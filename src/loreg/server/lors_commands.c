#include "loreg/lors_commands.h"

#include <string.h>

#include "common/loreg_debug.h"
#include "loreg/lors_broadcast.h"
#include "loreg/lors_commit.h"
#include "loreg/lors_export.h"
#include "loreg/lors_import.h"
#include "loreg/lors_tas.h"

/* Bits of a value set's arg0 beside the search mode's. */
#define LORS_SET_USER 0x00001u
#define LORS_SET_VOLATILE 0x00002u
#define LORS_SET_APPLY_USER 0x00100u
#define LORS_SET_APPLY_VOLATILE 0x00200u
#define LORS_SET_APPLY_VALUE 0x00400u

/* Flags that count for a change of a key; KEYF_CHANGED lies above them. */
#define LORS_FLAGS_CHANGE_MASK 0x00FFFFFFu
/* Flags that leave the server. */
#define LORS_FLAGS_WIRE_MASK 0xFFu

#define LORS_STORE_LABEL "Repository store cmd"

/* Writers (value set, key delete) act without a transaction when they
 * give a negative tid. */
static int32_t _lors_write_tid(int32_t tid) {
  return tid < 0 ? 0 : tid;
}

/* Readers may pass every lock with -1; other negative tids mean none. */
static int32_t _lors_read_tid(int32_t tid) {
  return tid == -1 ? -1 : (tid < 0 ? 0 : tid);
}

/* A reply starts as the request's header with the reply's type, the
 * result and no data; handlers then set what their type returns. */
static void _lors_reply_init(loreg_msg *reply, const loreg_msg *request, int32_t result) {
  memset(reply, 0, sizeof(*reply));
  reply->header = request->header;
  reply->header.msgtype = LOREG_MSG_REPLY_TYPE(request->header.msgtype);
  reply->header.result = result;
  reply->header.len0 = 0;
  reply->header.len1 = 0;
}

static void _lors_reply_result(lors_ctx *server, const lstr *path, const loreg_msg *request,
                               const lmq_rx_info *info, int32_t result) {
  loreg_msg reply;
  _lors_reply_init(&reply, request, result);
  (void)lors_send_reply(server, path, &reply, &info->reply);
}

int lors_onValueQuery(lors_ctx *server, loreg_msg *msg, const lmq_rx_info *info) {
  lstr relative;
  lors_rp_path_res res;
  lors_tas *tas;
  loreg_msg reply;

  if (lors_path_check(server, msg, 0, &relative) != 0) return 0;
  int rc = lors_find_key(server, &relative, 0, NULL, _lors_read_tid(msg->header.tid), &res, &tas);
  _lors_reply_init(&reply, msg, rc);
  if (rc == 0) {
    reply.header.arg1 = res.node->flags & LORS_FLAGS_WIRE_MASK;
    reply.header.len0 = (uint16_t)res.node->value.len;
    reply.data0 = res.node->value.ptr;
  }
  (void)lors_send_reply(server, &relative, &reply, &info->reply);
  return 0;
}

/* The value set's work on a key that the search found or made: flags,
 * value, dirtiness, log line and broadcast. Returns the result of the
 * reply, which is 0 unless the new value found no memory. */
static int32_t _lors_apply_value_set(lors_ctx *server, const loreg_msg *msg,
                                     const lstr *relative, const lors_rp_path_res *res,
                                     const lstr *value, lors_tas *tas) {
  uint32_t mode = msg->header.arg0;
  lors_rp_node *node = res->node;
  uint32_t old = node->flags;
  int created = (res->created & LORS_RP_CREATED_KEY) != 0;
  int value_changed = 0;
  int32_t result = 0;

  /* A new key takes both flags from the request in any case. */
  if ((mode & LORS_SET_APPLY_USER) || created) {
    node->flags = (mode & LORS_SET_USER) ? (node->flags | KEYF_USER) : (node->flags & ~KEYF_USER);
  }
  if ((mode & LORS_SET_APPLY_VOLATILE) || created) {
    node->flags = (mode & LORS_SET_VOLATILE) ? (node->flags | KEYF_VOLATILE)
                                             : (node->flags & ~KEYF_VOLATILE);
  }
  if ((mode & LORS_SET_APPLY_VALUE) && !created && lors_rp_ValueDiffers(node, value)) {
    /* A new value means a new node; the server's root pointer must follow
     * when the key is the root. */
    lors_rp_node **ref = node == server->root ? &server->root : &node;
    result = lors_rp_UpdateValue(server->allocator, ref, value);
    if (result == 0) {
      node = *ref;
      value_changed = 1;
    }
  }

  int changed = value_changed || ((old ^ node->flags) & LORS_FLAGS_CHANGE_MASK) != 0;
  if (changed) node->flags |= KEYF_CHANGED;

  /* Below a volatile key nothing is saved. A key that turns volatile must
   * leave the file, so that dirties; otherwise only what is saved counts. */
  int dirty;
  if (res->flags_above & KEYF_VOLATILE) {
    dirty = 0;
  } else if (node->flags & KEYF_VOLATILE) {
    dirty = !created && !(old & KEYF_VOLATILE);
  } else {
    dirty = created || changed;
  }
  int caused = dirty ? lors_repositorySetDirty(server, 1) : 0;

  LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_SERVER,
            "%s(reqid=%d tid=%d) old=0x%02x new=0x%02x dirty=%s val=%s(%u byte(s)) path='%.*s'\n",
            "lors_onValueSet", (int)msg->header.reqid, (int)msg->header.tid,
            (unsigned)(old & LORS_FLAGS_WIRE_MASK), (unsigned)(node->flags & LORS_FLAGS_WIRE_MASK),
            caused ? "caused" : (server->dirty ? "yes" : "no"),
            created ? "added" : (value_changed ? "changed" : "unchanged"),
            (unsigned)node->value.len, (int)relative->len, relative->ptr);

  (void)lors_sendKeyUpdate(server, relative, node, tas,
                           created ? LOREG_REASON_KEY_ADD : LOREG_REASON_KEY_CHANGE, NULL);
  return result;
}

int lors_onValueSet(lors_ctx *server, loreg_msg *msg, const lmq_rx_info *info) {
  lstr relative;
  lors_rp_path_res res;
  lors_tas *tas;

  if (lors_path_check(server, msg, 0, &relative) != 0) return 0;
  lstr value = {msg->data0, msg->header.len0};
  int32_t rc = lors_find_key(server, &relative, msg->header.arg0, &value,
                             _lors_write_tid(msg->header.tid), &res, &tas);
  if (rc == 0) rc = _lors_apply_value_set(server, msg, &relative, &res, &value, tas);
  _lors_reply_result(server, &relative, msg, info, rc);
  return 0;
}

/* Deletes the key that the search found, after the dirty mark and the
 * broadcast, which still shows its last flags and value. Returns 0 or -12
 * (no new root could be made; nothing changed). */
static int32_t _lors_delete_key(lors_ctx *server, const loreg_msg *msg, const lstr *relative,
                                const lors_rp_path_res *res, lors_tas *tas) {
  lors_rp_node *key = res->node;
  int saved = (res->flags_all & KEYF_VOLATILE) == 0;
  int caused = 0;

  if (key == server->root) {
    /* The root never goes away: an empty one takes its place first. */
    if (lors_rootkey_alloc(server, NULL) != 0) return -12;
    if (saved) caused = lors_repositorySetDirty(server, 1);
    (void)lors_sendKeyUpdate(server, relative, key, tas, LOREG_REASON_KEY_DELETE, NULL);
    (void)lors_sendKeyUpdate(server, relative, key, tas, LOREG_REASON_KEY_ADD, NULL);
  } else {
    if (saved) caused = lors_repositorySetDirty(server, 1);
    (void)lors_sendKeyUpdate(server, relative, key, tas, LOREG_REASON_KEY_DELETE, NULL);
  }
  uint32_t kinds = 0;
  int32_t count = lors_rp_DeleteRecursive(server->allocator, key, &kinds);

  LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_SERVER,
            "%s(reqid=%d tid=%d) dirty=%s %d nodes deleted, path='%.*s'\n", "lors_onKeyDelete",
            (int)msg->header.reqid, (int)msg->header.tid,
            caused ? "caused" : (saved ? "yes" : "no"), (int)count, (int)relative->len,
            relative->ptr);
  return 0;
}

int lors_onKeyDelete(lors_ctx *server, loreg_msg *msg, const lmq_rx_info *info) {
  lstr relative;
  lors_rp_path_res res;
  lors_tas *tas;

  if (lors_path_check(server, msg, 1, &relative) != 0) return 0;
  int32_t tid = _lors_write_tid(msg->header.tid);
  int32_t rc = lors_find_key(server, &relative, 0, NULL, tid, &res, &tas);
  /* Nothing goes while another transaction holds a key below. */
  if (rc == 0) rc = lors_rp_ScanRecursive(res.node, tid, NULL);
  if (rc == 0) rc = _lors_delete_key(server, msg, &relative, &res, tas);
  _lors_reply_result(server, &relative, msg, info, rc);
  return 0;
}

int lors_onKeyCount(lors_ctx *server, loreg_msg *msg, const lmq_rx_info *info) {
  lstr relative;
  lors_rp_path_res res;
  lors_tas *tas;
  loreg_msg reply;

  if (lors_path_check(server, msg, 1, &relative) != 0) return 0;
  int rc = lors_find_key(server, &relative, 0, NULL, _lors_read_tid(msg->header.tid), &res, &tas);
  _lors_reply_init(&reply, msg, rc);
  if (rc == 0) reply.header.arg0 = lors_rp_count(&res.node->children, msg->header.arg0);
  (void)lors_send_reply(server, &relative, &reply, &info->reply);
  return 0;
}

int lors_onKeyQuery(lors_ctx *server, loreg_msg *msg, const lmq_rx_info *info) {
  lstr relative;
  lors_rp_path_res res;
  lors_tas *tas;
  loreg_msg reply;
  const lors_rp_node *key = NULL;

  if (lors_path_check(server, msg, 0, &relative) != 0) return 0;
  int rc = lors_find_key(server, &relative, 0, NULL, _lors_read_tid(msg->header.tid), &res, &tas);
  if (rc == 0) {
    /* A negative index asks for the key itself, whatever the mask. */
    int32_t index = (int32_t)msg->header.arg1;
    key = index >= 0 ? lors_rp_find(&res.node->children, index, NULL, msg->header.arg0) : res.node;
    if (key == NULL) rc = -2;
  }
  _lors_reply_init(&reply, msg, rc);
  if (rc == 0) {
    reply.header.arg0 = key->flags & LORS_FLAGS_WIRE_MASK;
    reply.header.len0 = (uint16_t)key->name.len;
    reply.data0 = key->name.ptr;
  }
  (void)lors_send_reply(server, &relative, &reply, &info->reply);
  return 0;
}

/* Store and reload do nothing for a server that doesn't persist, and wait
 * for no transaction but refuse while one holds a lock. Returns 1 if the
 * command should run, else 0 with *result set. */
static int _lors_repository_cmd_allowed(const lors_ctx *server, int32_t *result) {
  if (server->options & LORS_OPT_NO_PERSIST) {
    *result = 0;
    return 0;
  }
  if (!TAILQ_EMPTY(&server->active_q)) {
    *result = -13;
    return 0;
  }
  return 1;
}

int lors_onRepositoryStore(lors_ctx *server, loreg_msg *msg, const lmq_rx_info *info) {
  int32_t rc;
  if (_lors_repository_cmd_allowed(server, &rc)) rc = lors_exprt_default(server, LORS_STORE_LABEL);
  _lors_reply_result(server, NULL, msg, info, rc);
  return 0;
}

int lors_onRepositoryReload(lors_ctx *server, loreg_msg *msg, const lmq_rx_info *info) {
  int32_t rc;
  if (_lors_repository_cmd_allowed(server, &rc)) rc = lors_imprt_default(server);
  _lors_reply_result(server, NULL, msg, info, rc);
  return 0;
}

int lors_onStopSignal(lors_ctx *server, loreg_msg *msg, const lmq_rx_info *info) {
  (void)msg;
  (void)info;
  /* Only the server's own signal at shutdown counts: subscribers learn
   * from the root key's delete that the server goes. */
  if (__atomic_load_n(&server->stop, __ATOMIC_ACQUIRE) != 0) {
    (void)lors_sendRootKey(server, LOREG_REASON_KEY_DELETE, NULL);
  }
  return 0;
}

int lors_onEcho(lors_ctx *server, loreg_msg *msg, const lmq_rx_info *info) {
  loreg_msg reply = *msg;
  reply.header.msgtype = LOREG_MSG_REPLY_TYPE(LOREG_MSG_ECHO);
  reply.prefix = NULL;
  (void)lors_send_reply(server, NULL, &reply, &info->reply);
  return 0;
}

int lors_onRootKeyQuery(lors_ctx *server, loreg_msg *msg, const lmq_rx_info *info) {
  (void)msg;
  (void)lors_sendRootKey(server, LOREG_REASON_KEY_UPDATE, &info->reply);
  return 0;
}
