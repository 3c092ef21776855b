#include "loreg/loreg_lmq.h"

#include <string.h>

#include "common/loreg_debug.h"

/* Any lmq failure reaches the caller as this code; the log line keeps the
 * library's own code. */
#define _LOREG_LMQ_FAILED (-14)

/* Allocates the receive queue and the client block, and makes them a
 * client attached to the server. */
static int _loreg_lmq_own_client(loreg_lmq_ctx *lmq, const loreg_allocator *allocator,
                                 uint32_t queue_kib) {
  int rc;

  lmq->queue_size = queue_kib == 0 ? LOREG_LMQ_DEFAULT_QUEUE_SIZE : queue_kib * 1024u;
  lmq->queue = loreg_malloc(allocator, lmq->queue_size);
  if (lmq->queue == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_MSG, "%s() failed to alloc %u bytes rcv-queue\n",
              "loreg_lmq_init", (unsigned)lmq->queue_size);
    lmq->queue_size = 0;
    return -12;
  }

  lmq->client = (lmq_client *)loreg_malloc(allocator, sizeof(lmq_client));
  if (lmq->client == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_MSG, "%s() failed to alloc %lu bytes lmq client\n",
              "loreg_lmq_init", (unsigned long)sizeof(lmq_client));
    return -12;
  }
  memset(lmq->client, 0, sizeof(lmq_client));
  lmq->stages |= LOREG_LMQ_STAGE_CLIENT_ALLOC;

  rc = lmqClientInit(lmq->client, lmq->queue, lmq->queue_size);
  if (rc != 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_MSG, "%s(): lmqClientInit failed (code %d)\n",
              "loreg_lmq_init", rc);
    return _LOREG_LMQ_FAILED;
  }
  lmq->stages |= LOREG_LMQ_STAGE_CLIENT_INIT;

  rc = lmqServerAddClient(lmq->server, lmq->client);
  if (rc != 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_MSG, "%s(): lmqServerAddClient failed (code %d)\n",
              "loreg_lmq_init", rc);
    return _LOREG_LMQ_FAILED;
  }
  lmq->stages |= LOREG_LMQ_STAGE_SERVER_ADD;
  return 0;
}

/* Registers the service name and hosts or subscribes to it. */
static int _loreg_lmq_join_service(loreg_lmq_ctx *lmq, int host) {
  int rc;

  rc = lmqRegisterPlainId(lmq->server, LOREG_LMQ_SERVICE_NAME, sizeof(LOREG_LMQ_SERVICE_NAME),
                          &lmq->service_id);
  if (rc != 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_MSG, "%s(): lmqRegisterPlainId(%s) failed (code %d)\n",
              "loreg_lmq_init", LOREG_LMQ_SERVICE_NAME, rc);
    return _LOREG_LMQ_FAILED;
  }
  lmq->stages |= LOREG_LMQ_STAGE_REGISTERED;

  if (host) {
    rc = lmqHostService(lmq->client, lmq->service_id, 0);
    if (rc != 0) {
      LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_MSG, "%s(): lmqHostService(%s) failed (code %d)\n",
                "loreg_lmq_init", LOREG_LMQ_SERVICE_NAME, rc);
      return _LOREG_LMQ_FAILED;
    }
    lmq->stages |= LOREG_LMQ_STAGE_HOSTING;
  } else {
    rc = lmqSubscribeService(lmq->client, lmq->service_id, 0);
    if (rc != 0) {
      LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_MSG, "%s(): lmqSubscribe(%s) failed (code %d)\n",
                "loreg_lmq_init", LOREG_LMQ_SERVICE_NAME, rc);
      return _LOREG_LMQ_FAILED;
    }
    lmq->stages |= LOREG_LMQ_STAGE_SUBSCRIBED;
  }
  return 0;
}

int loreg_lmq_init(loreg_lmq_ctx *lmq, const loreg_allocator *allocator, lmq_server *server,
                   lmq_client *client, uint32_t queue_kib, int host) {
  int rc;

  if (lmq == NULL) return -22;
  memset(lmq, 0, sizeof(*lmq));
  if (server == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_MSG, "%s() no lmq server given!\n", __func__);
    return -22;
  }
  lmq->server = server;

  if (client != NULL) {
    /* The caller's client: no stage bit, no queue, never released here. */
    lmq->client = client;
    rc = 0;
  } else {
    rc = _loreg_lmq_own_client(lmq, allocator, queue_kib);
  }
  if (rc == 0) rc = _loreg_lmq_join_service(lmq, host);
  if (rc != 0) loreg_lmq_shutdown(lmq, allocator);
  return rc;
}

void loreg_lmq_shutdown(loreg_lmq_ctx *lmq, const loreg_allocator *allocator) {
  if (lmq == NULL) return;
  if (lmq->stages & LOREG_LMQ_STAGE_HOSTING) lmqUnHostService(lmq->client, lmq->service_id);
  if (lmq->stages & LOREG_LMQ_STAGE_SUBSCRIBED) lmqUnSubscribeService(lmq->client, lmq->service_id);
  if (lmq->stages & LOREG_LMQ_STAGE_REGISTERED) lmqUnRegisterPlainId(lmq->server, lmq->service_id);
  if (lmq->stages & LOREG_LMQ_STAGE_SERVER_ADD) lmqServerRemoveClient(lmq->server, lmq->client);
  if (lmq->stages & LOREG_LMQ_STAGE_CLIENT_INIT) lmqClientRelease(lmq->client);
  if (lmq->stages & LOREG_LMQ_STAGE_CLIENT_ALLOC) loreg_free(allocator, lmq->client);
  if (lmq->queue != NULL) loreg_free(allocator, lmq->queue);
  memset(lmq, 0, sizeof(*lmq));
}
