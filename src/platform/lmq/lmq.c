/*
 * lmq: the message server.
 *
 * A server keeps two hash tables: its attached clients by client number
 * and its services by id, each service with a list of hosts and a list of
 * subscribers. Every client keeps its receive queue (lmq_queue.c) in the
 * memory its creator gave, guarded by a mutex of its own, and a condition
 * on which its single receiving thread waits.
 *
 * Locking. server->mutex guards the server's tables and the attachment of
 * its clients (their number and server fields change only with it held).
 * client->mutex guards that client's queue, its waiting flag and its
 * wake-up counter. Lock order: server->bus_mutex (registration and the
 * bus calls only), then server mutex, then one client mutex; a thread
 * never holds two client mutexes, and never takes the server mutex while
 * holding a client mutex. The bus adds its own locks below the server
 * mutex (lmq_bus.c).
 *
 * Every delivery to another client happens with the server mutex held:
 * a client can only be released after lmqServerRemoveClient, which needs
 * that mutex, so the receiver's mutex and condition stay valid until the
 * sender lets go, also while it signals after unlocking the receiver.
 *
 * Idle offers. A reply (or, if the receiver asked for them, a
 * notification) for a receiver that waits with nothing queued may be
 * held back for the receiver's idle handler: it is queued, marked
 * as offered (the receiver takes nothing while the mark stands), copied,
 * and after the sender has let go of the server mutex handed to the
 * handler (lmq_offer_run). Running the handler without lmq's mutexes keeps
 * its own locks out of lmq's lock order. Removing and releasing a client
 * wait for the mark to go, so the receiver stays valid meanwhile.
 *
 * The uptime listener is called by csp, possibly with a lock of csp held,
 * and takes the server mutex and the client mutexes. So lmq never calls
 * into csp's clock or listener table while holding one of its mutexes:
 * lmqServerDestroy removes the listener before locking, and a receiver
 * reads the uptime with its client mutex released.
 *
 * Addresses carry no pointers: a node number (one per server), a client
 * number (per server, never reused) and a service id, so that a reply
 * address may be kept and used later, or travel to another process.
 *
 * The bus. A server may join message servers of other processes over a
 * Unix socket (lmq_bus.c). Without a bus nothing of it runs: the send
 * paths only test the counts of a service's remote members, which stay 0,
 * and the address's node. With one, routing hands what concerns other
 * nodes to the bus, under the same server mutex, so that local and
 * remote deliveries of one send are ordered alike for every sender.
 */
#include "platform/lmq.h"

#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "lmq/lmq_bus.h"
#include "lmq/lmq_bytes.h"
#include "lmq/lmq_debug.h"
#include "lmq/lmq_internal.h"
#include "lmq/lmq_queue.h"

#define LMQ_CLIENT_MAGIC 0x4C4D5143u /* "LMQC" */

#define LMQ_MIN_QUEUE_SIZE 64u
#define LMQ_SERVICE_ID_MAX 0x7FFF

#define LMQ_SYSMSG_PROTOCOL 0x82u
#define LMQ_HEADER_WORDS 7u

/* A waiting receiver looks at the uptime clock at least this often (real
 * seconds), and timeouts are cut to this many seconds so that adding them
 * to the clock cannot overflow. */
#define LMQ_WAIT_SLICE_SEC 3600
#define LMQ_TIMEOUT_MAX_SEC 1000000000000LL

_Static_assert(sizeof(_lmq_client_rec) <= LMQ_CLIENT_BYTES, "client record exceeds lmq_client");
_Static_assert(_Alignof(_lmq_client_rec) <= _Alignof(lmq_client),
               "client record needs more alignment than lmq_client gives");
_Static_assert(sizeof(lmq_address) == 20, "reply address must be 20 bytes");
_Static_assert(sizeof(lmq_rx_info) == 32, "rx info must be 8 words");
_Static_assert(sizeof(lmq_msg_header) == LMQ_HEADER_SIZE, "header must be 28 bytes");
_Static_assert(LMQ_QUEUE_RECORD_SIZE == LMQ_QUEUE_ENTRY_OVERHEAD, "queue entry record size");

/*
 * Node numbers tell message servers apart, also those of different
 * processes on one bus: the process id in the high 22 bits (Linux pids
 * stay below 2^22) and a count of the process's servers in the low 10.
 * Each process can thus number its servers alone, before it ever meets a
 * bus, and every address handed out stays valid when it connects. The
 * count wraps after 1023 servers of one process; two servers of a bus
 * that still collide (or a pid reused while its old node is still known)
 * are caught by the hub, which refuses the second.
 */
#define LMQ_NODE_COUNT_BITS 10u
#define LMQ_NODE_COUNT_MASK ((1u << LMQ_NODE_COUNT_BITS) - 1u)
#define LMQ_NODE_PID_MASK 0x3FFFFFu
static uint32_t g_lmq_last_node;

/* --- Small helpers --------------------------------------------------- */

static _lmq_client_rec *_lmq_rec(const lmq_client *client) {
  _lmq_client_rec *rec;

  if (client == NULL) return NULL;
  rec = (_lmq_client_rec *)(void *)client->u.bytes;
  return rec->magic == LMQ_CLIENT_MAGIC ? rec : NULL;
}

static int _lmq_server_valid(const lmq_server *server) {
  return server != NULL && server->magic == LMQ_SERVER_MAGIC;
}

static lmq_server *_lmq_attached_server(const _lmq_client_rec *rec) {
  return __atomic_load_n(&rec->server, __ATOMIC_ACQUIRE);
}

static uint32_t _lmq_number(const _lmq_client_rec *rec) {
  return __atomic_load_n(&rec->number, __ATOMIC_RELAXED);
}

static void _lmq_make_address(lmq_address *address, uint32_t node, uint32_t client,
                              int16_t service_id, uint8_t kind, uint32_t sequence) {
  memset(address, 0, sizeof(*address));
  address->node = node;
  address->client = client;
  address->service_id = service_id;
  address->kind = kind;
  address->sequence = sequence;
}

static uint32_t _lmq_next_sequence(_lmq_client_rec *rec) {
  return __atomic_add_fetch(&rec->sequence, 1u, __ATOMIC_RELAXED);
}

/* The send of sequence went to other nodes only: its answer, if any, can
 * only come over the bus (see lmqClientLeadBus). */
