/*
 * Private records of lmq, shared by the message server (lmq.c) and the bus
 * that joins message servers of different processes (lmq_bus.c).
 *
 * Everything here is guarded by the server mutex unless a field says
 * otherwise; the lock order is documented at the top of lmq.c and of
 * lmq_bus.c.
 */
#ifndef PLATFORM_LMQ_LMQ_INTERNAL_H
#define PLATFORM_LMQ_LMQ_INTERNAL_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include "lmq/lmq_queue.h"
#include "platform/lmq.h"

#define LMQ_BUCKETS 64u
#define LMQ_SERVER_MAGIC 0x4C4D5153u /* "LMQS" */

typedef struct _lmq_client_rec _lmq_client_rec;
typedef struct lmq_bus lmq_bus;

/* Growable list of clients of this server: the hosts or the subscribers
 * of a service. */
typedef struct _lmq_members {
  _lmq_client_rec **items;
  uint32_t count;
  uint32_t capacity;
} _lmq_members;

/* A client of another message server on the bus. */
typedef struct lmq_bus_member {
  uint32_t node;
  uint32_t client;
} lmq_bus_member;

typedef struct lmq_bus_members {
  lmq_bus_member *items;
  uint32_t count;
  uint32_t capacity;
} lmq_bus_members;

/* What the bus knows of a service: its hosts and subscribers on other
 * nodes (on a hub the table itself, on a peer the hub's mirror) and, on a
 * hub, the nodes of the peers that registered the name. Empty without a
 * bus, so that the in-process paths only test a count. */
typedef struct lmq_bus_service {
  lmq_bus_members hosts;
  lmq_bus_members subscribers;
  uint32_t *holders;
  uint32_t holder_count;
  uint32_t holder_capacity;
} lmq_bus_service;

typedef struct _lmq_service {
  struct _lmq_service *next; /* bucket chain */
  int16_t id;
  uint32_t refs;             /* lmqRegisterPlainId calls of this server not yet
                                undone; a hub keeps a record at 0 while peers
                                hold the name, invisible to its own clients */
  _lmq_members hosts;
  _lmq_members subscribers;
  lmq_bus_service bus;
  char name[LMQ_SERVICE_NAME_MAX + 1];
} _lmq_service;

/* The private record inside an lmq_client's opaque bytes. */
struct _lmq_client_rec {
  uint32_t magic;
  uint32_t number;        /* client number while attached, else 0 (atomic) */
  lmq_server *server;     /* attached server or null (atomic) */
  _lmq_client_rec *next;  /* server's bucket chain, server mutex */
  uint32_t sequence;      /* messages sent through this client (atomic) */
  uint32_t remote_sequence; /* sequence of the last send that went to other
                               nodes only (atomic) */
  uint32_t received;      /* messages taken; receiving thread only */
  uint32_t kept;          /* messages left in the queue for the receiver
                             (not taken by the idle handler); changed under
                             the client mutex, read atomically */
  uint32_t waiting;       /* receiver blocked on cond; client mutex */
  uint32_t wakeups;       /* uptime clock moves seen; client mutex */
  uint32_t offering;      /* the head of the queue is offered to the idle
                             reply handler; client mutex */
  uint32_t offer_waiters; /* threads waiting for an offer to end; client
                             mutex */
  uint32_t kick;          /* the handler asked the receiver to look at its
                             timers: its wait ends with LMQ_TIMEOUT; client
                             mutex */
  lmq_idle_reply_fn idle_reply;  /* client mutex */
  void *idle_reply_context;      /* client mutex */
  uint32_t idle_kinds;           /* LMQ_IDLE_* offered; client mutex */
  lmq_queue queue;        /* client mutex */
  pthread_mutex_t mutex;
  pthread_cond_t cond;    /* on CLOCK_MONOTONIC */
};

struct lmq_server {
  uint32_t magic;
  uint32_t node;
  pthread_mutex_t mutex;
  /* Serialises the calls that set up, use for a round trip or tear down
   * the bus side: listen, connect, sync, close, and service registration.
   * Taken before the server mutex. */
  pthread_mutex_t bus_mutex;
  lmq_bus *bus;           /* bus side or null; written with both mutexes */
  uint32_t last_client;   /* last client number given */
  int16_t last_service;   /* last service id given */
  uint32_t service_count;
  uint32_t park_us;       /* atomic: lmqServerBusSetParking */
  uint32_t lead_spin_us;  /* atomic: lmqServerBusSetLeadSpin */
  _lmq_client_rec *clients[LMQ_BUCKETS];
  _lmq_service *services[LMQ_BUCKETS];
};

/* A reply or notification that lmq_deliver queued and holds back for the
 * target's idle handler; lmq_offer_run hands it over once the deliverer
 * has let go of the server mutex. Lives on the deliverer's stack; one
 * message at a time (target null: free). */
typedef struct lmq_offer {
  _lmq_client_rec *target; /* null: nothing offered */
  lmq_idle_reply_fn handler;
  void *context;
  lmq_address from;
  uint32_t size;
  unsigned char bytes[LMQ_IDLE_REPLY_MAX + 1u];
} lmq_offer;

/* --- lmq.c, for the bus ------------------------------------------------- */

/* Queues a message for target and wakes its receiver; see lmq.c. With a
 * non-null, free offer, a message that an idle receiver's idle handler
 * takes is held back in *offer instead of waking the receiver, and the
 * caller must call lmq_offer_run after releasing the server mutex.
 * Returns 0, -90 or -105. */
int lmq_deliver(_lmq_client_rec *target, const lmq_address *reply, const lmq_iovec *vector,
                uint32_t count, uint32_t size, int signal_locked, lmq_offer *offer);

/* Hands a held-back reply to its handler, with no lmq mutex held, then
 * lets the receiver go on; does nothing when nothing was offered. */
void lmq_offer_run(lmq_offer *offer);

/* True when the client's receiver has a message to take, one is being
 * offered to its idle handler, or messages were kept for it since it had
 * kept the count given (lmq_client_kept), even if it took them already. */
int lmq_client_has_mail(_lmq_client_rec *rec, uint32_t kept);
/* How many messages were ever kept for the client's receiver. */
uint32_t lmq_client_kept(_lmq_client_rec *rec);

/* Queues a system message of type for target about the client peer_client
 * of node peer_node; a queue without room drops and logs it. */
void lmq_send_sysmsg_nolock(_lmq_client_rec *target, uint32_t peer_node, uint32_t peer_client,
                            uint32_t type, int16_t service_id, const char *caller);

/* Index of rec in the list, or -1. */
int lmq_members_find(const _lmq_members *members, const _lmq_client_rec *rec);

/* Empties a list and gives its memory back. */
void lmq_members_free(_lmq_members *members);

/* The attached client with this number, or null. */
_lmq_client_rec *lmq_client_find_nolock(lmq_server *server, uint32_t number);

/* The record of a service id, also one that only peers hold, or null. */
_lmq_service *lmq_service_lookup_nolock(lmq_server *server, int16_t id);

/* The record of a service name (len bytes), or null. */
_lmq_service *lmq_service_find_name_nolock(lmq_server *server, const char *name, size_t len);

/* Adds a record with no references for the name, under id, or under a new
 * id when id is 0 (the caller knows that a given id is free). Returns it,
 * or null when all ids are in use or memory runs out. */
_lmq_service *lmq_service_create_nolock(lmq_server *server, const char *name, size_t len,
                                        int16_t id);

/* Unlinks and frees a record with its lists. */
void lmq_service_delete_nolock(lmq_server *server, _lmq_service *service);

#endif
