#include "loreg/lors.h"

#include <stddef.h>
#include <string.h>

#include "common/loreg_debug.h"
#include "loreg/loreg_msgloop.h"
#include "loreg/lors_broadcast.h"
#include "loreg/lors_commands.h"
#include "loreg/lors_commit.h"
#include "loreg/lors_import.h"
#include "loreg/lors_tas.h"
#include "messaging/loreg_msg_check.h"
#include "platform/csp_thread.h"
#include "server/lors_private.h"

lors_ctx *g_loregServerHandle = NULL;

/* The system message with which lmq tells a host that a subscriber came. */
#define LORS_SYSMSG_SUBSCRIBER 0x185627F4u
#define LORS_SYSMSG_SUBSCRIBER_SUBTYPE 1u

#define LORS_THREAD_NAME "lorsmain"
#define LORS_THREAD_STACK_SIZE 16384u

/* The init line names the default root whatever the real one is. */
#define LORS_INIT_SUCCESS_ROOT "/com/norvi"

/* magic and stop are the only words that cross threads: shutdown writes
 * them on the caller's thread while "lorsmain" may be reading them. */
static int _lors_valid(const lors_ctx *server) {
  return server != NULL && __atomic_load_n(&server->magic, __ATOMIC_ACQUIRE) == LORS_MAGIC;
}

static size_t _lors_text_size(const char *text) {
  return text != NULL ? strlen(text) + 1 : 0;
}

/* Copies text into the context's tail at *tail and advances it. A null
 * text stays null. */
static const char *_lors_store_text(char **tail, const char *text) {
  if (text == NULL) return NULL;
  size_t size = strlen(text) + 1;
  char *copy = *tail;
  memcpy(copy, text, size);
  *tail += size;
  return copy;
}

/* The caller's table with the defaults filled in: a null file name or
 * function takes the default's, a null device stays null. */
static void _lors_fio_merge(lors_fio *merged, const lors_fio *given) {
  if (given == NULL) {
    *merged = g_lors_default_fio;
    return;
  }
  *merged = *given;
  if (merged->file0 == NULL) merged->file0 = g_lors_default_fio.file0;
  if (merged->file1 == NULL) merged->file1 = g_lors_default_fio.file1;
  if (merged->open == NULL) merged->open = g_lors_default_fio.open;
  if (merged->close == NULL) merged->close = g_lors_default_fio.close;
  if (merged->read == NULL) merged->read = g_lors_default_fio.read;
  if (merged->write == NULL) merged->write = g_lors_default_fio.write;
}

/* Writes the normalised root path to out, which has room for the text,
 * a leading "/" and the terminator: "" stays empty, otherwise the path
 * begins with "/" and loses one trailing "/". Returns its length. */
static int32_t _lors_normalise_root(char *out, const char *root) {
  size_t len = strlen(root);
  size_t n = 0;
  if (len == 0) {
    out[0] = '\0';
    return 0;
  }
  if (root[0] != '/') out[n++] = '/';
  memcpy(out + n, root, len);
  n += len;
  if (out[n - 1] == '/') n--;
  out[n] = '\0';
  return (int32_t)n;
}

/* Undoes what lors_init reached, in this order: lmq, timer queue, the tree,
 * magic, the context. The whole tree goes, also what an import hung below
 * the root, so that a failed start leaves no memory behind. */
static void _lors_init_unwind(lors_ctx *server) {
  const loreg_allocator *allocator = server->allocator;
  loreg_lmq_shutdown(&server->lmq, allocator);
  if (server->timers != NULL) tmrq_InstDestroy(server->timers);
  server->timers = NULL;
  lors_rp_DeleteRecursive(allocator, server->root, NULL);
  server->root = NULL;
  __atomic_store_n(&server->magic, 0u, __ATOMIC_RELEASE);
  loreg_free(allocator, server);
}

/* Key commands short enough to serve in the sending thread: they touch the
 * tree and send their answers, but neither transactions nor files. */
static int _lors_served_when_idle(uint16_t msgtype) {
  switch (msgtype) {
    case LOREG_MSG_VALUE_QUERY:
    case LOREG_MSG_VALUE_SET:
    case LOREG_MSG_KEY_DELETE:
    case LOREG_MSG_KEY_COUNT:
    case LOREG_MSG_KEY_QUERY:
      return 1;
    default:
      return 0;
  }
}