static void _lmq_sent_remote(_lmq_client_rec *rec, uint32_t sequence) {
  __atomic_store_n(&rec->remote_sequence, sequence, __ATOMIC_RELAXED);
}

static uint32_t _lmq_new_node(void) {
  uint32_t count;

  do {
    count = __atomic_add_fetch(&g_lmq_last_node, 1u, __ATOMIC_RELAXED) & LMQ_NODE_COUNT_MASK;
  } while (count == 0);
  return (((uint32_t)getpid() & LMQ_NODE_PID_MASK) << LMQ_NODE_COUNT_BITS) | count;
}

/* --- Member lists ---------------------------------------------------- */

int lmq_members_find(const _lmq_members *members, const _lmq_client_rec *rec) {
  uint32_t i;

  for (i = 0; i < members->count; i++) {
    if (members->items[i] == rec) return (int)i;
  }
  return -1;
}

static int _lmq_members_add(_lmq_members *members, _lmq_client_rec *rec) {
  if (members->count == members->capacity) {
    uint32_t capacity = members->capacity ? members->capacity * 2u : 4u;
    _lmq_client_rec **items = realloc(members->items, capacity * sizeof(*items));
    if (items == NULL) return -ENOMEM;
    members->items = items;
    members->capacity = capacity;
  }
  members->items[members->count++] = rec;
  return 0;
}

void lmq_members_free(_lmq_members *members) {
  free(members->items);
  members->items = NULL;
  members->count = 0;
  members->capacity = 0;
}

/* Removes the client from the list; the order of the others is kept. An
 * emptied list gives its memory back. Returns 0, or -2 if absent. */
static int _lmq_members_remove(_lmq_members *members, const _lmq_client_rec *rec) {
  int index = lmq_members_find(members, rec);

  if (index < 0) return -ENOENT;
  memmove(&members->items[index], &members->items[index + 1],
          (members->count - (uint32_t)index - 1u) * sizeof(members->items[0]));
  members->count--;
  if (members->count == 0) lmq_members_free(members);
  return 0;
}

/* --- Tables ---------------------------------------------------------- */

static _lmq_service **_lmq_service_bucket(lmq_server *server, int16_t id) {
  return &server->services[(uint16_t)id % LMQ_BUCKETS];
}

_lmq_service *lmq_service_lookup_nolock(lmq_server *server, int16_t id) {
  _lmq_service *service;

  for (service = *_lmq_service_bucket(server, id); service != NULL; service = service->next) {
    if (service->id == id) return service;
  }
  return NULL;
}

/* The service as this server's clients see it: registered here. A record
 * that a hub keeps only for its peers is not. */
static _lmq_service *_lmq_service_find_nolock(lmq_server *server, int16_t id) {
  _lmq_service *service = lmq_service_lookup_nolock(server, id);

  return service != NULL && service->refs > 0 ? service : NULL;
}

_lmq_service *lmq_service_find_name_nolock(lmq_server *server, const char *name, size_t len) {
  uint32_t b;
  _lmq_service *service;

  for (b = 0; b < LMQ_BUCKETS; b++) {
    for (service = server->services[b]; service != NULL; service = service->next) {
      if (strlen(service->name) == len && memcmp(service->name, name, len) == 0) return service;
    }
  }
  return NULL;
}

void lmq_service_delete_nolock(lmq_server *server, _lmq_service *service) {
  _lmq_service **link = _lmq_service_bucket(server, service->id);

  while (*link != service) link = &(*link)->next;
  *link = service->next;
  server->service_count--;
  lmq_members_free(&service->hosts);
  lmq_members_free(&service->subscribers);
  lmq_bus_service_free(&service->bus);
  free(service);
}

/* Gives the next free service id after the last one given, wrapping
 * within 1..0x7FFF, so that an id is not soon given again. */
static int16_t _lmq_service_new_id_nolock(lmq_server *server) {
  int16_t id = server->last_service;

  do {
    id = id >= LMQ_SERVICE_ID_MAX ? 1 : (int16_t)(id + 1);
  } while (lmq_service_lookup_nolock(server, id) != NULL);
  server->last_service = id;
  return id;
}

_lmq_service *lmq_service_create_nolock(lmq_server *server, const char *name, size_t len,
                                        int16_t id) {
  _lmq_service *service;
  _lmq_service **bucket;

  if (server->service_count >= LMQ_SERVICE_ID_MAX) return NULL;
  service = calloc(1, sizeof(*service));
  if (service == NULL) return NULL;
  memcpy(service->name, name, len);
  service->id = id != 0 ? id : _lmq_service_new_id_nolock(server);
  bucket = _lmq_service_bucket(server, service->id);
  service->next = *bucket;
  *bucket = service;
  server->service_count++;
  return service;
}

static _lmq_client_rec **_lmq_client_bucket(lmq_server *server, uint32_t number) {
  return &server->clients[number % LMQ_BUCKETS];
}

_lmq_client_rec *lmq_client_find_nolock(lmq_server *server, uint32_t number) {
  _lmq_client_rec *rec;

  if (number == 0) return NULL;
  for (rec = *_lmq_client_bucket(server, number); rec != NULL; rec = rec->next) {
    if (rec->number == number) return rec;
  }
  return NULL;
}

/* Ends the client's hosting and subscriptions, takes it out of the client
 * table and clears its attachment. Its queue keeps what it holds. */
static void _lmq_client_detach_nolock(lmq_server *server, _lmq_client_rec *rec) {
  _lmq_client_rec **link = _lmq_client_bucket(server, rec->number);
  uint32_t b;
  _lmq_service *service;

  for (b = 0; b < LMQ_BUCKETS; b++) {
    for (service = server->services[b]; service != NULL; service = service->next) {
      (void)_lmq_members_remove(&service->hosts, rec);
      (void)_lmq_members_remove(&service->subscribers, rec);
    }
  }
  while (*link != rec) link = &(*link)->next;
  *link = rec->next;
  rec->next = NULL;
  __atomic_store_n(&rec->number, 0u, __ATOMIC_RELAXED);
  __atomic_store_n(&rec->server, NULL, __ATOMIC_RELEASE);
}

/* --- Delivery -------------------------------------------------------- */

/* The LMQ_IDLE_* kind of a message, 0 for kinds never offered. */
static uint32_t _lmq_idle_kind(uint8_t kind) {
  if (kind == LMQ_KIND_REPLY) return LMQ_IDLE_REPLIES;
  if (kind == LMQ_KIND_NOTIFY) return LMQ_IDLE_NOTIFICATIONS;
  return 0;
}

