#include "loreg/loreg_msgloop.h"

#include <stddef.h>

#include "common/loreg_debug.h"

static int _loreg_loop_stopped(const loreg_loop *loop) {
  return __atomic_load_n(loop->stop, __ATOMIC_ACQUIRE) != 0;
}

/* A positive next bounds the following wait; zero or a negative time
 * means no timeout at all. Handlers that find a timer already due get a
 * small positive time from _cspOsalPlatform_Common_RelativeTimeout, so a
 * due timer never turns into an endless wait. */
static int _loreg_loop_next_is_timeout(const _cspOsalTime_struct *next) {
  return next->sec >= 1 || (next->sec == 0 && next->usec > 0);
}

/* Called by lmqCXHandleSystemMessage: only system messages of the owner's
 * service reach the owner. */
static void _loreg_loop_sysmsg_cb(void *context, uint32_t type, uint32_t subtype,
                                  int16_t service_id) {
  loreg_loop *loop = (loreg_loop *)context;

  if (service_id != loop->lmq->service_id) return;
  loop->next = CSP_OSAL_TIME_NEG_INFINITY;
  if (loop->on_sysmsg != NULL) loop->on_sysmsg(loop->user, type, subtype, &loop->next);
}

/* Hands one application message to the owner, or drops it with a line. */
static void _loreg_loop_app_msg(loreg_loop *loop, void *buffer, const lmq_rx_info *info) {
  loreg_msg msg;
  int rc;

  if (info->reply.service_id != loop->lmq->service_id && info->reply.service_id != -1) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_MSG, "%s(): wrong service id - message ignored\n",
              "loreg_msgloop");
    return;
  }
  rc = loreg_validate_msg(&msg, buffer, LOREG_MSGLOOP_BUFFER_SIZE, info);
  if (rc != 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_MSG, "%s(): invalid message - ignored. (lmq code %d)\n",
              "loreg_msgloop", rc);
    return;
  }
  loop->next = CSP_OSAL_TIME_NEG_INFINITY;
  rc = loop->on_msg(loop->user, &msg, info, &loop->next);
  if (rc != 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_MSG, "%s(): unexpected msgtype (0x%04x) - message ignored\n",
              "loreg_msgloop", (unsigned)msg.header.msgtype);
  }
}

int loreg_msgloop(loreg_loop *loop, void *buffer) {
  lmq_iovec vector;
  lmq_rx_info info;
  _cspOsalTime_struct wait;
  const _cspOsalTime_struct *timeout = NULL;
  lmq_sysmsg_pair pair;
  int rc;

  if (loop == NULL || buffer == NULL || loop->lmq == NULL || loop->lmq->client == NULL ||
      loop->on_msg == NULL || loop->stop == NULL) {
    return -22;
  }
  pair.context = loop;
  pair.callback = _loreg_loop_sysmsg_cb;
  vector.base = buffer;
  vector.len = LOREG_MSGLOOP_BUFFER_SIZE - 1;

  while (!_loreg_loop_stopped(loop)) {
    rc = lmqCXReceive(loop->lmq->client, &vector, 1, &info, timeout);
    if (rc == LMQ_TIMEOUT) {
      /* Also without a timeout: an idle handler served a message for the
       * loop and asks it to look at its timers. */
      loop->next = CSP_OSAL_TIME_NEG_INFINITY;
      if (loop->on_timeout != NULL) loop->on_timeout(loop->user, &loop->next);
    } else if (rc < 0) {
      LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_MSG, "%s(): lmqCXReceive failed with %d\n", __func__, rc);
    } else if (info.reply.kind == LMQ_KIND_SYSTEM) {
      lmqCXHandleSystemMessage(loop->lmq->server, loop->lmq->client, &pair, &info, &vector, 1);
    } else {
      _loreg_loop_app_msg(loop, buffer, &info);
    }

    if (_loreg_loop_next_is_timeout(&loop->next)) {
      wait = loop->next;
      timeout = &wait;
    } else {
      timeout = NULL;
    }
  }
  return 0;
}