/* Due time of the first timer; 0 when there is none. */
static int _lors_first_timer(lors_ctx *server, _cspOsalTime_struct *due) {
  tmrq_info info;
  if (tmrq_TimerGet(server->timers, 0, &info) < 0) return 0;
  *due = info.timeout;
  return 1;
}

/*
 * Offered by lmq in the sending thread while "lorsmain" waits for messages
 * with none queued; commands sent straight to the server come with the
 * kind of a reply. "lorsmain" stays blocked until this returns, so the
 * tree has one user at a time and requests keep their order. A key
 * command is served here as the loop would serve it, without the timers:
 * if it made a timer fall due earlier than the first one before (a
 * delayed commit), "lorsmain" is asked to look at its timers again. The
 * rest, and a server that is stopping, go the normal way.
 */
static int _lors_idle_request(void *context, void *message, uint32_t size, uint32_t bufferSize,
                              const lmq_address *from) {
  lors_ctx *server = context;
  _cspOsalTime_struct before;
  _cspOsalTime_struct after;
  int had_timer;
  lmq_rx_info info;
  loreg_msg msg;

  if (__atomic_load_n(&server->stop, __ATOMIC_ACQUIRE) != 0) return 0;
  if (from->service_id != server->lmq.service_id) return 0;
  if (loreg_msg_check_offered(&msg, &info, message, size, bufferSize, from) != 0) return 0;
  if (!_lors_served_when_idle(msg.header.msgtype)) return 0;

  had_timer = _lors_first_timer(server, &before);
  (void)lors_task_handle_request(server, &msg, &info);
  if (_lors_first_timer(server, &after) &&
      (!had_timer || cspOsalCompareTime(&after, &before) < 0)) {
    return 2;
  }
  return 1;
}

/* Starts "lorsmain" with a small stack and scheduling of its own rather
 * than inherited from the caller. Returns 0 or -14. */
static int _lors_start_thread(lors_ctx *server) {
  pthread_attr_t attr;
  int rc;

  if (_cspOsalPOSIX_pthread_attr_init(&attr) != 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER, "%s(): failed to init threadAttr\n", "lors_init");
    return -14;
  }
  if (pthread_attr_setstacksize(&attr, LORS_THREAD_STACK_SIZE) != 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER, "%s(): failed to set stack size\n", "lors_init");
    _cspOsalPOSIX_pthread_attr_destroy(&attr);
    return -14;
  }
  if (pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED) != 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER,
              "%s(): unable to disable inheritance of thread scheduling parameters\n", "lors_init");
    _cspOsalPOSIX_pthread_attr_destroy(&attr);
    return -14;
  }
  /* The name only helps a person reading the process's threads; a thread
   * without it works all the same. */
  (void)_cspOsalPOSIX_pthread_attr_setname_norvi(&attr, LORS_THREAD_NAME);
  rc = _cspOsalPOSIX_pthread_create_line(&server->thread, &attr, lors_task_main, server, __FILE__,
                                         __LINE__);
  _cspOsalPOSIX_pthread_attr_destroy(&attr);
  if (rc != 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER, "%s(): failed to start worker thread (code %d)\n",
              "lors_init", rc);
    return -14;
  }
  return 0;
}