/* Whether the message just queued, the only one, goes to the target's
 * idle handler first: a message of a kind the handler takes and of
 * offerable size, for a receiver that waits in lmqCXReceive, while the
 * deliverer's offer is free. Client mutex held. */
static int _lmq_offerable_nolock(const _lmq_client_rec *target, const lmq_address *reply,
                                 uint32_t size, const lmq_offer *offer) {
  return offer->target == NULL && target->idle_reply != NULL &&
         (target->idle_kinds & _lmq_idle_kind(reply->kind)) != 0 && target->waiting &&
         !target->offering && target->queue.entries == 1 && size <= LMQ_IDLE_REPLY_MAX;
}

/* Holds the queued reply back for the handler: the receiver does not see
 * the queue until lmq_offer_run. Client mutex held. */
static void _lmq_offer_hold_nolock(lmq_offer *offer, _lmq_client_rec *target,
                                   const lmq_address *reply, const lmq_iovec *vector,
                                   uint32_t count, uint32_t size) {
  uint32_t at = 0;
  uint32_t i;

  for (i = 0; i < count; i++) {
    if (vector[i].len == 0) continue;
    memcpy(offer->bytes + at, vector[i].base, vector[i].len);
    at += vector[i].len;
  }
  offer->bytes[size] = 0;
  offer->target = target;
  offer->handler = target->idle_reply;
  offer->context = target->idle_reply_context;
  offer->from = *reply;
  offer->size = size;
  target->offering = 1;
}

/* One more message stays in the queue for the receiver to take. */
static void _lmq_kept_nolock(_lmq_client_rec *target) {
  __atomic_store_n(&target->kept, target->kept + 1u, __ATOMIC_RELAXED);
}

/*
 * Queues one message of size bytes for target and wakes its receiver if
 * it waits. The condition is signalled after the target's mutex is
 * released, so the woken receiver does not block on it at once; this is
 * safe because the caller holds the server mutex (see the top of this
 * file), or, with signal_locked, is done under the target's mutex for a
 * client that need not be attached. A reply for an idle receiver with an
 * idle reply handler is held back in *offer instead, if offer is given.
 * Returns 0, -90 or -105.
 */
int lmq_deliver(_lmq_client_rec *target, const lmq_address *reply, const lmq_iovec *vector,
                uint32_t count, uint32_t size, int signal_locked, lmq_offer *offer) {
  int rc;
  int wake;

  pthread_mutex_lock(&target->mutex);
  rc = lmq_queue_put(&target->queue, reply, vector, count, size);
  wake = rc == 0 && target->waiting;
  if (wake && offer != NULL && _lmq_offerable_nolock(target, reply, size, offer)) {
    _lmq_offer_hold_nolock(offer, target, reply, vector, count, size);
    wake = 0;
  } else if (rc == 0) {
    _lmq_kept_nolock(target);
  }
  if (wake && signal_locked) pthread_cond_signal(&target->cond);
  pthread_mutex_unlock(&target->mutex);
  if (wake && !signal_locked) pthread_cond_signal(&target->cond);
  return rc;
}

/*
 * The held-back reply is still the head of the queue: the receiver takes
 * nothing while offering is set. Once the handler has answered, the reply
 * leaves the queue or stays for the receiver, and a receiver with
 * messages to take, or a thread waiting for the offer's end, is woken.
 * The target stays valid meanwhile: its removal and release wait for
 * offering to clear.
 */
void lmq_offer_run(lmq_offer *offer) {
  _lmq_client_rec *target = offer->target;
  int answer;

  if (target == NULL) return;
  offer->target = NULL;
  answer = offer->handler(offer->context, offer->bytes, offer->size,
                          (uint32_t)sizeof(offer->bytes), &offer->from);
  pthread_mutex_lock(&target->mutex);
  if (answer == 1 || answer == 2) {
    lmq_queue_drop(&target->queue, offer->size);
  } else {
    _lmq_kept_nolock(target);
  }
  if (answer == 2) target->kick = 1;
  target->offering = 0;
  if (target->offer_waiters > 0 ||
      (target->waiting && (target->queue.entries > 0 || target->kick))) {
    pthread_cond_broadcast(&target->cond);
  }
  pthread_mutex_unlock(&target->mutex);
}

/* Waits until no offer runs for the client. Called once the client is
 * detached, so that no new offer can start. */
static void _lmq_offer_wait_end(_lmq_client_rec *rec) {
  pthread_mutex_lock(&rec->mutex);
  while (rec->offering) {
    rec->offer_waiters++;
    pthread_cond_wait(&rec->cond, &rec->mutex);
    rec->offer_waiters--;
  }
  pthread_mutex_unlock(&rec->mutex);
}

/* Queues a system message for target about the other client of a new
 * host-subscriber pair, the client peer_client of node peer_node. A queue
 * without room drops it, which is logged: it never makes the caller's
 * operation fail. */
void lmq_send_sysmsg_nolock(_lmq_client_rec *target, uint32_t peer_node, uint32_t peer_client,
                            uint32_t type, int16_t service_id, const char *caller) {
  unsigned char bytes[LMQ_SYSMSG_SIZE];
  lmq_msg_header header;
  lmq_address reply;
  lmq_iovec entry;
  int rc;

  memset(&header, 0, sizeof(header));
  header.protocol = LMQ_SYSMSG_PROTOCOL;
  header.words = LMQ_HEADER_WORDS;
  header.type = type;
  header.subtype = LMQ_SYSMSG_SUBTYPE_PRESENT;
  header.size = LMQ_SYSMSG_SIZE;
  header.size2 = LMQ_SYSMSG_SIZE;
  (void)lmqMessageHeaderToProtocol(bytes, &header);
  lmq_put_be16(bytes + LMQ_HEADER_SIZE, (uint16_t)service_id);

  _lmq_make_address(&reply, peer_node, peer_client, service_id, LMQ_KIND_SYSTEM, 0);
  entry.base = bytes;
  entry.len = LMQ_SYSMSG_SIZE;
  rc = lmq_deliver(target, &reply, &entry, 1, LMQ_SYSMSG_SIZE, 0, NULL);
  if (rc < 0) {
    LMQ_LOG(LMQ_LVL_FAIL,
            "%s(): system message 0x%08x for service %d dropped, client %u cannot take it "
            "(code %d)\n",
            caller, (unsigned)type, (int)service_id, (unsigned)target->number, rc);
  }
}

