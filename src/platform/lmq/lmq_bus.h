/*
 * The bus side of an lmq server: what lmq.c calls so that routing and
 * membership reach the message servers of other processes. The design is
 * described at the top of lmq_bus.c.
 *
 * Functions ending in _nolock expect the server mutex held and server->bus
 * not null; lmq.c tests server->bus (or a service's remote counts) first,
 * so that a server without a bus never calls in here.
 */
#ifndef PLATFORM_LMQ_LMQ_BUS_H
#define PLATFORM_LMQ_LMQ_BUS_H

#include <stddef.h>
#include <stdint.h>

#include "lmq/lmq_internal.h"

/* Frees what the bus keeps in a service record. */
void lmq_bus_service_free(lmq_bus_service *bs);

/* A client was attached to / detached from this server (the detach has
 * already ended its local hosting and subscriptions). */
void lmq_bus_client_added_nolock(lmq_server *server, uint32_t number);
void lmq_bus_client_removed_nolock(lmq_server *server, uint32_t number);

/* A local client joined a service as host or subscriber (the local pairs'
 * system messages are sent already), or left it. */
void lmq_bus_joined_nolock(lmq_server *server, _lmq_service *service, _lmq_client_rec *rec,
                           int as_host, const char *caller);
void lmq_bus_left_nolock(lmq_server *server, _lmq_service *service, uint32_t number,
                         int as_host);

/* The last local reference of a service was dropped. Returns 1 when the
 * record is to be deleted; 0 when a hub keeps it for its peers (its local
 * hosts and subscribers are then gone already). */
int lmq_bus_service_unused_nolock(lmq_server *server, _lmq_service *service);

/* Sends a command or notification (from->kind) of size bytes to the
 * service's members on other nodes. Returns 0 or the first error: -105
 * when a connection cannot take it now, -113 for a command whose only
 * remote way is gone. */
int lmq_bus_send_nolock(lmq_server *server, _lmq_service *service, const lmq_address *from,
                        const lmq_iovec *vector, uint32_t count, uint32_t size);

/* True when the client of another node that *to names is known on the
 * bus. */
int lmq_bus_knows_client_nolock(const lmq_server *server, const lmq_address *to);

/* Sends a reply to the client of another node that *to names. Returns 0,
 * -105, -113 (its node is gone). */
int lmq_bus_reply_nolock(lmq_server *server, const lmq_address *to, const lmq_address *from,
                         const lmq_iovec *vector, uint32_t count, uint32_t size);

/* The uptime clock moved (its test hook): the bus thread looks at the
 * time again. */
void lmq_bus_clock_moved_nolock(lmq_server *server);

/* True when name registrations must be asked of a hub (a peer that is
 * connected). */
int lmq_bus_asks_hub_nolock(const lmq_server *server);

/* Registers a name on a peer through its hub. Called with the bus mutex
 * held and the server mutex free. Returns 0 and *id, -12, -110 (the hub
 * did not answer in time); falls back to a local id when the connection
 * is gone. */
int lmq_bus_register(lmq_server *server, const char *name, size_t len, int16_t *id);

/* A thread whose send announced its lead (lmqClientLeadNext) does not
 * lead after all: as after an unannounced send, its answer must not wait
 * in a parked hub connection, which goes back to the bus thread. */
void lmq_bus_lead_declined(lmq_server *server);

/* lmqClientLeadBus for a client of server whose last send went to other
 * nodes only; kept is what its receiver had been given before that send
 * (lmq_client_kept). No lmq mutex held. */
int lmq_bus_lead(lmq_server *server, _lmq_client_rec *rec, uint32_t kept, uint32_t timeout_ms,
                 lmq_lead_done_fn done, void *context);

/* lmqClientLeadNext for the calling thread. */
void lmq_bus_lead_next(int will_lead);

/* A new server's polling time for leaders (lmqServerBusSetLeadSpin):
 * LMQ_BUS_LEAD_SPIN_US_DEFAULT when the process may run on more than one
 * processor, else 0. */
uint32_t lmq_bus_lead_spin_default(void);

/* Closes the bus side of a server, if any: ends the bus thread, drops what
 * is known of other nodes and closes the sockets. Called with the bus
 * mutex held and the server mutex free. Returns 0 or -107 (no bus). */
int lmq_bus_shutdown(lmq_server *server);

#endif