int lors_init(lors_ctx **handle, const lors_params *params) {
  if (params == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER,
              "%s(pHandle, NULL): need initialization parameters!\n", __func__);
    return -22;
  }
  if (handle == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER, "%s(NULL): need to return server handle!\n",
              __func__);
    return -22;
  }

  /* The context, the texts of its file table and the root path (plus a
   * leading "/" and the terminator) are one block. */
  lors_fio fio;
  _lors_fio_merge(&fio, params->fio);
  const char *root = params->root_path != NULL ? params->root_path : LORS_DEFAULT_ROOT_PATH;
  size_t size = sizeof(lors_ctx) + _lors_text_size(fio.device) + _lors_text_size(fio.file0) +
                _lors_text_size(fio.file1) + strlen(root) + 2;
  lors_ctx *server = loreg_malloc(params->allocator, size);
  if (server == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER, "%s() failed to alloc %u bytes context\n", __func__,
              (unsigned)size);
    return -12;
  }
  memset(server, 0, size);

  server->magic = LORS_MAGIC;
  server->allocator = params->allocator;
  server->lmq_server = params->lmq_server;
  server->lmq_client = params->lmq_client;
  server->queue_kib = params->queue_kib;
  server->root_path = params->root_path;
  server->options = params->options;
  server->commit_delay_final = params->commit_delay_final;
  server->commit_delay_intermediate = params->commit_delay_intermediate;
  server->fio = &server->fio_copy;

  char *tail = (char *)(server + 1);
  server->fio_copy = fio;
  server->fio_copy.device = _lors_store_text(&tail, fio.device);
  server->fio_copy.file0 = _lors_store_text(&tail, fio.file0);
  server->fio_copy.file1 = _lors_store_text(&tail, fio.file1);
  server->root_path_text = tail;
  server->root_path_len = _lors_normalise_root(tail, root);

  TAILQ_INIT(&server->active_q);
  TAILQ_INIT(&server->wait_q);
  TAILQ_INIT(&server->acquired_q);

  int rc = lors_rootkey_alloc(server, NULL);
  if (rc != 0) {
    _lors_init_unwind(server);
    return rc;
  }

  tmrq_params timer_params;
  timer_params.allocator = server->allocator;
  server->timers = tmrq_InstCreate(&timer_params);
  if (server->timers == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER,
              "%s(): failed initializing timer queue instance.\n", __func__);
    _lors_init_unwind(server);
    return -12;
  }

  /* A server may start without a saved repository: the import's result
   * only tells whether a file was taken. */
  if ((server->options & (LORS_OPT_EXPORT_BOTH | LORS_OPT_NO_PERSIST)) == 0) {
    (void)lors_imprt_default(server);
  }

  rc = loreg_lmq_init(&server->lmq, server->allocator, server->lmq_server, server->lmq_client,
                      server->queue_kib, 1);
  if (rc != 0) {
    _lors_init_unwind(server);
    return rc;
  }

  if (server->lmq_client == NULL) {
    (void)lmqClientSetIdleReplyHandler(server->lmq.client, _lors_idle_request, server);
    rc = _lors_start_thread(server);
    if (rc != 0) {
      _lors_init_unwind(server);
      return rc;
    }
  }

  LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_SERVER, "%s:%d:%s(): lors_init success, root_path='%s'\n",
            loreg_basename(__FILE__), __LINE__, __func__, LORS_INIT_SUCCESS_ROOT);
  *handle = server;
  g_loregServerHandle = server;
  return 0;
}

int lors_shutdown(lors_ctx *server) {
  if (!_lors_valid(server)) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER, "%s(): server not yet initialized.\n", __func__);
    return -14;
  }
  /* From here on the public calls refuse the server. */
  __atomic_store_n(&server->magic, 0u, __ATOMIC_RELEASE);

  if (server->lmq_client == NULL) {
    /* The loop looks at stop after each message; the self-notification
     * wakes its blocked receive so that it does so at once. */
    loreg_msg stop_msg;
    memset(&stop_msg, 0, sizeof(stop_msg));
    stop_msg.header.msgtype = LOREG_MSG_STOP;
    __atomic_store_n(&server->stop, 1, __ATOMIC_RELEASE);
    (void)loreg_send_self_notification(server->lmq.client, &stop_msg);
    LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_SERVER, "%s(): wait for message loop task to exit...\n",
              __func__);
    if (pthread_join(server->thread, NULL) != 0) {
      LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER,
                "%s() failed waiting for message loop task to exit.\n", __func__);
    } else {
      LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_SERVER, "%s() ... message task joined. \n", __func__);
    }
  }

  if (server->options & LORS_OPT_COMMIT_ON_SHUTDOWN) {
    (void)lors_commit_default(server, "shutdown");
  }

  const loreg_allocator *allocator = server->allocator;
  loreg_lmq_shutdown(&server->lmq, allocator);
  tmrq_InstDestroy(server->timers);
  server->timers = NULL;
  lors_rp_DeleteRecursive(allocator, server->root, NULL);
  server->root = NULL;
  /* The tree is gone, so the transactions hold no keys any more; their
   * timers went with the timer queue. */
  lors_ta_clearQ(allocator, &server->active_q);
  lors_ta_clearQ(allocator, &server->wait_q);
  lors_ta_clearQ(allocator, &server->acquired_q);
  if (g_loregServerHandle == server) g_loregServerHandle = NULL;
  loreg_free(allocator, server);
  LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_SERVER, "%s(): done.\n", __func__);
  return 0;
}

int16_t lors_get_service_id(const lors_ctx *server) {
  if (!_lors_valid(server)) return 0;
  return server->lmq.service_id;
}