/* Checks a send's flags and vector and sums its lengths into *size.
 * Returns 0, -22 (bad argument or empty message) or -90. */
static int _lmq_gather_size(const lmq_iovec *vector, uint32_t count, uint32_t flags,
                            uint32_t *size) {
  uint64_t total = 0;
  uint32_t i;

  if (flags != 0 || count == 0 || vector == NULL) return -EINVAL;
  for (i = 0; i < count; i++) {
    if (vector[i].len > 0 && vector[i].base == NULL) return -EINVAL;
    total += vector[i].len;
  }
  if (total == 0) return -EINVAL;
  if (total > LMQ_MAX_MESSAGE_SIZE) return -EMSGSIZE;
  *size = (uint32_t)total;
  return 0;
}

/* Finds the sender's record and locks the server it is attached to.
 * Returns 0 with the server mutex held, -22 or -2 (not attached). */
static int _lmq_sender_lock(lmq_client *client, _lmq_client_rec **rec_out,
                            lmq_server **server_out) {
  _lmq_client_rec *rec = _lmq_rec(client);
  lmq_server *server;

  if (rec == NULL) return -EINVAL;
  server = _lmq_attached_server(rec);
  if (server == NULL) return -ENOENT;
  pthread_mutex_lock(&server->mutex);
  if (rec->server != server) {
    pthread_mutex_unlock(&server->mutex);
    return -ENOENT;
  }
  *rec_out = rec;
  *server_out = server;
  return 0;
}

/* Sends one message to every member of a list. The first failure is
 * returned; the other members still get the message. The first member
 * whose idle handler takes it gets it through *offer. */
static int _lmq_deliver_all_nolock(const _lmq_members *members, const lmq_address *reply,
                                   const lmq_iovec *vector, uint32_t count, uint32_t size,
                                   lmq_offer *offer) {
  int first = 0;
  uint32_t i;

  for (i = 0; i < members->count; i++) {
    int rc = lmq_deliver(members->items[i], reply, vector, count, size, 0, offer);
    if (rc < 0 && first == 0) first = rc;
  }
  return first;
}

/* Sends to the hosts (command) or the subscribers (notification) of a
 * service: the one routine behind lmqCXSendCommand and lmqCXNotify. */
static int _lmq_send_to_service(lmq_client *client, int16_t service_id, const lmq_iovec *vector,
                                uint32_t count, uint32_t flags, uint8_t kind) {
  _lmq_client_rec *rec;
  lmq_server *server;
  _lmq_service *service;
  const _lmq_members *members;
  const lmq_bus_members *remote;
  lmq_address reply;
  lmq_offer offer;
  uint32_t size;
  int rc;

  offer.target = NULL;
  rc = _lmq_gather_size(vector, count, flags, &size);
  if (rc < 0) return rc;
  rc = _lmq_sender_lock(client, &rec, &server);
  if (rc < 0) return rc;

  service = _lmq_service_find_nolock(server, service_id);
  if (service == NULL) {
    rc = -ENOENT;
  } else {
    members = kind == LMQ_KIND_COMMAND ? &service->hosts : &service->subscribers;
    remote = kind == LMQ_KIND_COMMAND ? &service->bus.hosts : &service->bus.subscribers;
    if (kind == LMQ_KIND_COMMAND && members->count == 0 && remote->count == 0) {
      rc = -EHOSTUNREACH;
    } else {
      _lmq_make_address(&reply, server->node, rec->number, service_id, kind,
                        _lmq_next_sequence(rec));
      rc = _lmq_deliver_all_nolock(members, &reply, vector, count, size, &offer);
      if (remote->count > 0) {
        int bus_rc = lmq_bus_send_nolock(server, service, &reply, vector, count, size);
        if (rc == 0) rc = bus_rc;
        if (bus_rc == 0 && members->count == 0) _lmq_sent_remote(rec, reply.sequence);
      }
    }
  }
  pthread_mutex_unlock(&server->mutex);
  lmq_offer_run(&offer);
  return rc;
}

/* --- Uptime listener ------------------------------------------------- */

/* The uptime clock moved: every receiver of this server looks at it again.
 * The wake-up counter tells a receiver that is between reading the clock
 * and waiting that it must read the clock again. */
static void _lmq_uptime_moved(void *context) {
  lmq_server *server = (lmq_server *)context;
  uint32_t b;
  _lmq_client_rec *rec;

  pthread_mutex_lock(&server->mutex);
  for (b = 0; b < LMQ_BUCKETS; b++) {
    for (rec = server->clients[b]; rec != NULL; rec = rec->next) {
      pthread_mutex_lock(&rec->mutex);
      rec->wakeups++;
      if (rec->waiting) pthread_cond_broadcast(&rec->cond);
      pthread_mutex_unlock(&rec->mutex);
    }
  }
  if (server->bus != NULL) lmq_bus_clock_moved_nolock(server);
  pthread_mutex_unlock(&server->mutex);
}

/* --- Server ---------------------------------------------------------- */

int lmqServerCreate(lmq_server **server) {
  lmq_server *created;
  int rc;

  if (server == NULL) return -EINVAL;
  created = calloc(1, sizeof(*created));
  if (created == NULL) return -ENOMEM;
  rc = pthread_mutex_init(&created->mutex, NULL);
  if (rc != 0) {
    free(created);
    return -rc;
  }
  rc = pthread_mutex_init(&created->bus_mutex, NULL);
  if (rc != 0) {
    pthread_mutex_destroy(&created->mutex);
    free(created);
    return -rc;
  }
  created->node = _lmq_new_node();
  created->park_us = LMQ_BUS_PARK_US_DEFAULT;
  created->lead_spin_us = lmq_bus_lead_spin_default();
  created->magic = LMQ_SERVER_MAGIC;
  rc = cspOsalUptimeListenerAdd(_lmq_uptime_moved, created);
  if (rc < 0) {
    LMQ_LOG(LMQ_LVL_FAIL, "%s(): cspOsalUptimeListenerAdd failed (code %d)\n", __func__, rc);
    created->magic = 0;
    pthread_mutex_destroy(&created->bus_mutex);
    pthread_mutex_destroy(&created->mutex);
    free(created);
    return rc;
  }
  *server = created;
  return 0;
}

int lmqServerDestroy(lmq_server *server) {
  uint32_t b;

  if (!_lmq_server_valid(server)) return -EINVAL;
  /* Before locking: csp may run the listener with its own lock held. */
  (void)cspOsalUptimeListenerRemove(_lmq_uptime_moved, server);
  /* The bus thread takes the server mutex: end it before locking. */
  pthread_mutex_lock(&server->bus_mutex);
  (void)lmq_bus_shutdown(server);
  pthread_mutex_unlock(&server->bus_mutex);

  pthread_mutex_lock(&server->mutex);
  server->magic = 0;
  for (b = 0; b < LMQ_BUCKETS; b++) {
    while (server->clients[b] != NULL) _lmq_client_detach_nolock(server, server->clients[b]);
  }
  for (b = 0; b < LMQ_BUCKETS; b++) {
    while (server->services[b] != NULL) lmq_service_delete_nolock(server, server->services[b]);
  }
  pthread_mutex_unlock(&server->mutex);
  pthread_mutex_destroy(&server->bus_mutex);
  pthread_mutex_destroy(&server->mutex);
  free(server);
  return 0;
}

int lmqServerAddClient(lmq_server *server, lmq_client *client) {
  _lmq_client_rec *rec = _lmq_rec(client);
  _lmq_client_rec **bucket;
  uint32_t number;

  if (rec == NULL || !_lmq_server_valid(server)) return -EINVAL;
  pthread_mutex_lock(&server->mutex);
  if (_lmq_attached_server(rec) != NULL) {
    pthread_mutex_unlock(&server->mutex);
    return -EEXIST;
  }
  number = ++server->last_client;
  if (number == 0) number = ++server->last_client;
  bucket = _lmq_client_bucket(server, number);
  rec->next = *bucket;
  *bucket = rec;
  __atomic_store_n(&rec->number, number, __ATOMIC_RELAXED);
  __atomic_store_n(&rec->server, server, __ATOMIC_RELEASE);
  if (server->bus != NULL) lmq_bus_client_added_nolock(server, number);
  pthread_mutex_unlock(&server->mutex);
  return 0;
}

int lmqServerRemoveClient(lmq_server *server, lmq_client *client) {
  _lmq_client_rec *rec = _lmq_rec(client);
  int rc = 0;

  if (rec == NULL || !_lmq_server_valid(server)) return -EINVAL;
  pthread_mutex_lock(&server->mutex);
  if (rec->server != server) {
    rc = -ENOENT;
  } else {
    uint32_t number = rec->number;
    _lmq_client_detach_nolock(server, rec);
    if (server->bus != NULL) lmq_bus_client_removed_nolock(server, number);
  }
  pthread_mutex_unlock(&server->mutex);
  if (rc == 0) _lmq_offer_wait_end(rec);
  return rc;
}

/* --- Services -------------------------------------------------------- */

int lmqRegisterPlainId(lmq_server *server, const char *name, uint32_t name_size, int16_t *id) {
  _lmq_service *service;
  size_t len;
  int rc = 0;

  if (!_lmq_server_valid(server) || name == NULL || id == NULL) return -EINVAL;
  len = strnlen(name, name_size);
  if (len == 0 || len > LMQ_SERVICE_NAME_MAX) return -EINVAL;

  pthread_mutex_lock(&server->bus_mutex);
  pthread_mutex_lock(&server->mutex);
  service = lmq_service_find_name_nolock(server, name, len);
  if (service == NULL && server->bus != NULL && lmq_bus_asks_hub_nolock(server)) {
    /* A new name on a connected peer: the hub gives its id. */
    pthread_mutex_unlock(&server->mutex);
    rc = lmq_bus_register(server, name, len, id);
    pthread_mutex_unlock(&server->bus_mutex);
    return rc;
  }
  if (service == NULL) service = lmq_service_create_nolock(server, name, len, 0);
  if (service == NULL) {
    rc = -ENOMEM;
  } else {
    service->refs++;
    *id = service->id;
  }
  pthread_mutex_unlock(&server->mutex);
  pthread_mutex_unlock(&server->bus_mutex);
  return rc;
}

int lmqUnRegisterPlainId(lmq_server *server, int16_t id) {
  _lmq_service *service;
  int rc = 0;

  if (!_lmq_server_valid(server)) return -EINVAL;
  pthread_mutex_lock(&server->bus_mutex);
  pthread_mutex_lock(&server->mutex);
  service = _lmq_service_find_nolock(server, id);
  if (service == NULL) {
    rc = -ENOENT;
  } else if (--service->refs == 0) {
    if (server->bus == NULL || lmq_bus_service_unused_nolock(server, service)) {
      lmq_service_delete_nolock(server, service);
    }
  }
  pthread_mutex_unlock(&server->mutex);
  pthread_mutex_unlock(&server->bus_mutex);
  return rc;
}

/*
 * Adds the client to the hosts (as_host) or subscribers of a service and
 * sends the system messages of every new host-subscriber pair: the host
 * learns of the subscriber, the subscriber of the host. A client is never
 * paired with itself.
 */
static int _lmq_join_service(lmq_client *client, int16_t id, uint32_t flags, int as_host,
                             const char *caller) {
  _lmq_client_rec *rec;
  lmq_server *server;
  _lmq_service *service;
  _lmq_members *own;
  const _lmq_members *peers;
  uint32_t i;
  int rc;

  if (flags != 0) return -EINVAL;
  rc = _lmq_sender_lock(client, &rec, &server);
  if (rc < 0) return rc;

  service = _lmq_service_find_nolock(server, id);
  if (service == NULL) {
    rc = -ENOENT;
    goto out;
  }
  own = as_host ? &service->hosts : &service->subscribers;
  peers = as_host ? &service->subscribers : &service->hosts;
  if (lmq_members_find(own, rec) >= 0) {
    rc = -EEXIST;
    goto out;
  }
  rc = _lmq_members_add(own, rec);
  if (rc < 0) goto out;

  for (i = 0; i < peers->count; i++) {
    _lmq_client_rec *peer = peers->items[i];
    _lmq_client_rec *host = as_host ? rec : peer;
    _lmq_client_rec *subscriber = as_host ? peer : rec;
    if (peer == rec) continue;
    lmq_send_sysmsg_nolock(host, server->node, subscriber->number, LMQ_SYSMSG_SUBSCRIBER_PRESENT,
                           id, caller);
    lmq_send_sysmsg_nolock(subscriber, server->node, host->number, LMQ_SYSMSG_HOST_PRESENT, id,
                           caller);
  }
  if (server->bus != NULL) lmq_bus_joined_nolock(server, service, rec, as_host, caller);
out:
  pthread_mutex_unlock(&server->mutex);
  return rc;
}