const char *lors_get_rootpath(const lors_ctx *server) {
  if (!_lors_valid(server)) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER, "%s(): server not yet initialized.\n", __func__);
    return NULL;
  }
  return server->root_path_text;
}

/* A server with its own thread is fed by its loop alone. */
static int _lors_accepts_dispatch(const lors_ctx *server) {
  return _lors_valid(server) && server->lmq.queue == NULL;
}

int lors_dispatch_msg(lors_ctx *server, loreg_msg *msg, const lmq_rx_info *info) {
  if (msg == NULL || info == NULL || !_lors_accepts_dispatch(server)) {
    return LOREG_ERR_DISPATCH_REFUSED;
  }
  _cspOsalTime_struct next = CSP_OSAL_TIME_NEG_INFINITY;
  return lors_task_dispatch_msg(server, msg, info, &next);
}

void lors_dispatch_sysmsg(lors_ctx *server, uint32_t type, uint32_t subtype) {
  if (!_lors_accepts_dispatch(server)) return;
  _cspOsalTime_struct next = CSP_OSAL_TIME_NEG_INFINITY;
  lors_task_dispatch_sysmsg(server, type, subtype, &next);
}

void *lors_task_main(void *arg) {
  lors_ctx *server = arg;
  /* The loop's receive buffer lives on this thread's stack. */
  union {
    unsigned char bytes[LORS_MSG_BUFFER_SIZE];
    uint64_t align;
  } buffer;
  loreg_loop loop;

  LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_SERVER, "%s:%d:%s():  LOREG server task thread spawned ...\n",
            loreg_basename(__FILE__), __LINE__, __func__);
  memset(&loop, 0, sizeof(loop));
  loop.lmq = &server->lmq;
  loop.on_msg = lors_task_dispatch_msg;
  loop.on_sysmsg = lors_task_dispatch_sysmsg;
  loop.on_timeout = lors_task_dispatch_timeout;
  loop.next.sec = 0;
  loop.next.usec = 0;
  loop.stop = &server->stop;
  loop.user = server;
  (void)loreg_msgloop(&loop, buffer.bytes);
  LOREG_LOG(LOREG_LVL_DETAIL, LOREG_MOD_SERVER, "%s:%d:%s():  LOREG server task ends.\n",
            loreg_basename(__FILE__), __LINE__, __func__);
  return NULL;
}

/* Requests of no known type are logged and dropped without a reply. */
static void _lors_onUnknownReq(const loreg_msg *msg) {
  LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER,
            "%s( msgtype=0x%04x, reqid=%d, tid=%d, len0=%d, len1=%d ) \n", "lors_onUnknownReq",
            (unsigned)msg->header.msgtype, (int)msg->header.reqid, (int)msg->header.tid,
            (int)msg->header.len0, (int)msg->header.len1);
}

/* The loop's handlers don't look at magic: shutdown clears it before the
 * loop has served the stop signal, which must still get through. */
int lors_task_dispatch_msg(void *user, loreg_msg *msg, const lmq_rx_info *info,
                           _cspOsalTime_struct *next) {
  lors_ctx *server = user;
  int rc;

  if (server == NULL || msg == NULL || info == NULL || next == NULL) return -22;
  rc = lors_task_handle_request(server, msg, info);
  lors_timer_process(server, next);
  return rc;
}

int lors_task_handle_request(lors_ctx *server, loreg_msg *msg, const lmq_rx_info *info) {
  int rc = 0;

  switch (msg->header.msgtype) {
    case LOREG_MSG_VALUE_QUERY:
      lors_onValueQuery(server, msg, info);
      break;
    case LOREG_MSG_VALUE_SET:
      lors_onValueSet(server, msg, info);
      break;
    case LOREG_MSG_KEY_DELETE:
      lors_onKeyDelete(server, msg, info);
      break;
    case LOREG_MSG_KEY_COUNT:
      lors_onKeyCount(server, msg, info);
      break;
    case LOREG_MSG_KEY_QUERY:
      lors_onKeyQuery(server, msg, info);
      break;
    case LOREG_MSG_TA_START:
    case LOREG_MSG_TA_START_TIMED:
      lors_tas_onStart(server, msg, info);
      break;
    case LOREG_MSG_TA_END:
      lors_tas_onEnd(server, msg, info);
      break;
    case LOREG_MSG_REPO_STORE:
      lors_onRepositoryStore(server, msg, info);
      break;
    case LOREG_MSG_REPO_RELOAD:
      lors_onRepositoryReload(server, msg, info);
      break;
    case LOREG_MSG_STOP:
      lors_onStopSignal(server, msg, info);
      break;
    case LOREG_MSG_ECHO:
      lors_onEcho(server, msg, info);
      break;
    case LOREG_MSG_TID_ACQUIRE:
      lors_tas_onAcquire(server, msg, info);
      break;
    case LOREG_MSG_TID_RELEASE:
      lors_tas_onRelease(server, msg, info);
      break;
    case LOREG_MSG_KEY_UPDATE_TRIGGER:
      lors_onKeyUpdate(server, msg, info);
      break;
    case LOREG_MSG_ROOT_KEY_QUERY:
      lors_onRootKeyQuery(server, msg, info);
      break;
    default:
      /* Replies and notifications are for clients; the loop reports them. */
      if (msg->header.msgtype & LOREG_MSG_CLASS_MASK) {
        rc = LOREG_ERR_WRONG_SIDE;
      } else {
        _lors_onUnknownReq(msg);
      }
      break;
  }
  return rc;
}