/* Takes the client out of the hosts or subscribers of a service. */
static int _lmq_leave_service(lmq_client *client, int16_t id, int as_host) {
  _lmq_client_rec *rec;
  lmq_server *server;
  _lmq_service *service;
  int rc;

  rc = _lmq_sender_lock(client, &rec, &server);
  if (rc < 0) return rc;
  service = _lmq_service_find_nolock(server, id);
  if (service == NULL) {
    rc = -ENOENT;
  } else {
    rc = _lmq_members_remove(as_host ? &service->hosts : &service->subscribers, rec);
    if (rc == 0 && server->bus != NULL) lmq_bus_left_nolock(server, service, rec->number, as_host);
  }
  pthread_mutex_unlock(&server->mutex);
  return rc;
}

int lmqHostService(lmq_client *client, int16_t id, uint32_t flags) {
  return _lmq_join_service(client, id, flags, 1, __func__);
}

int lmqSubscribeService(lmq_client *client, int16_t id, uint32_t flags) {
  return _lmq_join_service(client, id, flags, 0, __func__);
}

int lmqUnHostService(lmq_client *client, int16_t id) {
  return _lmq_leave_service(client, id, 1);
}

int lmqUnSubscribeService(lmq_client *client, int16_t id) {
  return _lmq_leave_service(client, id, 0);
}

/* --- Clients --------------------------------------------------------- */

int lmqClientInit(lmq_client *client, void *queue, uint32_t queue_size) {
  _lmq_client_rec *rec;
  pthread_condattr_t attr;
  int rc;

  if (client == NULL || queue == NULL || queue_size < LMQ_MIN_QUEUE_SIZE) return -EINVAL;
  rec = (_lmq_client_rec *)(void *)client->u.bytes;
  if (rec->magic == LMQ_CLIENT_MAGIC) return -EINVAL;
  memset(client, 0, sizeof(*client));

  rc = pthread_mutex_init(&rec->mutex, NULL);
  if (rc != 0) return -rc;
  rc = pthread_condattr_init(&attr);
  if (rc == 0) {
    rc = pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    if (rc == 0) rc = pthread_cond_init(&rec->cond, &attr);
    pthread_condattr_destroy(&attr);
  }
  if (rc != 0) {
    pthread_mutex_destroy(&rec->mutex);
    return -rc;
  }
  lmq_queue_init(&rec->queue, queue, queue_size);
  rec->magic = LMQ_CLIENT_MAGIC;
  return 0;
}

int lmqClientRelease(lmq_client *client) {
  _lmq_client_rec *rec = _lmq_rec(client);

  if (rec == NULL || _lmq_attached_server(rec) != NULL) return -EINVAL;
  _lmq_offer_wait_end(rec);
  rec->magic = 0;
  lmq_queue_clear(&rec->queue);
  pthread_cond_destroy(&rec->cond);
  pthread_mutex_destroy(&rec->mutex);
  memset(client, 0, sizeof(*client));
  return 0;
}

int lmqClientSetIdleHandler(lmq_client *client, uint32_t kinds, lmq_idle_reply_fn handler,
                            void *context) {
  _lmq_client_rec *rec = _lmq_rec(client);

  if (rec == NULL || (kinds & ~(LMQ_IDLE_REPLIES | LMQ_IDLE_NOTIFICATIONS)) != 0) return -EINVAL;
  pthread_mutex_lock(&rec->mutex);
  rec->idle_reply = kinds != 0 ? handler : NULL;
  rec->idle_reply_context = context;
  rec->idle_kinds = kinds;
  pthread_mutex_unlock(&rec->mutex);
  return 0;
}

int lmqClientSetIdleReplyHandler(lmq_client *client, lmq_idle_reply_fn handler,
                                 void *context) {
  return lmqClientSetIdleHandler(client, LMQ_IDLE_REPLIES, handler, context);
}

int lmqClientAddress(const lmq_client *client, lmq_address *address) {
  _lmq_client_rec *rec = _lmq_rec(client);
  lmq_server *server;

  if (rec == NULL || address == NULL) return -EINVAL;
  server = _lmq_attached_server(rec);
  if (server == NULL) return -ENOENT;
  _lmq_make_address(address, server->node, _lmq_number(rec), -1, LMQ_KIND_SYSTEM, 0);
  return 0;
}

/* --- Sending --------------------------------------------------------- */

int lmqCXSendCommand(lmq_client *client, int16_t service_id, const lmq_iovec *vector,
                     uint32_t count, uint32_t flags) {
  return _lmq_send_to_service(client, service_id, vector, count, flags, LMQ_KIND_COMMAND);
}

int lmqCXNotify(lmq_client *client, int16_t service_id, const lmq_iovec *vector, uint32_t count,
                uint32_t flags) {
  return _lmq_send_to_service(client, service_id, vector, count, flags, LMQ_KIND_NOTIFY);
}

int lmqCXReply(lmq_client *client, const lmq_address *address, const lmq_iovec *vector,
               uint32_t count, uint32_t flags) {
  _lmq_client_rec *rec;
  _lmq_client_rec *target;
  lmq_server *server;
  lmq_address reply;
  lmq_offer offer;
  uint32_t size;
  int rc;

  if (address == NULL) return -EINVAL;
  offer.target = NULL;
  rc = _lmq_gather_size(vector, count, flags, &size);
  if (rc < 0) return rc;
  rc = _lmq_sender_lock(client, &rec, &server);
  if (rc < 0) return rc;

  if (address->node == server->node) {
    target = lmq_client_find_nolock(server, address->client);
    if (target == NULL) {
      rc = -EHOSTUNREACH;
    } else {
      _lmq_make_address(&reply, server->node, rec->number, address->service_id, LMQ_KIND_REPLY,
                        _lmq_next_sequence(rec));
      rc = lmq_deliver(target, &reply, vector, count, size, 0, &offer);
    }
  } else if (server->bus != NULL && lmq_bus_knows_client_nolock(server, address)) {
    _lmq_make_address(&reply, server->node, rec->number, address->service_id, LMQ_KIND_REPLY,
                      _lmq_next_sequence(rec));
    rc = lmq_bus_reply_nolock(server, address, &reply, vector, count, size);
    if (rc == 0) _lmq_sent_remote(rec, reply.sequence);
  } else {
    rc = -EHOSTUNREACH;
  }
  pthread_mutex_unlock(&server->mutex);
  lmq_offer_run(&offer);
  return rc;
}

int lmqCXNotifySelf(lmq_client *client, const lmq_iovec *vector, uint32_t count,
                    uint32_t flags) {
  _lmq_client_rec *rec = _lmq_rec(client);
  lmq_server *server;
  lmq_address reply;
  uint32_t size;
  int rc;

  if (rec == NULL) return -EINVAL;
  rc = _lmq_gather_size(vector, count, flags, &size);
  if (rc < 0) return rc;
  /* The own queue needs no server: a client that is not attached may wake
   * its receiver too. Without the server mutex the condition is signalled
   * under the client's mutex. */
  server = _lmq_attached_server(rec);
  _lmq_make_address(&reply, server != NULL ? server->node : 0, _lmq_number(rec), -1,
                    LMQ_KIND_SELF, _lmq_next_sequence(rec));
  return lmq_deliver(rec, &reply, vector, count, size, 1, NULL);
}

/* --- Receiving ------------------------------------------------------- */

/* Absolute CLOCK_MONOTONIC time, for the client's condition, that lies
 * remaining from now, cut to LMQ_WAIT_SLICE_SEC. */
static void _lmq_wait_until(struct timespec *until, const _cspOsalTime_struct *remaining) {
  int64_t sec = remaining->sec < LMQ_WAIT_SLICE_SEC ? remaining->sec : LMQ_WAIT_SLICE_SEC;
  long nsec = remaining->sec < LMQ_WAIT_SLICE_SEC ? (long)remaining->usec * 1000L : 0L;

  clock_gettime(CLOCK_MONOTONIC, until);
  until->tv_sec += (time_t)sec;
  until->tv_nsec += nsec;
  if (until->tv_nsec >= 1000000000L) {
    until->tv_sec++;
    until->tv_nsec -= 1000000000L;
  }
}

int lmq_client_has_mail(_lmq_client_rec *rec, uint32_t kept) {
  int mail;

  pthread_mutex_lock(&rec->mutex);
  mail = rec->queue.entries > 0 || rec->kept != kept;
  pthread_mutex_unlock(&rec->mutex);
  return mail;
}

uint32_t lmq_client_kept(_lmq_client_rec *rec) {
  return __atomic_load_n(&rec->kept, __ATOMIC_RELAXED);
}

/* What the client's receiver had been given (lmq_client_kept) when this
 * thread announced its lead through that client (lmqClientLeadNext),
 * before its send: whatever is kept for the receiver from then on may be
 * the answer, or may have been read along with it, and the leader must
 * not wait for it in the socket, even once the receiver has taken it. */
static __thread const _lmq_client_rec *t_lmq_lead_rec;
static __thread uint32_t t_lmq_lead_kept;

int lmqClientLeadBus(lmq_client *client, uint32_t timeout_ms, lmq_lead_done_fn done,
                     void *context) {
  _lmq_client_rec *rec = _lmq_rec(client);
  lmq_server *server;
  uint32_t remote;
  uint32_t kept;

  if (rec == NULL || done == NULL) return -EINVAL;
  lmq_bus_lead_next(0);
  kept = t_lmq_lead_rec == rec ? t_lmq_lead_kept : lmq_client_kept(rec);
  t_lmq_lead_rec = NULL;
  server = _lmq_attached_server(rec);
  if (server == NULL) return -ENOENT;
  /* 0: nothing sent yet (a send numbered 0, once in 2^32, does not lead).
   * A later local send (another thread's, say) means no lead either: the
   * bus thread must then read the answer that this thread's announced
   * send is waiting for. */
  remote = __atomic_load_n(&rec->remote_sequence, __ATOMIC_RELAXED);
  if (remote == 0 || remote != __atomic_load_n(&rec->sequence, __ATOMIC_RELAXED)) {
    lmq_bus_lead_declined(server);
    return -EAGAIN;
  }
  return lmq_bus_lead(server, rec, kept, timeout_ms, done, context);
}

int lmqClientLeadNext(lmq_client *client, int will_lead) {
  _lmq_client_rec *rec = _lmq_rec(client);

  if (rec == NULL) return -EINVAL;
  lmq_bus_lead_next(will_lead);
  t_lmq_lead_rec = will_lead ? rec : NULL;
  if (will_lead) t_lmq_lead_kept = lmq_client_kept(rec);
  return 0;
}

/* Whether the receiver may take the head of its queue: there is one, and
 * it is not being offered to the idle reply handler. */
static int _lmq_ready_nolock(const _lmq_client_rec *rec) {
  return rec->queue.entries > 0 && !rec->offering;
}

/*
 * Waits, with the client mutex held, until the queue holds a message or
 * the uptime clock reaches *deadline (null: no deadline). Returns 0 with
 * a message queued, LMQ_TIMEOUT (the deadline, or an idle reply handler
 * that asked for a look at the timers), or the clock's error. Every wake-up,
 * spurious or not, leads back to the queue and the clock.
 */
static int _lmq_wait_nolock(_lmq_client_rec *rec, const _cspOsalTime_struct *deadline) {
  for (;;) {
    _cspOsalTime_struct now;
    _cspOsalTime_struct remaining;
    struct timespec until;
    uint32_t seen;
    int rc;

    if (_lmq_ready_nolock(rec)) {
      rec->kick = 0;
      return 0;
    }
    if (rec->kick) {
      rec->kick = 0;
      return LMQ_TIMEOUT;
    }
    if (rec->offering) {
      /* The head of the queue is with the idle handler: the receiver stays
       * blocked until the offer ends, also past its deadline, so that the
       * handler never runs beside it. The end of the offer wakes it. */
      rec->waiting = 1;
      rec->offer_waiters++;
      pthread_cond_wait(&rec->cond, &rec->mutex);
      rec->offer_waiters--;
      rec->waiting = 0;
      continue;
    }
    if (deadline == NULL) {
      rec->waiting = 1;
      pthread_cond_wait(&rec->cond, &rec->mutex);
      rec->waiting = 0;
      continue;
    }

    seen = rec->wakeups;
    pthread_mutex_unlock(&rec->mutex);
    rc = cspOsalGetUptime(&now);
    pthread_mutex_lock(&rec->mutex);
    if (rc < 0) return rc;
    if (_lmq_ready_nolock(rec) || rec->kick) continue;
    /* The clock moved while it was read: read it again. */
    if (seen != rec->wakeups) continue;
    if (cspOsalCompareTime(&now, deadline) >= 0) return LMQ_TIMEOUT;

    cspOsalSubtractTime3(&remaining, deadline, &now);
    _lmq_wait_until(&until, &remaining);
    rec->waiting = 1;
    pthread_cond_timedwait(&rec->cond, &rec->mutex, &until);
    rec->waiting = 0;
  }
}