void lors_task_dispatch_sysmsg(void *user, uint32_t type, uint32_t subtype,
                               _cspOsalTime_struct *next) {
  lors_ctx *server = user;
  if (server == NULL || next == NULL) return;

  /* A new subscriber learns of the server at once; the repeating root key
   * broadcast then reaches those that missed this one. */
  if (type == LORS_SYSMSG_SUBSCRIBER && subtype == LORS_SYSMSG_SUBSCRIBER_SUBTYPE) {
    lors_sendRootKey(server, LOREG_REASON_KEY_UPDATE, NULL);
    if (server->root_timer <= 0) {
      const _cspOsalTime_struct first = {LORS_ROOT_TIMER_FIRST_SEC, 0};
      const _cspOsalTime_struct period = {LORS_ROOT_TIMER_PERIOD_SEC, 0};
      (void)lors_timer_set(server, &server->root_timer, &first, &period);
    }
  }
  lors_timer_process(server, next);
}

void lors_task_dispatch_timeout(void *user, _cspOsalTime_struct *next) {
  lors_ctx *server = user;
  if (server == NULL || next == NULL) return;
  lors_timer_process(server, next);
}

int lors_rootkey_alloc(lors_ctx *server, const lstr *value) {
  lstr name;
  lstr_cinit(&name, "/");
  lors_rp_node *node = lors_rp_new(server->allocator, &name, value);
  if (node == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER, "%s() failed to alloc root key node\n", __func__);
    return -12;
  }
  node->flags |= KEYF_ROOT;
  server->root = node;
  return 0;
}

int lors_path_check(const lors_ctx *server, const loreg_msg *msg, int loose, lstr *relative) {
  uint32_t len1 = msg->header.len1;
  uint32_t root_len = (uint32_t)server->root_path_len;
  uint32_t compared;

  if (loose) {
    /* An ancestor of the root, with its trailing "/", names the root. */
    if (len1 == 0) return -1;
    compared = len1 < root_len ? len1 - 1 : root_len;
  } else {
    if (len1 <= root_len) return -1;
    compared = root_len;
  }
  if (compared > 0 && memcmp(msg->data1, server->root_path_text, compared) != 0) return -1;
  if (msg->data1[compared] != '/') return -1;

  /* The relative path is a text: it ends at the first zero byte, and at
   * the latest at the end of data1. */
  relative->ptr = msg->data1 + compared;
  relative->len = (uint32_t)strnlen(relative->ptr, (size_t)(len1 - compared));
  return 0;
}

int lors_find_key(lors_ctx *server, const lstr *relative, uint32_t mode, const lstr *value,
                  int32_t tid, lors_rp_path_res *res, lors_tas **tas) {
  lors_rp_path_req req;
  int rc;

  req.allocator = server->allocator;
  req.root = server->root;
  req.path = *relative;
  req.mode = mode;
  req.value = value;
  req.tid = tid;
  *tas = NULL;
  rc = lors_rp_PathFind(&req, res);
  if (rc != 0) return rc;

  /* Outside any lock a transaction id is good only if it was acquired. */
  if (res->owner != NULL) {
    *tas = res->owner;
  } else if (tid >= 1) {
    *tas = lors_tas_findAcquired(server, tid);
    if (*tas == NULL) {
      res->result = -13;
      return -13;
    }
  }
  return 0;
}