int lmqCXReceive(lmq_client *client, const lmq_iovec *vector, uint32_t count, lmq_rx_info *info,
                 const _cspOsalTime_struct *timeout) {
  _lmq_client_rec *rec = _lmq_rec(client);
  _cspOsalTime_struct deadline;
  lmq_address reply;
  uint64_t room = 0;
  uint32_t size;
  uint32_t i;
  int rc;

  if (rec == NULL || info == NULL || (count > 0 && vector == NULL)) return -EINVAL;
  for (i = 0; i < count; i++) {
    if (vector[i].len > 0 && vector[i].base == NULL) return -EINVAL;
    room += vector[i].len;
  }
  if (timeout != NULL) {
    _cspOsalTime_struct span = *timeout;
    cspOsalNormalizeTime(&span);
    if (span.sec > LMQ_TIMEOUT_MAX_SEC) span.sec = LMQ_TIMEOUT_MAX_SEC;
    rc = cspOsalGetUptime(&deadline);
    if (rc < 0) return rc;
    cspOsalAddTime(&deadline, &deadline, &span);
  }

  pthread_mutex_lock(&rec->mutex);
  rc = _lmq_wait_nolock(rec, timeout != NULL ? &deadline : NULL);
  if (rc == 0) {
    (void)lmq_queue_peek(&rec->queue, &size, &reply);
    info->status = 0;
    info->count = ++rec->received;
    info->size = size;
    info->reply = reply;
    if (size > room) {
      lmq_queue_drop(&rec->queue, size);
      rc = -EMSGSIZE;
    } else {
      lmq_queue_take(&rec->queue, vector, count, size);
      rc = (int)size;
    }
  }
  pthread_mutex_unlock(&rec->mutex);
  return rc;
}

int lmqCXHandleSystemMessage(lmq_server *server, lmq_client *client, const lmq_sysmsg_pair *pair,
                             const lmq_rx_info *info, const lmq_iovec *vector, uint32_t count) {
  unsigned char bytes[LMQ_SYSMSG_SIZE];
  lmq_msg_header header;
  uint32_t have = 0;
  uint32_t i;
  int16_t service_id;

  if (!_lmq_server_valid(server) || _lmq_rec(client) == NULL || pair == NULL ||
      pair->callback == NULL || info == NULL || (count > 0 && vector == NULL)) {
    return -EINVAL;
  }
  if (info->reply.kind != LMQ_KIND_SYSTEM || info->size != LMQ_SYSMSG_SIZE) return -EINVAL;
  for (i = 0; i < count && have < LMQ_SYSMSG_SIZE; i++) {
    uint32_t len = vector[i].len < LMQ_SYSMSG_SIZE - have ? vector[i].len : LMQ_SYSMSG_SIZE - have;
    if (len == 0) continue;
    if (vector[i].base == NULL) return -EINVAL;
    memcpy(bytes + have, vector[i].base, len);
    have += len;
  }
  if (have < LMQ_SYSMSG_SIZE) return -EINVAL;

  (void)lmqMessageHeaderToHost(&header, bytes);
  service_id = (int16_t)lmq_get_be16(bytes + LMQ_HEADER_SIZE);
  if (header.protocol != LMQ_SYSMSG_PROTOCOL || header.words != LMQ_HEADER_WORDS ||
      header.size != LMQ_SYSMSG_SIZE || header.size2 != LMQ_SYSMSG_SIZE ||
      service_id != info->reply.service_id) {
    return -EINVAL;
  }
  pair->callback(pair->context, header.type, header.subtype, service_id);
  return 0;
}

/* --- Header ---------------------------------------------------------- */

int lmqMessageHeaderToProtocol(void *destination, const lmq_msg_header *source) {
  lmq_msg_header host;
  unsigned char *out = (unsigned char *)destination;

  if (destination == NULL || source == NULL) return -EINVAL;
  host = *source; /* destination may be source */
  out[0] = host.protocol;
  out[1] = host.words;
  lmq_put_be16(out + 2, host.reserved0);
  lmq_put_be32(out + 4, host.type);
  lmq_put_be32(out + 8, host.subtype);
  lmq_put_be32(out + 12, host.size);
  lmq_put_be32(out + 16, host.size2);
  lmq_put_be32(out + 20, host.reserved1[0]);
  lmq_put_be32(out + 24, host.reserved1[1]);
  return 0;
}

int lmqMessageHeaderToHost(lmq_msg_header *destination, const void *source) {
  unsigned char in[LMQ_HEADER_SIZE];

  if (destination == NULL || source == NULL) return -EINVAL;
  memcpy(in, source, sizeof(in)); /* destination may be source */
  destination->protocol = in[0];
  destination->words = in[1];
  destination->reserved0 = lmq_get_be16(in + 2);
  destination->type = lmq_get_be32(in + 4);
  destination->subtype = lmq_get_be32(in + 8);
  destination->size = lmq_get_be32(in + 12);
  destination->size2 = lmq_get_be32(in + 16);
  destination->reserved1[0] = lmq_get_be32(in + 20);
  destination->reserved1[1] = lmq_get_be32(in + 24);
  return 0;
}

int lmqMessageHeaderValidate(void **payload, const lmq_rx_info *info, const void *buffer,
                             uint32_t buffer_size) {
  const unsigned char *bytes = (const unsigned char *)buffer;
  uint32_t size;

  if (payload == NULL || info == NULL || buffer == NULL) return -EINVAL;
  size = info->size;
  if (size < LMQ_HEADER_SIZE || size > buffer_size) return -EBADMSG;
  if (bytes[1] != LMQ_HEADER_WORDS) return -EBADMSG;
  if (lmq_get_be32(bytes + 12) != size || lmq_get_be32(bytes + 16) != size) return -EBADMSG;
  *payload = (void *)(bytes + LMQ_HEADER_SIZE);
  return 0;
}
