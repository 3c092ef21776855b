/*
 * lmq bus: message servers of different processes joined over a Unix
 * stream socket, so that their clients meet as if they shared one server.
 *
 * Star. One server listens (the hub, lmqServerListen); the servers of
 * other processes connect to it (peers, lmqServerConnect). Peers talk only
 * to the hub; a message between two peers passes through it. Each server
 * keeps its own clients, queues and local tables exactly as without a bus;
 * the bus adds, per service, the hosts and subscribers on other nodes
 * (lmq_bus_service), and a table of the clients of other nodes.
 *
 * Frames. Length-prefixed records (lmq_frame.h). A reader checks the
 * length before it looks at the rest, reads into one fixed buffer per
 * connection and never allocates per frame. A frame that is broken (bad
 * length, unknown type or wrong direction, wrong size, a message over
 * LMQ_MAX_MESSAGE_SIZE, a connection that ends inside a frame, or a frame
 * that makes no sense in its place) drops that connection and is logged;
 * the others go on.
 *
 * Node numbers come from lmq.c (process id and a count), so they are
 * unique on a bus without asking anyone, and addresses handed out before
 * a server joins a bus stay valid. The hub refuses a peer whose number it
 * already knows (lmqServerConnect then gives -17).
 *
 * Service ids. The hub's service table is the authority for name -> id.
 * A connected peer asks the hub for every name it does not hold yet
 * (REGISTER, a round trip under the server's bus mutex) and takes the id
 * the hub gives; the hub keeps a name while it or any peer holds it, and
 * counts which peers do ("holders"), so an id is never given to another
 * name while anyone uses it. A hub's own record that only peers hold has
 * no local references and is invisible to the hub's own clients. A
 * server must have no service registered when it connects (-16): ids it
 * had given itself could clash with the hub's. A peer whose hub went away
 * gives ids itself again; it cannot connect again while it has services.
 *
 * Membership. The hub sequences every change of membership: a peer tells
 * the hub when a client attaches or detaches (CLIENT_ADD/DEL), joins or
 * leaves a service (JOIN/LEAVE) or drops a name (UNREGISTER); the hub
 * applies it to its tables under its server mutex and forwards it to the
 * peers concerned (CLIENT_* to all, MEMBER_ADD/DEL to the holders of the
 * service, NODE_DEL when a peer goes). So every peer keeps a mirror of
 * the others' clients and of the members of the services it holds, and
 * routes each send itself: a command whose service has no host anywhere
 * gets -113 at once, a reply to a client that no node has gets -113.
 *
 * Presence. Pairs of a host and a subscriber on the same node get their
 * system messages from their own server, at once, as without a bus.
 * Pairs across nodes get theirs from the hub only, when it applies the
 * second member of the pair: both sides learn of each other exactly once,
 * in either order of joining. A system message that reaches a client that
 * has left the service meanwhile is not delivered.
 *
 * Messages. A sender's server delivers to its local members and sends one
 * frame to the hub when the service has members elsewhere; the hub
 * delivers to its own and sends one frame to each other node concerned.
 * A reply goes to the hub, which passes it to the node of its address.
 * A message reaches a remote queue later, on that node's bus thread; a
 * queue without room there drops it and logs it (the sender has got 0).
 *
 * Slow or gone peers. No sender ever waits for a socket. Each connection
 * has a bounded output buffer (LMQ_BUS_OUT_BYTES): a frame is written at
 * once when the buffer is empty and the socket takes it, else queued for
 * the bus thread. A message frame that would fill the buffer beyond
 * LMQ_BUS_OUT_BYTES - LMQ_BUS_OUT_RESERVE is refused whole with -105, like
 * a full queue; the reserve keeps room for the frames that keep tables in
 * step, and a peer that lets even those pile up is disconnected (logged).
 * A message for a peer whose connection broke gives -113 (a notification
 * gives 0, as for a service without subscribers).
 *
 * The hub passes a peer's message on only when every connection it goes
 * to has room for it. Until then the frame waits, first in that peer's
 * input, and the hub reads nothing more from that peer (its frames stay in
 * order, so whatever it sends later waits too); the peer's own buffer
 * fills and its senders get -105 in turn. So a message that a sender got
 * 0 for is not lost on the way through the hub, however slow its
 * receiver's node. A node that holds up such a frame and takes nothing
 * for LMQ_BUS_STALL_SEC (uptime clock) is disconnected (logged), which
 * lets the waiting peer go on.
 *
 * When a connection ends, everything of that node goes: its clients, its
 * hosts and subscriptions and the names it held, on the hub and (by
 * NODE_DEL) on every peer; a peer that loses its hub forgets every other
 * node.
 *
 * Threads. Each server on a bus runs one bus thread ("lmqbus"), which
 * waits on its sockets with epoll, accepts peers, reads and handles
 * frames and writes out what senders had to queue. Frames are handled
 * under the server mutex, as any local call, so the tables change in one
 * order. What the bus thread sends while it handles a batch of frames
 * (a served request's key update and reply, say) waits in the output
 * buffers and goes out in one write per connection after the batch.
 *
 * Leading. On a peer, a thread that has sent a request to another node
 * may read the hub connection itself while it waits for the answer
 * (lmqClientLeadBus): it takes the connection's input side from the bus
 * thread, whose epoll entry then watches only for the end, blocks in recv
 * on the socket (peer sockets are blocking; every other read and write
 * says MSG_DONTWAIT) and handles what comes exactly as the bus thread
 * would. The answer then wakes the waiting thread directly instead of
 * the bus thread, which would have to hand it over. Before it sleeps in
 * recv, the leader polls the socket for the server's spin time
 * (lead_spin_us), so a quick answer finds it running. Connections are not
 * reaped and the bus is not closed while a leader is inside.
 *
 * Parking. A leader whose answer came, and whose thread announced the
 * lead before its send (lmqClientLeadNext), leaves the connection as it
 * is, input unwatched, for the next leader: a thread that calls in a loop
 * then pays no epoll_ctl at all. The bus thread takes a parked connection
 * back when a timer, armed by the first park, says that the server's
 * parking time (park_us) is over, when it has output to write there, or
 * when a send that no lead follows wakes it; such a send also keeps
 * leaders from parking until one gave the connection back. Every frame
 * sent gets a ticket, its number on the connection: a thread that waits
 * for the answer to an announced send without leading (refused, or its
 * lead ended unanswered) keeps every leader whose own send had an earlier
 * ticket from parking, since its answer comes after theirs. What else
 * arrives meanwhile waits at most the parking time.
 *
 * Locking. server->bus_mutex (set-up, teardown, sync and registration
 * round trips; the bus thread never takes it), then a connection's
 * in_mutex (its reader: the bus thread while it reads, a leader while it
 * takes or gives the connection), then server->mutex, then any one of: a
 * connection's out_mutex, bus->state_mutex, a client's mutex. A reader
 * runs idle handlers with in_mutex held; a thread that reads the bus
 * cannot lead, so a handler never waits for itself. No socket call made
 * with the server mutex held can block: frames go out only by
 * non-blocking writes into the socket or the output buffer. Waiting
 * (connect, sync, registration) happens on state_cond with only the bus
 * mutex held; a leader waits in recv with no lmq mutex held. The
 * connection list changes only on the bus thread (or before it starts and
 * after it ends), with both the server mutex and the state mutex held, so
 * either one is enough to read it.
 */
#include "lmq/lmq_bus.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include "lmq/lmq_bytes.h"
#include "lmq/lmq_debug.h"
#include "lmq/lmq_frame.h"
#include "platform/csp_thread.h"

/* Output buffer of a connection, and the part of it that only control
 * frames may use. */
#define LMQ_BUS_OUT_BYTES (256u * 1024u)
#define LMQ_BUS_OUT_RESERVE (64u * 1024u)
/* Input buffer: several largest frames, so one read takes many frames. */
#define LMQ_BUS_IN_BYTES (64u * 1024u)
#define LMQ_BUS_BACKLOG 16
/* Entries of a direct write; longer vectors go through the buffer. */
#define LMQ_BUS_IOV_MAX 16u
#define LMQ_BUS_REGISTER_TIMEOUT_MS 5000u
#define LMQ_BUS_CLIENT_BUCKETS 64u
#define LMQ_BUS_DEFAULT_MODE 0600u
#define LMQ_BUS_WHY_SIZE 64u
/* A connection that holds up a frame the hub passes on, and takes nothing
 * for this long (uptime clock), is dropped. */
#define LMQ_BUS_STALL_SEC 5
/* How often the bus thread looks at the clock while something waits. */
#define LMQ_BUS_STALL_POLL_MS 100
/* A frame handler's answer: the frame cannot be passed on yet. */
#define LMQ_BUS_WAIT 2
/* Output that the bus thread holds back while it handles frames goes out
 * once this much waits. */
#define LMQ_BUS_CORK_BYTES (16u * 1024u)
/* Readiness events the bus thread takes per wait. */
#define LMQ_BUS_EVENTS 32
/* Tags of the bus thread's own descriptors in its epoll set (connections
 * are tagged by their record). */
#define LMQ_BUS_TAG_WAKE 0u
#define LMQ_BUS_TAG_LISTEN 1u
#define LMQ_BUS_TAG_PARK 2u

_Static_assert(LMQ_BUS_IN_BYTES >= LMQ_FRAME_LENGTH_SIZE + LMQ_FRAME_MAX,
               "input buffer must hold a largest frame");
_Static_assert(LMQ_BUS_OUT_RESERVE > LMQ_FRAME_LENGTH_SIZE + LMQ_FRAME_MAX,
               "reserve must hold a largest frame");

typedef struct _lmq_bus_conn {
  int fd;
  uint32_t node;     /* server mutex: the other side's node once known */
  int active;        /* server mutex: HELLO (hub) or WELCOME (peer) done,
                        and not retired */
  int retired;       /* server mutex: its node's state is gone */
  /* The input side: held by whoever reads and handles frames, the bus
   * thread or a thread that leads (lmqClientLeadBus). */
  pthread_mutex_t in_mutex;
  unsigned char *in; /* in_mutex */
  uint32_t in_len;
  lmq_offer *offer;  /* in_mutex: the reader's offer */
  int led;           /* in_mutex: a leading thread reads it, not the bus
                        thread, which watches only its end meanwhile; the
                        leader alone uses in, in_len and offer then */
  int lead_timeout_ms; /* leader only: receive timeout set on the socket */
  uint32_t spin_misses; /* leader only: polls in a row that found nothing */
  uint32_t spin_skips;  /* leader only: reads left that do not poll */
  uint32_t spin_hit_count;  /* atomic: polls that found input */
  uint32_t spin_miss_count; /* atomic: polls that found nothing */
  int parked;        /* atomic, changed under in_mutex: no leader, and the
                        bus thread still watches only the end, until it
                        takes the connection back or a leader comes */
  int yield;         /* atomic: a thread sent without leading after it, or
                        failed to lead, since a leader last gave the
                        connection back: leaders do not park it */
  uint32_t sent;     /* out_mutex: frames written or queued so far; the
                        count after a frame is its ticket */
  uint32_t waited;   /* atomic: the latest ticket of an announced send
                        whose thread waits for the answer without leading
                        (0: none); a leader whose own send went before it
                        does not park the connection */
  int watched;       /* in_mutex: in the bus thread's epoll set */
  uint32_t events;   /* in_mutex: the events watched there */
  pthread_mutex_t out_mutex;
  unsigned char *out; /* out_mutex: bytes [out_start, out_end) wait */
  uint32_t out_start;
  uint32_t out_end;
  int dead;          /* out_mutex: to be closed by the bus thread */
  int overflow;      /* out_mutex: a control frame found no room */
  int corked;        /* out_mutex: output waits for the bus thread to end
                        the frames it handles (t_lmq_bus_cork) */
  uint32_t pinged;   /* state mutex: token of the last PING sent */
  uint32_t ponged;   /* state mutex: token of the last PONG received */
  /* Bus thread only. */
  int stalled;       /* its next frame waits for room elsewhere */
  int hung_up;       /* poll saw the end while it was stalled */
  int blocking;      /* holds up a stalled frame of another connection */
  int blocking_timed;
  _cspOsalTime_struct blocking_since;
} _lmq_bus_conn;

/* A client of another node. */
typedef struct _lmq_bus_client {
  struct _lmq_bus_client *next;
  uint32_t node;
  uint32_t client;
} _lmq_bus_client;

struct lmq_bus {
  lmq_server *server;
  uint32_t role; /* LMQ_BUS_HUB or LMQ_BUS_PEER */
  int listen_fd;
  int wake_rd;
  int wake_wr;
  int epoll_fd;
  int park_fd;    /* timer that ends parking; -1: leaders do not park */
  int park_armed; /* atomic: park_fd runs and the bus thread has not read it */
  char path[sizeof(((struct sockaddr_un *)0)->sun_path)];
  dev_t dev; /* of the hub's socket file, to unlink only our own */
  ino_t ino;
  pthread_t thread;
  int thread_started;
  int stop; /* atomic */
  /* Server mutex (the connection list: see the top of this file). */
  _lmq_bus_conn **conns;
  uint32_t conn_count;
  uint32_t conn_capacity;
  _lmq_bus_client *clients[LMQ_BUS_CLIENT_BUCKETS];
  uint32_t hub_node;
  /* State mutex. */
  pthread_mutex_t state_mutex;
  pthread_cond_t state_cond; /* on CLOCK_MONOTONIC */
  uint32_t last_token;
  int32_t refused;
  uint32_t reg_token;
  int reg_done;
  int32_t reg_result;
  int16_t reg_id;
  uint32_t leaders;    /* threads in lmqClientLeadBus */
  int reap_deferred;   /* a dead connection waits for the leaders to go */
  /* Bus thread only: a message held back for a local client's idle
   * handler while a frame is handled, run once the server mutex is free. */
  lmq_offer offer;
};

/* Set while a thread reads a connection, so that an idle handler running
 * there cannot try to lead (and wait for itself). */
static __thread int t_lmq_bus_reading;

/* The bus whose thread this is. */
static __thread const lmq_bus *t_lmq_bus_self;

/* Set by lmqClientLeadNext: this thread's next send to a hub is followed
 * by lmqClientLeadBus. */
static __thread int t_lmq_bus_lead_next;

/* This thread's last announced send to a hub: the connection and the
 * frame's ticket. Only compared, never followed. */
static __thread const struct _lmq_bus_conn *t_lmq_bus_lead_conn;
static __thread uint32_t t_lmq_bus_lead_ticket;

/* The bus whose thread is handling frames, in that thread: frames it
 * sends meanwhile wait in the output buffers and go out in one write per
 * connection afterwards (a served request's update and reply, say). */
static __thread const lmq_bus *t_lmq_bus_cork;

/* --- Small helpers ------------------------------------------------------ */

static int _lmq_bus_server_valid(const lmq_server *server) {
  return server != NULL && server->magic == LMQ_SERVER_MAGIC;
}

static void _lmq_bus_frame_init(lmq_frame *frame, uint8_t type) {
  memset(frame, 0, sizeof(*frame));
  frame->type = type;
}

static uint8_t _lmq_bus_role_code(int as_host) {
  return as_host ? LMQ_FRAME_ROLE_HOST : LMQ_FRAME_ROLE_SUBSCRIBER;
}

static void _lmq_bus_wake(lmq_bus *bus) {
  const char byte = 1;
  ssize_t n;

  do {
    n = write(bus->wake_wr, &byte, 1);
  } while (n < 0 && errno == EINTR);
  /* A full pipe already holds a wake-up. */
}

/* Absolute CLOCK_MONOTONIC time timeout from now; null means none. */
static void _lmq_bus_deadline(struct timespec *deadline, const _cspOsalTime_struct *timeout) {
  _cspOsalTime_struct span = *timeout;

  cspOsalNormalizeTime(&span);
  if (span.sec < 0) {
    span.sec = 0;
    span.usec = 0;
  }
  if (span.sec > 1000000000LL) span.sec = 1000000000LL;
  clock_gettime(CLOCK_MONOTONIC, deadline);
  deadline->tv_sec += (time_t)span.sec;
  deadline->tv_nsec += (long)span.usec * 1000L;
  if (deadline->tv_nsec >= 1000000000L) {
    deadline->tv_sec++;
    deadline->tv_nsec -= 1000000000L;
  }
}

/* Waits on the state condition, with the state mutex held, until the
 * deadline (null: for ever). Returns 0 or ETIMEDOUT. */
static int _lmq_bus_wait_state(lmq_bus *bus, const struct timespec *deadline) {
  if (deadline == NULL) return pthread_cond_wait(&bus->state_cond, &bus->state_mutex);
  return pthread_cond_timedwait(&bus->state_cond, &bus->state_mutex, deadline);
}

/* --- Remote members and holders ------------------------------------------ */

static int _lmq_bus_members_find(const lmq_bus_members *members, uint32_t node, uint32_t client) {
  uint32_t i;

  for (i = 0; i < members->count; i++) {
    if (members->items[i].node == node && members->items[i].client == client) return (int)i;
  }
  return -1;
}

/* Adds a member unless it is there. Returns 1 when added, 0 when it was
 * there, -12. */
static int _lmq_bus_members_add(lmq_bus_members *members, uint32_t node, uint32_t client) {
  if (_lmq_bus_members_find(members, node, client) >= 0) return 0;
  if (members->count == members->capacity) {
    uint32_t capacity = members->capacity ? members->capacity * 2u : 4u;
    lmq_bus_member *items = realloc(members->items, capacity * sizeof(*items));
    if (items == NULL) return -ENOMEM;
    members->items = items;
    members->capacity = capacity;
  }
  members->items[members->count].node = node;
  members->items[members->count].client = client;
  members->count++;
  return 1;
}

static void _lmq_bus_members_free(lmq_bus_members *members) {
  free(members->items);
  members->items = NULL;
  members->count = 0;
  members->capacity = 0;
}

/* Removes the members of a node (node 0: of every node) that are the
 * client given (client 0: any), keeping the order of the others. Returns
 * how many went. */
static uint32_t _lmq_bus_members_drop(lmq_bus_members *members, uint32_t node, uint32_t client) {
  uint32_t kept = 0;
  uint32_t i;

  for (i = 0; i < members->count; i++) {
    const lmq_bus_member *m = &members->items[i];
    int match = (node == 0 || m->node == node) && (client == 0 || m->client == client);
    if (!match) members->items[kept++] = *m;
  }
  i = members->count - kept;
  members->count = kept;
  if (kept == 0) _lmq_bus_members_free(members);
  return i;
}

static int _lmq_bus_holder_find(const lmq_bus_service *bs, uint32_t node) {
  uint32_t i;

  for (i = 0; i < bs->holder_count; i++) {
    if (bs->holders[i] == node) return (int)i;
  }
  return -1;
}

static int _lmq_bus_holder_add(lmq_bus_service *bs, uint32_t node) {
  if (_lmq_bus_holder_find(bs, node) >= 0) return 0;
  if (bs->holder_count == bs->holder_capacity) {
    uint32_t capacity = bs->holder_capacity ? bs->holder_capacity * 2u : 4u;
    uint32_t *holders = realloc(bs->holders, capacity * sizeof(*holders));
    if (holders == NULL) return -ENOMEM;
    bs->holders = holders;
    bs->holder_capacity = capacity;
  }
  bs->holders[bs->holder_count++] = node;
  return 0;
}

/* Removes a holder (node 0: all of them). */
static void _lmq_bus_holder_drop(lmq_bus_service *bs, uint32_t node) {
  int index = node == 0 ? -1 : _lmq_bus_holder_find(bs, node);

  if (node != 0 && index < 0) return;
  if (node == 0 || bs->holder_count == 1) {
    free(bs->holders);
    bs->holders = NULL;
    bs->holder_count = 0;
    bs->holder_capacity = 0;
    return;
  }
  memmove(&bs->holders[index], &bs->holders[index + 1],
          (bs->holder_count - (uint32_t)index - 1u) * sizeof(bs->holders[0]));
  bs->holder_count--;
}

void lmq_bus_service_free(lmq_bus_service *bs) {
  _lmq_bus_members_free(&bs->hosts);
  _lmq_bus_members_free(&bs->subscribers);
  _lmq_bus_holder_drop(bs, 0);
}

/* --- Clients of other nodes ------------------------------------------------ */

static uint32_t _lmq_bus_client_index(uint32_t node, uint32_t client) {
  return ((node * 2654435761u) ^ client) % LMQ_BUS_CLIENT_BUCKETS;
}

static int _lmq_bus_client_known(const lmq_bus *bus, uint32_t node, uint32_t client) {
  const _lmq_bus_client *entry;

  for (entry = bus->clients[_lmq_bus_client_index(node, client)]; entry != NULL;
       entry = entry->next) {
    if (entry->node == node && entry->client == client) return 1;
  }
  return 0;
}

static int _lmq_bus_client_add(lmq_bus *bus, uint32_t node, uint32_t client) {
  _lmq_bus_client **bucket = &bus->clients[_lmq_bus_client_index(node, client)];
  _lmq_bus_client *entry;

  if (_lmq_bus_client_known(bus, node, client)) return 0;
  entry = malloc(sizeof(*entry));
  if (entry == NULL) return -ENOMEM;
  entry->node = node;
  entry->client = client;
  entry->next = *bucket;
  *bucket = entry;
  return 0;
}

/* Removes the clients of a node (0: all nodes) that are client (0: any). */
static void _lmq_bus_clients_drop(lmq_bus *bus, uint32_t node, uint32_t client) {
  uint32_t b;

  for (b = 0; b < LMQ_BUS_CLIENT_BUCKETS; b++) {
    _lmq_bus_client **link = &bus->clients[b];
    while (*link != NULL) {
      _lmq_bus_client *entry = *link;
      if ((node == 0 || entry->node == node) && (client == 0 || entry->client == client)) {
        *link = entry->next;
        free(entry);
      } else {
        link = &entry->next;
      }
    }
  }
}

/*
 * Forgets clients of other nodes: a client (node and client), all of a
 * node (client 0) or everything (node 0). Their hosting and subscriptions
 * go with them; with client 0 also the names the node held, and a record
 * that then has neither local references nor holders is deleted (only on
 * a hub, or when everything goes: a peer keeps a record that a pending
 * registration may be about to use).
 */
static void _lmq_bus_forget_nolock(lmq_bus *bus, uint32_t node, uint32_t client) {
  lmq_server *server = bus->server;
  uint32_t b;

  for (b = 0; b < LMQ_BUCKETS; b++) {
    _lmq_service *service = server->services[b];
    while (service != NULL) {
      _lmq_service *next = service->next;
      (void)_lmq_bus_members_drop(&service->bus.hosts, node, client);
      (void)_lmq_bus_members_drop(&service->bus.subscribers, node, client);
      if (client == 0) _lmq_bus_holder_drop(&service->bus, node);
      if (service->refs == 0 && service->bus.holder_count == 0 &&
          (bus->role == LMQ_BUS_HUB || node == 0)) {
        lmq_service_delete_nolock(server, service);
      }
      service = next;
    }
  }
  _lmq_bus_clients_drop(bus, node, client);
}

/* --- Connections --------------------------------------------------------- */

static void _lmq_bus_conn_free(_lmq_bus_conn *conn) {
  if (conn == NULL) return;
  if (conn->fd >= 0) close(conn->fd);
  pthread_mutex_destroy(&conn->out_mutex);
  pthread_mutex_destroy(&conn->in_mutex);
  free(conn->in);
  free(conn->out);
  free(conn);
}

/* Makes a connection record for a connected, non-blocking socket, which
 * it then owns. Returns null (and closes fd) when memory runs out. */
static _lmq_bus_conn *_lmq_bus_conn_new(int fd) {
  _lmq_bus_conn *conn = calloc(1, sizeof(*conn));

  if (conn == NULL) {
    close(fd);
    return NULL;
  }
  conn->fd = fd;
  conn->in = malloc(LMQ_BUS_IN_BYTES);
  conn->out = malloc(LMQ_BUS_OUT_BYTES);
  if (conn->in == NULL || conn->out == NULL || pthread_mutex_init(&conn->out_mutex, NULL) != 0) {
    free(conn->in);
    free(conn->out);
    close(fd);
    free(conn);
    return NULL;
  }
  if (pthread_mutex_init(&conn->in_mutex, NULL) != 0) {
    pthread_mutex_destroy(&conn->out_mutex);
    free(conn->in);
    free(conn->out);
    close(fd);
    free(conn);
    return NULL;
  }
  return conn;
}

/* Adds a connection to the list; server and state mutexes held. */
static int _lmq_bus_conn_add_nolock(lmq_bus *bus, _lmq_bus_conn *conn) {
  if (bus->conn_count == bus->conn_capacity) {
    uint32_t capacity = bus->conn_capacity ? bus->conn_capacity * 2u : 4u;
    _lmq_bus_conn **conns = realloc(bus->conns, capacity * sizeof(*conns));
    if (conns == NULL) return -ENOMEM;
    bus->conns = conns;
    bus->conn_capacity = capacity;
  }
  bus->conns[bus->conn_count++] = conn;
  return 0;
}

/* The active connection to a node, or null. */
static _lmq_bus_conn *_lmq_bus_conn_find_nolock(const lmq_bus *bus, uint32_t node) {
  uint32_t i;

  for (i = 0; i < bus->conn_count; i++) {
    if (bus->conns[i]->active && bus->conns[i]->node == node) return bus->conns[i];
  }
  return NULL;
}

/* A peer's connection to its hub, or null once it is gone. */
static _lmq_bus_conn *_lmq_bus_hub_conn_nolock(const lmq_bus *bus) {
  return bus->role == LMQ_BUS_PEER && bus->conn_count > 0 ? bus->conns[0] : NULL;
}

/* Marks a connection for closing by the bus thread. */
static void _lmq_bus_conn_kill(lmq_bus *bus, _lmq_bus_conn *conn) {
  pthread_mutex_lock(&conn->out_mutex);
  conn->dead = 1;
  pthread_mutex_unlock(&conn->out_mutex);
  _lmq_bus_wake(bus);
}

static int _lmq_bus_conn_is_dead(_lmq_bus_conn *conn, int *overflow) {
  int dead;

  pthread_mutex_lock(&conn->out_mutex);
  dead = conn->dead;
  if (overflow != NULL) *overflow = conn->overflow;
  pthread_mutex_unlock(&conn->out_mutex);
  return dead;
}

/* Copies bytes [skip, total) of head and vector to the output buffer,
 * which has room for them; out_mutex held. */
static void _lmq_bus_out_append(_lmq_bus_conn *conn, const unsigned char *head, uint32_t head_len,
                                const lmq_iovec *vector, uint32_t count, uint32_t skip,
                                uint32_t total) {
  uint32_t need = total - skip;
  uint32_t i;

  if (LMQ_BUS_OUT_BYTES - conn->out_end < need) {
    memmove(conn->out, conn->out + conn->out_start, conn->out_end - conn->out_start);
    conn->out_end -= conn->out_start;
    conn->out_start = 0;
  }
  if (skip < head_len) {
    memcpy(conn->out + conn->out_end, head + skip, head_len - skip);
    conn->out_end += head_len - skip;
    skip = 0;
  } else {
    skip -= head_len;
  }
  for (i = 0; i < count; i++) {
    uint32_t len = vector[i].len;
    if (skip >= len) {
      skip -= len;
      continue;
    }
    memcpy(conn->out + conn->out_end, (const unsigned char *)vector[i].base + skip, len - skip);
    conn->out_end += len - skip;
    skip = 0;
  }
}

static void _lmq_bus_flush_nolock(_lmq_bus_conn *conn);

/* A send to the hub by a thread that does not read the connection: unless
 * that thread leads right after it (lmqClientLeadNext), the answer must
 * not wait in a parked connection. Leaders stop parking it, and a parked
 * one goes back to the bus thread at once. An announced send is noted
 * with its ticket, for the lead. Returns whether the bus thread must wake
 * for that. */
static int _lmq_bus_sent_unled(const lmq_bus *bus, _lmq_bus_conn *conn, uint32_t ticket) {
  if (bus->role != LMQ_BUS_PEER || t_lmq_bus_reading || t_lmq_bus_self == bus) return 0;
  if (t_lmq_bus_lead_next) {
    t_lmq_bus_lead_next = 0;
    t_lmq_bus_lead_conn = conn;
    t_lmq_bus_lead_ticket = ticket;
    return 0;
  }
  /* Paired with _lmq_bus_lead_park: either the leader sees yield, or
   * this thread sees the connection parked. */
  __atomic_store_n(&conn->yield, 1, __ATOMIC_SEQ_CST);
  return __atomic_load_n(&conn->parked, __ATOMIC_SEQ_CST);
}

/*
 * Sends one frame: head_len bytes of head, then tail_len bytes gathered
 * from the vector. With an empty output buffer it is written at once as
 * far as the socket takes it; the rest, or all of it behind bytes that
 * wait, goes to the buffer for the bus thread. A message frame (control
 * 0) that would fill the buffer beyond its bound is refused whole; a
 * control frame may use the reserve, and one that finds no room at all
 * marks the connection dead. Never blocks. Returns 0, -105, or -113 when
 * the connection is dead.
 */
static int _lmq_bus_conn_write(lmq_bus *bus, _lmq_bus_conn *conn, const unsigned char *head,
                               uint32_t head_len, const lmq_iovec *vector, uint32_t count,
                               uint32_t tail_len, int control) {
  uint32_t total = head_len + tail_len;
  uint32_t used;
  uint32_t limit = control ? LMQ_BUS_OUT_BYTES : LMQ_BUS_OUT_BYTES - LMQ_BUS_OUT_RESERVE;
  uint32_t written = 0;
  uint32_t ticket = 0;
  int wake = 0;
  int rc = 0;

  pthread_mutex_lock(&conn->out_mutex);
  if (conn->dead) {
    rc = -EHOSTUNREACH;
    goto out;
  }
  used = conn->out_end - conn->out_start;
  if (used + total > limit) {
    if (control) {
      conn->dead = 1;
      conn->overflow = 1;
      wake = 1;
      rc = -EHOSTUNREACH;
    } else {
      rc = -ENOBUFS;
    }
    goto out;
  }
  ticket = ++conn->sent;
  if (ticket == 0) ticket = ++conn->sent; /* 0 stands for none */
  if (t_lmq_bus_cork == bus) {
    /* The bus thread handles frames: what they cause goes out together
     * when it is done with them (_lmq_bus_uncork). */
    conn->corked = 1;
  } else if (used == 0 && count < LMQ_BUS_IOV_MAX) {
    struct iovec iov[LMQ_BUS_IOV_MAX];
    struct msghdr msg;
    size_t n = 0;
    uint32_t i;
    ssize_t sent;

    iov[n].iov_base = (void *)(uintptr_t)head;
    iov[n++].iov_len = head_len;
    for (i = 0; i < count; i++) {
      if (vector[i].len == 0) continue;
      iov[n].iov_base = vector[i].base;
      iov[n++].iov_len = vector[i].len;
    }
    memset(&msg, 0, sizeof(msg));
    msg.msg_iov = iov;
    msg.msg_iovlen = n;
    do {
      sent = sendmsg(conn->fd, &msg, MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) {
      if (errno != EAGAIN && errno != EWOULDBLOCK) {
        conn->dead = 1;
        wake = 1;
        rc = -EHOSTUNREACH;
        goto out;
      }
      sent = 0;
    }
    written = (uint32_t)sent;
  }
  if (written < total) {
    _lmq_bus_out_append(conn, head, head_len, vector, count, written, total);
    /* The first bytes to wait: the bus thread must watch for room. */
    wake = used == 0 && !conn->corked;
    /* Corked output is written out in good time; the buffer's bound is
     * for a socket that takes nothing. */
    if (conn->corked && conn->out_end - conn->out_start >= LMQ_BUS_CORK_BYTES) {
      _lmq_bus_flush_nolock(conn);
    }
  }
out:
  pthread_mutex_unlock(&conn->out_mutex);
  if (rc == 0 && _lmq_bus_sent_unled(bus, conn, ticket)) wake = 1;
  if (wake) _lmq_bus_wake(bus);
  return rc;
}

/* On the bus thread, for a message frame of total bytes that the hub
 * passes on: can the connection take it now? A dead one can (the frame
 * is dropped there); one that cannot is marked as holding up a relay. */
static int _lmq_bus_relay_room(_lmq_bus_conn *conn, uint32_t total) {
  int room;

  pthread_mutex_lock(&conn->out_mutex);
  room = conn->dead ||
         conn->out_end - conn->out_start + total <= LMQ_BUS_OUT_BYTES - LMQ_BUS_OUT_RESERVE;
  pthread_mutex_unlock(&conn->out_mutex);
  if (!room) conn->blocking = 1;
  return room;
}

/* Sends a frame with a tail taken from the vector (tail_len bytes). */
static int _lmq_bus_send_frame(lmq_bus *bus, _lmq_bus_conn *conn, const lmq_frame *frame,
                               const lmq_iovec *vector, uint32_t count, uint32_t tail_len,
                               int control) {
  unsigned char head[LMQ_FRAME_HEAD_MAX];
  uint32_t head_len = lmq_frame_encode(head, frame, tail_len);

  return _lmq_bus_conn_write(bus, conn, head, head_len, vector, count, tail_len, control);
}

/* Sends a control frame without tail; a failure shows as a dead
 * connection, which the bus thread reaps. */
static void _lmq_bus_control(lmq_bus *bus, _lmq_bus_conn *conn, const lmq_frame *frame) {
  (void)_lmq_bus_send_frame(bus, conn, frame, NULL, 0, 0, 1);
}

/* Sends a control frame to every active connection but the one of
 * except_node. */
static void _lmq_bus_broadcast_nolock(lmq_bus *bus, const lmq_frame *frame, uint32_t except_node) {
  uint32_t i;

  for (i = 0; i < bus->conn_count; i++) {
    _lmq_bus_conn *conn = bus->conns[i];
    if (conn->active && conn->node != except_node) _lmq_bus_control(bus, conn, frame);
  }
}

/* Sends a control frame to the peers that hold a service, but not to
 * except_node. */
static void _lmq_bus_tell_holders_nolock(lmq_bus *bus, const _lmq_service *service,
                                         const lmq_frame *frame, uint32_t except_node) {
  uint32_t i;

  for (i = 0; i < service->bus.holder_count; i++) {
    _lmq_bus_conn *conn;
    if (service->bus.holders[i] == except_node) continue;
    conn = _lmq_bus_conn_find_nolock(bus, service->bus.holders[i]);
    if (conn != NULL) _lmq_bus_control(bus, conn, frame);
  }
}

/* Tells the holders of a service (hub) that a member came or went. */
static void _lmq_bus_announce_member_nolock(lmq_bus *bus, const _lmq_service *service,
                                            uint8_t type, int as_host, uint32_t node,
                                            uint32_t client) {
  lmq_frame frame;

  _lmq_bus_frame_init(&frame, type);
  frame.service_id = service->id;
  frame.role = _lmq_bus_role_code(as_host);
  frame.node = node;
  frame.client = client;
  _lmq_bus_tell_holders_nolock(bus, service, &frame, node);
}

/* --- Presence (hub) ---------------------------------------------------------- */

/* Queues a system message of type for the client target_client of
 * target_node about the client about_client of about_node: delivered here
 * for a local target, else sent to the target's node. */
static void _lmq_bus_sysmsg_nolock(lmq_bus *bus, uint32_t target_node, uint32_t target_client,
                                   uint32_t type, int16_t service_id, uint32_t about_node,
                                   uint32_t about_client, const char *caller) {
  lmq_server *server = bus->server;

  if (target_node == server->node) {
    _lmq_client_rec *target = lmq_client_find_nolock(server, target_client);
    if (target != NULL) {
      lmq_send_sysmsg_nolock(target, about_node, about_client, type, service_id, caller);
    }
  } else {
    _lmq_bus_conn *conn = _lmq_bus_conn_find_nolock(bus, target_node);
    lmq_frame frame;
    if (conn == NULL) return;
    _lmq_bus_frame_init(&frame, LMQ_FRAME_SYSMSG);
    frame.service_id = service_id;
    frame.sysmsg_type = type;
    frame.client = target_client;
    frame.peer_node = about_node;
    frame.peer_client = about_client;
    _lmq_bus_control(bus, conn, &frame);
  }
}

/*
 * A new member (node, client) of a service, as host or subscriber, meets
 * every member of the other role on another node: each of the pair learns
 * of the other (the host gets LMQ_SYSMSG_SUBSCRIBER_PRESENT, the
 * subscriber LMQ_SYSMSG_HOST_PRESENT). Pairs within one node are that
 * node's own business.
 */
static void _lmq_bus_pair_nolock(lmq_bus *bus, const _lmq_service *service, uint32_t node,
                                 uint32_t client, int as_host, const char *caller) {
  lmq_server *server = bus->server;
  uint32_t to_new = as_host ? LMQ_SYSMSG_SUBSCRIBER_PRESENT : LMQ_SYSMSG_HOST_PRESENT;
  uint32_t to_other = as_host ? LMQ_SYSMSG_HOST_PRESENT : LMQ_SYSMSG_SUBSCRIBER_PRESENT;
  const _lmq_members *local = as_host ? &service->subscribers : &service->hosts;
  const lmq_bus_members *remote = as_host ? &service->bus.subscribers : &service->bus.hosts;
  uint32_t i;

  if (node != server->node) {
    for (i = 0; i < local->count; i++) {
      uint32_t other = local->items[i]->number;
      _lmq_bus_sysmsg_nolock(bus, node, client, to_new, service->id, server->node, other, caller);
      _lmq_bus_sysmsg_nolock(bus, server->node, other, to_other, service->id, node, client,
                             caller);
    }
  }
  for (i = 0; i < remote->count; i++) {
    lmq_bus_member other = remote->items[i];
    if (other.node == node) continue;
    _lmq_bus_sysmsg_nolock(bus, node, client, to_new, service->id, other.node, other.client,
                           caller);
    _lmq_bus_sysmsg_nolock(bus, other.node, other.client, to_other, service->id, node, client,
                           caller);
  }
}

/* --- Messages ---------------------------------------------------------------- */

/* Delivers a message that came over the bus to one local client; a queue
 * without room drops it, logged. A reply may be held back in *offer (null:
 * never). */
static void _lmq_bus_deliver_one(_lmq_client_rec *target, const lmq_address *from,
                                 const lmq_frame *frame, lmq_offer *offer) {
  lmq_iovec entry;
  int rc;

  entry.base = (void *)(uintptr_t)frame->tail;
  entry.len = frame->tail_len;
  rc = lmq_deliver(target, from, &entry, 1, frame->tail_len, 0, offer);
  if (rc < 0) {
    LMQ_LOG(LMQ_LVL_FAIL,
            "%s(): message of %u bytes from node %u dropped, client %u cannot take it "
            "(code %d)\n",
            __func__, (unsigned)frame->tail_len, (unsigned)from->node, (unsigned)target->number,
            rc);
  }
}

/* Delivers a command or notification that came over the bus to the local
 * hosts or subscribers of its service; a notification may go to one idle
 * handler through *offer. */
static void _lmq_bus_deliver_local_nolock(const _lmq_service *service, const lmq_address *from,
                                          const lmq_frame *frame, lmq_offer *offer) {
  const _lmq_members *members =
      from->kind == LMQ_KIND_COMMAND ? &service->hosts : &service->subscribers;
  uint32_t i;

  for (i = 0; i < members->count; i++) {
    _lmq_bus_deliver_one(members->items[i], from, frame, offer);
  }
}

/*
 * Sends a command or notification to the service's members on other
 * nodes, but not to skip_node (where it came from): a peer sends one frame
 * to its hub, the hub one frame to each node concerned. Returns 0 or the
 * first failure (-105, -113; a notification never gives -113). With
 * check_only (a hub passing a frame on) nothing is sent: it returns
 * LMQ_BUS_WAIT when some connection has no room for it yet, else 0.
 */
static int _lmq_bus_fanout_nolock(lmq_bus *bus, const _lmq_service *service,
                                  const lmq_address *from, const lmq_iovec *vector,
                                  uint32_t count, uint32_t size, uint32_t skip_node,
                                  int check_only) {
  const lmq_bus_members *members =
      from->kind == LMQ_KIND_COMMAND ? &service->bus.hosts : &service->bus.subscribers;
  unsigned char head[LMQ_FRAME_HEAD_MAX];
  uint32_t head_len;
  lmq_frame frame;
  int first = 0;
  uint32_t i;

  _lmq_bus_frame_init(&frame,
                      from->kind == LMQ_KIND_COMMAND ? LMQ_FRAME_COMMAND : LMQ_FRAME_NOTIFY);
  frame.service_id = service->id;
  frame.peer_node = from->node;
  frame.peer_client = from->client;
  frame.sequence = from->sequence;
  head_len = lmq_frame_encode(head, &frame, size);

  for (i = 0; i < members->count; i++) {
    uint32_t node = members->items[i].node;
    _lmq_bus_conn *conn;
    uint32_t j;
    int rc;

    if (node == skip_node) continue;
    for (j = 0; j < i && members->items[j].node != node; j++) {
    }
    if (j < i) continue; /* that node has its frame */
    conn = bus->role == LMQ_BUS_PEER ? _lmq_bus_hub_conn_nolock(bus)
                                     : _lmq_bus_conn_find_nolock(bus, node);
    if (check_only) {
      if (conn != NULL && !_lmq_bus_relay_room(conn, head_len + size)) first = LMQ_BUS_WAIT;
      continue;
    }
    rc = conn != NULL ? _lmq_bus_conn_write(bus, conn, head, head_len, vector, count, size, 0)
                      : -EHOSTUNREACH;
    if (rc == -EHOSTUNREACH && from->kind != LMQ_KIND_COMMAND) rc = 0;
    if (rc < 0 && first == 0) first = rc;
    if (bus->role == LMQ_BUS_PEER) break; /* the hub passes it on */
  }
  return first;
}

int lmq_bus_send_nolock(lmq_server *server, _lmq_service *service, const lmq_address *from,
                        const lmq_iovec *vector, uint32_t count, uint32_t size) {
  return _lmq_bus_fanout_nolock(server->bus, service, from, vector, count, size, server->node, 0);
}

int lmq_bus_knows_client_nolock(const lmq_server *server, const lmq_address *to) {
  return _lmq_bus_client_known(server->bus, to->node, to->client);
}

/* Sends a reply frame to the client of another node; the one routine for
 * a local sender and for a hub passing one on. check_only as for
 * _lmq_bus_fanout_nolock. */
static int _lmq_bus_reply_nolock(lmq_bus *bus, uint32_t to_node, uint32_t to_client,
                                 const lmq_address *from, const lmq_iovec *vector,
                                 uint32_t count, uint32_t size, int check_only) {
  _lmq_bus_conn *conn = bus->role == LMQ_BUS_PEER ? _lmq_bus_hub_conn_nolock(bus)
                                                  : _lmq_bus_conn_find_nolock(bus, to_node);
  unsigned char head[LMQ_FRAME_HEAD_MAX];
  uint32_t head_len;
  lmq_frame frame;

  if (conn == NULL) return check_only ? 0 : -EHOSTUNREACH;
  _lmq_bus_frame_init(&frame, LMQ_FRAME_REPLY);
  frame.node = to_node;
  frame.client = to_client;
  frame.service_id = from->service_id;
  frame.peer_node = from->node;
  frame.peer_client = from->client;
  frame.sequence = from->sequence;
  head_len = lmq_frame_encode(head, &frame, size);
  if (check_only) return _lmq_bus_relay_room(conn, head_len + size) ? 0 : LMQ_BUS_WAIT;
  return _lmq_bus_conn_write(bus, conn, head, head_len, vector, count, size, 0);
}

int lmq_bus_reply_nolock(lmq_server *server, const lmq_address *to, const lmq_address *from,
                         const lmq_iovec *vector, uint32_t count, uint32_t size) {
  return _lmq_bus_reply_nolock(server->bus, to->node, to->client, from, vector, count, size, 0);
}

/* --- Local changes ------------------------------------------------------------ */

/* Tells the others of a change of this server's clients (CLIENT_ADD or
 * CLIENT_DEL): a hub every peer, a peer its hub. */
static void _lmq_bus_client_changed_nolock(lmq_server *server, uint8_t type, uint32_t number) {
  lmq_bus *bus = server->bus;
  lmq_frame frame;

  _lmq_bus_frame_init(&frame, type);
  frame.node = server->node;
  frame.client = number;
  if (bus->role == LMQ_BUS_HUB) {
    _lmq_bus_broadcast_nolock(bus, &frame, 0);
  } else if (_lmq_bus_hub_conn_nolock(bus) != NULL) {
    _lmq_bus_control(bus, _lmq_bus_hub_conn_nolock(bus), &frame);
  }
}

void lmq_bus_client_added_nolock(lmq_server *server, uint32_t number) {
  _lmq_bus_client_changed_nolock(server, LMQ_FRAME_CLIENT_ADD, number);
}

void lmq_bus_client_removed_nolock(lmq_server *server, uint32_t number) {
  _lmq_bus_client_changed_nolock(server, LMQ_FRAME_CLIENT_DEL, number);
}

/* A peer's JOIN or LEAVE to its hub. */
static void _lmq_bus_tell_hub_nolock(lmq_bus *bus, uint8_t type, const _lmq_service *service,
                                     uint32_t number, int as_host) {
  _lmq_bus_conn *conn = _lmq_bus_hub_conn_nolock(bus);
  lmq_frame frame;

  if (conn == NULL) return;
  _lmq_bus_frame_init(&frame, type);
  frame.service_id = service->id;
  frame.role = _lmq_bus_role_code(as_host);
  frame.client = number;
  _lmq_bus_control(bus, conn, &frame);
}

void lmq_bus_joined_nolock(lmq_server *server, _lmq_service *service, _lmq_client_rec *rec,
                           int as_host, const char *caller) {
  lmq_bus *bus = server->bus;

  if (bus->role == LMQ_BUS_PEER) {
    _lmq_bus_tell_hub_nolock(bus, LMQ_FRAME_JOIN, service, rec->number, as_host);
    return;
  }
  /* Every node knows the new member before any of its clients hears of
   * it: a client that answers the presence message at once finds it. */
  _lmq_bus_announce_member_nolock(bus, service, LMQ_FRAME_MEMBER_ADD, as_host, server->node,
                                  rec->number);
  _lmq_bus_pair_nolock(bus, service, server->node, rec->number, as_host, caller);
}

void lmq_bus_left_nolock(lmq_server *server, _lmq_service *service, uint32_t number,
                         int as_host) {
  lmq_bus *bus = server->bus;

  if (bus->role == LMQ_BUS_PEER) {
    _lmq_bus_tell_hub_nolock(bus, LMQ_FRAME_LEAVE, service, number, as_host);
  } else {
    _lmq_bus_announce_member_nolock(bus, service, LMQ_FRAME_MEMBER_DEL, as_host, server->node,
                                    number);
  }
}

int lmq_bus_service_unused_nolock(lmq_server *server, _lmq_service *service) {
  lmq_bus *bus = server->bus;
  uint32_t i;

  if (bus->role == LMQ_BUS_PEER) {
    _lmq_bus_conn *conn = _lmq_bus_hub_conn_nolock(bus);
    if (conn != NULL) {
      lmq_frame frame;
      _lmq_bus_frame_init(&frame, LMQ_FRAME_UNREGISTER);
      frame.service_id = service->id;
      _lmq_bus_control(bus, conn, &frame);
    }
    return 1;
  }
  if (service->bus.holder_count == 0) return 1;
  /* Peers still hold the name: keep the record for them, without the
   * hub's own members. */
  for (i = 0; i < service->hosts.count; i++) {
    _lmq_bus_announce_member_nolock(bus, service, LMQ_FRAME_MEMBER_DEL, 1, server->node,
                                    service->hosts.items[i]->number);
  }
  for (i = 0; i < service->subscribers.count; i++) {
    _lmq_bus_announce_member_nolock(bus, service, LMQ_FRAME_MEMBER_DEL, 0, server->node,
                                    service->subscribers.items[i]->number);
  }
  lmq_members_free(&service->hosts);
  lmq_members_free(&service->subscribers);
  return 0;
}

void lmq_bus_clock_moved_nolock(lmq_server *server) {
  _lmq_bus_wake(server->bus);
}

int lmq_bus_asks_hub_nolock(const lmq_server *server) {
  return _lmq_bus_hub_conn_nolock(server->bus) != NULL;
}

/* --- Frames on the hub ------------------------------------------------------------ */

/* A frame that is well formed but makes no sense where it came. */
static int _lmq_bus_unexpected(char *why, size_t why_size, const lmq_frame *frame) {
  snprintf(why, why_size, "unexpected type %u", (unsigned)frame->type);
  return -EBADMSG;
}

/* A peer says hello: it gets the hub's node and every client known, or a
 * refusal when its node number is taken. Returns 0, 1 (refused: stop
 * reading), -74, -12. */
static int _lmq_bus_hub_hello_nolock(lmq_bus *bus, _lmq_bus_conn *conn, const lmq_frame *frame,
                                     char *why, size_t why_size) {
  lmq_server *server = bus->server;
  lmq_frame out;
  uint32_t b;

  if (frame->magic != LMQ_FRAME_MAGIC) {
    snprintf(why, why_size, "bad magic 0x%08x", (unsigned)frame->magic);
    return -EBADMSG;
  }
  if (frame->version != LMQ_FRAME_VERSION || frame->node == 0 || frame->node == server->node ||
      _lmq_bus_conn_find_nolock(bus, frame->node) != NULL) {
    int code = frame->version != LMQ_FRAME_VERSION ? -EPROTO : -EEXIST;
    LMQ_LOG(LMQ_LVL_FAIL, "%s(): node %u refused (code %d)\n", __func__, (unsigned)frame->node,
            code);
    _lmq_bus_frame_init(&out, LMQ_FRAME_REFUSED);
    out.result = code;
    _lmq_bus_control(bus, conn, &out);
    return 1;
  }
  conn->node = frame->node;
  conn->active = 1;
  _lmq_bus_frame_init(&out, LMQ_FRAME_WELCOME);
  out.magic = LMQ_FRAME_MAGIC;
  out.version = LMQ_FRAME_VERSION;
  out.node = server->node;
  _lmq_bus_control(bus, conn, &out);

  _lmq_bus_frame_init(&out, LMQ_FRAME_CLIENT_ADD);
  for (b = 0; b < LMQ_BUCKETS; b++) {
    const _lmq_client_rec *rec;
    for (rec = server->clients[b]; rec != NULL; rec = rec->next) {
      out.node = server->node;
      out.client = rec->number;
      _lmq_bus_control(bus, conn, &out);
    }
  }
  for (b = 0; b < LMQ_BUS_CLIENT_BUCKETS; b++) {
    const _lmq_bus_client *entry;
    for (entry = bus->clients[b]; entry != NULL; entry = entry->next) {
      out.node = entry->node;
      out.client = entry->client;
      _lmq_bus_control(bus, conn, &out);
    }
  }
  return 0;
}

/* A peer asks for a name's id: it becomes a holder and gets the id, then
 * the service's members on other nodes. */
static int _lmq_bus_hub_register_nolock(lmq_bus *bus, _lmq_bus_conn *conn,
                                        const lmq_frame *frame) {
  lmq_server *server = bus->server;
  const char *name = (const char *)frame->tail;
  _lmq_service *service = lmq_service_find_name_nolock(server, name, frame->tail_len);
  lmq_frame out;
  uint32_t i;
  lmq_iovec entry;

  if (service == NULL) service = lmq_service_create_nolock(server, name, frame->tail_len, 0);
  _lmq_bus_frame_init(&out, LMQ_FRAME_REGISTERED);
  out.token = frame->token;
  if (service == NULL || _lmq_bus_holder_add(&service->bus, conn->node) < 0) {
    if (service != NULL && service->refs == 0 && service->bus.holder_count == 0) {
      lmq_service_delete_nolock(server, service);
    }
    out.result = -ENOMEM;
  } else {
    out.service_id = service->id;
  }
  entry.base = (void *)(uintptr_t)frame->tail;
  entry.len = frame->tail_len;
  (void)_lmq_bus_send_frame(bus, conn, &out, &entry, 1, frame->tail_len, 1);
  if (out.result < 0) return 0;

  _lmq_bus_frame_init(&out, LMQ_FRAME_MEMBER_ADD);
  out.service_id = service->id;
  for (i = 0; i < service->hosts.count + service->subscribers.count; i++) {
    int host = i < service->hosts.count;
    out.role = _lmq_bus_role_code(host);
    out.node = server->node;
    out.client = host ? service->hosts.items[i]->number
                      : service->subscribers.items[i - service->hosts.count]->number;
    _lmq_bus_control(bus, conn, &out);
  }
  for (i = 0; i < service->bus.hosts.count + service->bus.subscribers.count; i++) {
    int host = i < service->bus.hosts.count;
    lmq_bus_member m = host ? service->bus.hosts.items[i]
                            : service->bus.subscribers.items[i - service->bus.hosts.count];
    if (m.node == conn->node) continue;
    out.role = _lmq_bus_role_code(host);
    out.node = m.node;
    out.client = m.client;
    _lmq_bus_control(bus, conn, &out);
  }
  return 0;
}

/* A peer dropped a name: its members of the service go, then the holder. */
static void _lmq_bus_hub_unregister_nolock(lmq_bus *bus, _lmq_bus_conn *conn,
                                           _lmq_service *service) {
  int role;

  for (role = 0; role < 2; role++) {
    lmq_bus_members *members = role == 0 ? &service->bus.hosts : &service->bus.subscribers;
    uint32_t i;
    for (i = 0; i < members->count; i++) {
      if (members->items[i].node != conn->node) continue;
      _lmq_bus_announce_member_nolock(bus, service, LMQ_FRAME_MEMBER_DEL, role == 0, conn->node,
                                      members->items[i].client);
    }
    (void)_lmq_bus_members_drop(members, conn->node, 0);
  }
  _lmq_bus_holder_drop(&service->bus, conn->node);
  if (service->refs == 0 && service->bus.holder_count == 0) {
    lmq_service_delete_nolock(bus->server, service);
  }
}

/* A client of a peer joins (JOIN) or leaves (LEAVE) a service it holds. */
static int _lmq_bus_hub_membership_nolock(lmq_bus *bus, _lmq_bus_conn *conn,
                                          _lmq_service *service, const lmq_frame *frame) {
  int as_host = frame->role == LMQ_FRAME_ROLE_HOST;
  lmq_bus_members *members = as_host ? &service->bus.hosts : &service->bus.subscribers;

  if (frame->type == LMQ_FRAME_JOIN) {
    int rc = _lmq_bus_members_add(members, conn->node, frame->client);
    if (rc <= 0) return rc;
    /* Member first, presence second, as for a member of this node. */
    _lmq_bus_announce_member_nolock(bus, service, LMQ_FRAME_MEMBER_ADD, as_host, conn->node,
                                    frame->client);
    _lmq_bus_pair_nolock(bus, service, conn->node, frame->client, as_host, __func__);
  } else if (_lmq_bus_members_drop(members, conn->node, frame->client) > 0) {
    _lmq_bus_announce_member_nolock(bus, service, LMQ_FRAME_MEMBER_DEL, as_host, conn->node,
                                    frame->client);
  }
  return 0;
}

/* A peer's command, notification or reply: delivered here and passed on,
 * once every connection it goes to has room. Returns 0 or LMQ_BUS_WAIT
 * (nothing done yet). */
static int _lmq_bus_hub_message_nolock(lmq_bus *bus, _lmq_bus_conn *conn,
                                       const lmq_frame *frame) {
  lmq_server *server = bus->server;
  lmq_iovec entry;
  lmq_address from;

  memset(&from, 0, sizeof(from));
  from.node = frame->peer_node;
  from.client = frame->peer_client;
  from.service_id = frame->service_id;
  from.sequence = frame->sequence;
  entry.base = (void *)(uintptr_t)frame->tail;
  entry.len = frame->tail_len;

  if (frame->type == LMQ_FRAME_REPLY) {
    from.kind = LMQ_KIND_REPLY;
    if (frame->node == server->node) {
      _lmq_client_rec *target = lmq_client_find_nolock(server, frame->client);
      if (target != NULL) _lmq_bus_deliver_one(target, &from, frame, conn->offer);
      return 0;
    }
    if (_lmq_bus_reply_nolock(bus, frame->node, frame->client, &from, &entry, 1, frame->tail_len,
                              1) == LMQ_BUS_WAIT) {
      return LMQ_BUS_WAIT;
    }
    (void)_lmq_bus_reply_nolock(bus, frame->node, frame->client, &from, &entry, 1,
                                frame->tail_len, 0);
  } else {
    _lmq_service *service = lmq_service_lookup_nolock(server, frame->service_id);
    from.kind = frame->type == LMQ_FRAME_COMMAND ? LMQ_KIND_COMMAND : LMQ_KIND_NOTIFY;
    if (service == NULL) return 0;
    if (_lmq_bus_fanout_nolock(bus, service, &from, &entry, 1, frame->tail_len, conn->node, 1) ==
        LMQ_BUS_WAIT) {
      return LMQ_BUS_WAIT;
    }
    _lmq_bus_deliver_local_nolock(service, &from, frame, conn->offer);
    (void)_lmq_bus_fanout_nolock(bus, service, &from, &entry, 1, frame->tail_len, conn->node, 0);
  }
  return 0;
}

/* Either side: a ping is answered with a pong of the same token, a pong
 * ends the sync that waits for its token. */
static void _lmq_bus_ping_pong(lmq_bus *bus, _lmq_bus_conn *conn, const lmq_frame *frame) {
  lmq_frame out;

  if (frame->type == LMQ_FRAME_PING) {
    _lmq_bus_frame_init(&out, LMQ_FRAME_PONG);
    out.token = frame->token;
    _lmq_bus_control(bus, conn, &out);
    return;
  }
  pthread_mutex_lock(&bus->state_mutex);
  conn->ponged = frame->token;
  pthread_cond_broadcast(&bus->state_cond);
  pthread_mutex_unlock(&bus->state_mutex);
}

/* Handles one frame from a peer, server mutex held. Returns 0, 1 (stop
 * reading this connection), LMQ_BUS_WAIT (try the frame again later),
 * -74 with why filled, -12. */
static int _lmq_bus_hub_frame_nolock(lmq_bus *bus, _lmq_bus_conn *conn, const lmq_frame *frame,
                                     char *why, size_t why_size) {
  _lmq_service *service = NULL;

  if (!conn->active) {
    if (frame->type != LMQ_FRAME_HELLO) return _lmq_bus_unexpected(why, why_size, frame);
    return _lmq_bus_hub_hello_nolock(bus, conn, frame, why, why_size);
  }
  switch (frame->type) {
    case LMQ_FRAME_PING:
    case LMQ_FRAME_PONG:
      _lmq_bus_ping_pong(bus, conn, frame);
      return 0;
    case LMQ_FRAME_CLIENT_ADD:
    case LMQ_FRAME_CLIENT_DEL:
      if (frame->node != conn->node || frame->client == 0) break;
      if (frame->type == LMQ_FRAME_CLIENT_ADD) {
        if (_lmq_bus_client_add(bus, frame->node, frame->client) < 0) return -ENOMEM;
      } else {
        _lmq_bus_forget_nolock(bus, frame->node, frame->client);
      }
      _lmq_bus_broadcast_nolock(bus, frame, conn->node);
      return 0;
    case LMQ_FRAME_REGISTER:
      return _lmq_bus_hub_register_nolock(bus, conn, frame);
    case LMQ_FRAME_UNREGISTER:
    case LMQ_FRAME_JOIN:
    case LMQ_FRAME_LEAVE:
      service = lmq_service_lookup_nolock(bus->server, frame->service_id);
      if (service == NULL || _lmq_bus_holder_find(&service->bus, conn->node) < 0) break;
      if (frame->type == LMQ_FRAME_UNREGISTER) {
        _lmq_bus_hub_unregister_nolock(bus, conn, service);
        return 0;
      }
      if (!_lmq_bus_client_known(bus, conn->node, frame->client)) break;
      return _lmq_bus_hub_membership_nolock(bus, conn, service, frame);
    case LMQ_FRAME_COMMAND:
    case LMQ_FRAME_NOTIFY:
    case LMQ_FRAME_REPLY:
      if (frame->peer_node != conn->node) break;
      return _lmq_bus_hub_message_nolock(bus, conn, frame);
    default:
      break;
  }
  return _lmq_bus_unexpected(why, why_size, frame);
}

/* --- Frames on a peer ---------------------------------------------------------- */

/* The hub gave an id: the record is made now, on this thread, so that the
 * member frames that follow find it. */
static int _lmq_bus_peer_registered_nolock(lmq_bus *bus, const lmq_frame *frame) {
  lmq_server *server = bus->server;
  const char *name = (const char *)frame->tail;

  if (frame->result == 0) {
    _lmq_service *by_id = lmq_service_lookup_nolock(server, frame->service_id);
    _lmq_service *by_name = lmq_service_find_name_nolock(server, name, frame->tail_len);
    if (by_id != by_name || frame->service_id <= 0) return -EBADMSG;
    if (by_id == NULL &&
        lmq_service_create_nolock(server, name, frame->tail_len, frame->service_id) == NULL) {
      return -ENOMEM;
    }
  }
  pthread_mutex_lock(&bus->state_mutex);
  if (frame->token == bus->reg_token) {
    bus->reg_done = 1;
    bus->reg_result = frame->result;
    bus->reg_id = frame->service_id;
    pthread_cond_broadcast(&bus->state_cond);
  }
  pthread_mutex_unlock(&bus->state_mutex);
  return 0;
}

/* A system message from the hub for a local client, delivered while the
 * client still has the role that the message is about. */
static void _lmq_bus_peer_sysmsg_nolock(lmq_bus *bus, const lmq_frame *frame) {
  lmq_server *server = bus->server;
  _lmq_service *service = lmq_service_lookup_nolock(server, frame->service_id);
  _lmq_client_rec *target = lmq_client_find_nolock(server, frame->client);
  const _lmq_members *role;

  if (service == NULL || target == NULL) return;
  role = frame->sysmsg_type == LMQ_SYSMSG_HOST_PRESENT ? &service->subscribers : &service->hosts;
  if (lmq_members_find(role, target) < 0) return;
  lmq_send_sysmsg_nolock(target, frame->peer_node, frame->peer_client, frame->sysmsg_type,
                         frame->service_id, __func__);
}

/* A command, notification or reply from the hub for local clients. */
static int _lmq_bus_peer_message_nolock(lmq_bus *bus, _lmq_bus_conn *conn,
                                        const lmq_frame *frame) {
  lmq_server *server = bus->server;
  lmq_address from;

  memset(&from, 0, sizeof(from));
  from.node = frame->peer_node;
  from.client = frame->peer_client;
  from.service_id = frame->service_id;
  from.sequence = frame->sequence;
  if (frame->type == LMQ_FRAME_REPLY) {
    _lmq_client_rec *target;
    if (frame->node != server->node) return -EBADMSG;
    from.kind = LMQ_KIND_REPLY;
    target = lmq_client_find_nolock(server, frame->client);
    if (target != NULL) _lmq_bus_deliver_one(target, &from, frame, conn->offer);
  } else {
    _lmq_service *service = lmq_service_lookup_nolock(server, frame->service_id);
    from.kind = frame->type == LMQ_FRAME_COMMAND ? LMQ_KIND_COMMAND : LMQ_KIND_NOTIFY;
    if (service != NULL) _lmq_bus_deliver_local_nolock(service, &from, frame, conn->offer);
  }
  return 0;
}

/* Handles one frame from the hub, server mutex held. Returns as
 * _lmq_bus_hub_frame_nolock. */
static int _lmq_bus_peer_frame_nolock(lmq_bus *bus, _lmq_bus_conn *conn, const lmq_frame *frame,
                                      char *why, size_t why_size) {
  lmq_server *server = bus->server;
  _lmq_service *service;
  int rc;

  if (!conn->active && frame->type != LMQ_FRAME_WELCOME && frame->type != LMQ_FRAME_REFUSED) {
    return _lmq_bus_unexpected(why, why_size, frame);
  }
  switch (frame->type) {
    case LMQ_FRAME_WELCOME:
      if (conn->active || frame->magic != LMQ_FRAME_MAGIC ||
          frame->version != LMQ_FRAME_VERSION || frame->node == 0 ||
          frame->node == server->node) {
        break;
      }
      conn->node = frame->node;
      conn->active = 1;
      bus->hub_node = frame->node;
      return 0;
    case LMQ_FRAME_REFUSED:
      pthread_mutex_lock(&bus->state_mutex);
      bus->refused = frame->result < 0 ? frame->result : -ECONNREFUSED;
      pthread_mutex_unlock(&bus->state_mutex);
      return 1;
    case LMQ_FRAME_PING:
    case LMQ_FRAME_PONG:
      _lmq_bus_ping_pong(bus, conn, frame);
      return 0;
    case LMQ_FRAME_CLIENT_ADD:
      if (frame->node == server->node || frame->node == 0 || frame->client == 0) break;
      return _lmq_bus_client_add(bus, frame->node, frame->client);
    case LMQ_FRAME_CLIENT_DEL:
      if (frame->node == server->node || frame->node == 0 || frame->client == 0) break;
      _lmq_bus_forget_nolock(bus, frame->node, frame->client);
      return 0;
    case LMQ_FRAME_NODE_DEL:
      if (frame->node == server->node || frame->node == 0) break;
      _lmq_bus_forget_nolock(bus, frame->node, 0);
      return 0;
    case LMQ_FRAME_REGISTERED:
      rc = _lmq_bus_peer_registered_nolock(bus, frame);
      if (rc != -EBADMSG) return rc;
      break;
    case LMQ_FRAME_MEMBER_ADD:
    case LMQ_FRAME_MEMBER_DEL:
      if (frame->node == server->node || frame->node == 0) break;
      service = lmq_service_lookup_nolock(server, frame->service_id);
      if (service == NULL) return 0; /* dropped here, the hub's news is late */
      if (frame->type == LMQ_FRAME_MEMBER_DEL) {
        (void)_lmq_bus_members_drop(frame->role == LMQ_FRAME_ROLE_HOST ? &service->bus.hosts
                                                                       : &service->bus.subscribers,
                                    frame->node, frame->client);
        return 0;
      }
      rc = _lmq_bus_members_add(frame->role == LMQ_FRAME_ROLE_HOST ? &service->bus.hosts
                                                                   : &service->bus.subscribers,
                                frame->node, frame->client);
      return rc < 0 ? rc : 0;
    case LMQ_FRAME_SYSMSG:
      if (frame->sysmsg_type != LMQ_SYSMSG_HOST_PRESENT &&
          frame->sysmsg_type != LMQ_SYSMSG_SUBSCRIBER_PRESENT) {
        break;
      }
      _lmq_bus_peer_sysmsg_nolock(bus, frame);
      return 0;
    case LMQ_FRAME_COMMAND:
    case LMQ_FRAME_NOTIFY:
    case LMQ_FRAME_REPLY:
      if (_lmq_bus_peer_message_nolock(bus, conn, frame) == 0) return 0;
      break;
    default:
      break;
  }
  return _lmq_bus_unexpected(why, why_size, frame);
}

/* --- The bus thread --------------------------------------------------------------- */

/* A connection ends: all that its node had goes, and the other peers hear
 * of it (hub), or every other node is forgotten (peer). It is no longer
 * found for routing, so a node that comes back at once is welcome again.
 * Server mutex held; done once. */
static void _lmq_bus_retire_nolock(lmq_bus *bus, _lmq_bus_conn *conn) {
  if (conn->retired) return;
  conn->retired = 1;
  if (bus->role == LMQ_BUS_PEER) {
    _lmq_bus_forget_nolock(bus, 0, 0);
    bus->hub_node = 0;
  } else if (conn->active) {
    lmq_frame frame;
    conn->active = 0;
    _lmq_bus_forget_nolock(bus, conn->node, 0);
    _lmq_bus_frame_init(&frame, LMQ_FRAME_NODE_DEL);
    frame.node = conn->node;
    _lmq_bus_broadcast_nolock(bus, &frame, 0);
  }
  conn->active = 0;
}

static void _lmq_bus_receive(lmq_bus *bus, _lmq_bus_conn *conn, int did_read, ssize_t n);
static void _lmq_bus_uncork_one(_lmq_bus_conn *conn);

/* Reads what the socket has (with do_read; a stalled connection is not
 * read) and handles it with _lmq_bus_receive. The reader holds in_mutex
 * and has set conn->offer. */
static void _lmq_bus_pull(lmq_bus *bus, _lmq_bus_conn *conn, int do_read) {
  ssize_t n = 0;

  if (do_read) {
    do {
      n = recv(conn->fd, conn->in + conn->in_len, LMQ_BUS_IN_BYTES - conn->in_len, MSG_DONTWAIT);
    } while (n < 0 && errno == EINTR);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
  }
  _lmq_bus_receive(bus, conn, do_read, n);
}

/* Takes a read of n bytes (did_read) into the input buffer and handles
 * every whole frame there. A frame that must wait stays there, first, and
 * the connection is stalled until it goes. A broken frame, or the end of
 * the stream inside a frame, drops the connection with a log line; a
 * clean end drops it quietly. */
static void _lmq_bus_receive(lmq_bus *bus, _lmq_bus_conn *conn, int did_read, ssize_t n) {
  uint32_t direction = bus->role == LMQ_BUS_HUB ? LMQ_FRAME_TO_HUB : LMQ_FRAME_TO_PEER;
  char why[LMQ_BUS_WHY_SIZE];
  uint32_t pos = 0;
  int rc = 0;

  if (did_read && n <= 0) {
    /* The end of the stream, or a reset (a peer that closes with frames
     * unread), inside a frame. */
    if (conn->in_len > 0) {
      snprintf(why, sizeof(why), "truncated, %u bytes of a frame", (unsigned)conn->in_len);
      rc = -EBADMSG;
    }
    goto stop;
  }
  conn->in_len += (uint32_t)n;
  /* Written only when it changes: a leader's connection (a peer's) never
   * stalls, and the bus thread reads the flag. */
  if (conn->stalled) conn->stalled = 0;

  while (conn->in_len - pos >= LMQ_FRAME_LENGTH_SIZE) {
    uint32_t length = lmq_get_be32(conn->in + pos);
    lmq_frame frame;

    if (!lmq_frame_length_ok(length)) {
      snprintf(why, sizeof(why), "bad length %u", (unsigned)length);
      rc = -EBADMSG;
      goto stop;
    }
    if (conn->in_len - pos - LMQ_FRAME_LENGTH_SIZE < length) break;
    rc = lmq_frame_decode(&frame, conn->in + pos + LMQ_FRAME_LENGTH_SIZE, length, direction, why,
                          sizeof(why));
    if (rc == 0) {
      pthread_mutex_lock(&bus->server->mutex);
      rc = bus->role == LMQ_BUS_HUB
               ? _lmq_bus_hub_frame_nolock(bus, conn, &frame, why, sizeof(why))
               : _lmq_bus_peer_frame_nolock(bus, conn, &frame, why, sizeof(why));
      pthread_mutex_unlock(&bus->server->mutex);
      lmq_offer_run(conn->offer);
    }
    if (rc == LMQ_BUS_WAIT) {
      conn->stalled = 1;
      break;
    }
    if (rc != 0) goto stop;
    pos += LMQ_FRAME_LENGTH_SIZE + length;
  }
  memmove(conn->in, conn->in + pos, conn->in_len - pos);
  conn->in_len -= pos;
  return;

stop:
  if (rc == -EBADMSG) {
    LMQ_LOG(LMQ_LVL_FAIL, "%s(): node %u sent a broken frame (%s), disconnected\n", __func__,
            (unsigned)conn->node, why);
  } else if (rc == -ENOMEM) {
    LMQ_LOG(LMQ_LVL_FAIL, "%s(): no memory for the tables of node %u, disconnected\n", __func__,
            (unsigned)conn->node);
  }
  conn->in_len = 0;
  pthread_mutex_lock(&bus->server->mutex);
  _lmq_bus_retire_nolock(bus, conn);
  pthread_mutex_unlock(&bus->server->mutex);
  /* A last word to it (a refusal) goes before the end. */
  _lmq_bus_uncork_one(conn);
  _lmq_bus_conn_kill(bus, conn);
}

/* Writes out what waits in a connection's buffer, as far as the socket
 * takes it; bus thread, out_mutex held. */
static void _lmq_bus_flush_nolock(_lmq_bus_conn *conn) {
  while (!conn->dead && conn->out_start < conn->out_end) {
    ssize_t n = send(conn->fd, conn->out + conn->out_start, conn->out_end - conn->out_start,
                     MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN && errno != EWOULDBLOCK) conn->dead = 1;
      break;
    }
    conn->out_start += (uint32_t)n;
    /* It takes frames: whatever waits for it may try again. */
    conn->blocking = 0;
    conn->blocking_timed = 0;
  }
  if (conn->out_start == conn->out_end) conn->out_start = conn->out_end = 0;
}

static void _lmq_bus_flush(_lmq_bus_conn *conn) {
  pthread_mutex_lock(&conn->out_mutex);
  _lmq_bus_flush_nolock(conn);
  pthread_mutex_unlock(&conn->out_mutex);
}

/* Writes out what waits for the end of the frames handled. */
static void _lmq_bus_uncork_one(_lmq_bus_conn *conn) {
  int corked;

  pthread_mutex_lock(&conn->out_mutex);
  corked = conn->corked;
  conn->corked = 0;
  pthread_mutex_unlock(&conn->out_mutex);
  if (corked) _lmq_bus_flush(conn);
}

/* The output side in one look: dead, output waiting, or neither (0). */
#define LMQ_BUS_OUT_DEAD 1
#define LMQ_BUS_OUT_PENDING 2
static int _lmq_bus_out_state(_lmq_bus_conn *conn) {
  int state;

  pthread_mutex_lock(&conn->out_mutex);
  state = conn->dead                          ? LMQ_BUS_OUT_DEAD
          : conn->out_end > conn->out_start ? LMQ_BUS_OUT_PENDING
                                              : 0;
  pthread_mutex_unlock(&conn->out_mutex);
  return state;
}

static int _lmq_bus_out_pending(_lmq_bus_conn *conn) {
  return _lmq_bus_out_state(conn) == LMQ_BUS_OUT_PENDING;
}

/* Takes the connections that wait on the listening socket. */
static void _lmq_bus_accept(lmq_bus *bus) {
  for (;;) {
    int fd = accept4(bus->listen_fd, NULL, NULL, SOCK_NONBLOCK | SOCK_CLOEXEC);
    _lmq_bus_conn *conn;
    int rc = -ENOMEM;

    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      return;
    }
    conn = _lmq_bus_conn_new(fd);
    if (conn != NULL) {
      pthread_mutex_lock(&bus->server->mutex);
      pthread_mutex_lock(&bus->state_mutex);
      rc = _lmq_bus_conn_add_nolock(bus, conn);
      pthread_mutex_unlock(&bus->state_mutex);
      pthread_mutex_unlock(&bus->server->mutex);
    }
    if (rc < 0) {
      LMQ_LOG(LMQ_LVL_FAIL, "%s(): no memory for a new connection\n", __func__);
      _lmq_bus_conn_free(conn);
    }
  }
}

/* Removes a dead connection from the list and frees it. */
static void _lmq_bus_drop_conn(lmq_bus *bus, uint32_t index) {
  lmq_server *server = bus->server;
  _lmq_bus_conn *conn = bus->conns[index];

  pthread_mutex_lock(&server->mutex);
  _lmq_bus_retire_nolock(bus, conn);
  pthread_mutex_lock(&bus->state_mutex);
  memmove(&bus->conns[index], &bus->conns[index + 1],
          (bus->conn_count - index - 1u) * sizeof(bus->conns[0]));
  bus->conn_count--;
  pthread_cond_broadcast(&bus->state_cond);
  pthread_mutex_unlock(&bus->state_mutex);
  pthread_mutex_unlock(&server->mutex);
  _lmq_bus_conn_free(conn);
}

/* Drops a connection that has held up a frame for other nodes and taken
 * nothing for LMQ_BUS_STALL_SEC. Called without any lmq mutex (it reads
 * the uptime clock). Returns non-zero while something still waits. */
static int _lmq_bus_check_blocking(lmq_bus *bus) {
  _cspOsalTime_struct now;
  int have_now = 0;
  int waiting = 0;
  uint32_t i;

  for (i = 0; i < bus->conn_count; i++) {
    _lmq_bus_conn *conn = bus->conns[i];
    _cspOsalTime_struct held;
    if (conn->stalled) waiting = 1;
    if (!conn->blocking) continue;
    waiting = 1;
    if (!have_now && cspOsalGetUptime(&now) < 0) return waiting;
    have_now = 1;
    if (!conn->blocking_timed) {
      conn->blocking_since = now;
      conn->blocking_timed = 1;
      continue;
    }
    cspOsalSubtractTime3(&held, &now, &conn->blocking_since);
    if (held.sec >= LMQ_BUS_STALL_SEC) {
      pthread_mutex_lock(&conn->out_mutex);
      conn->dead = 1;
      conn->overflow = 1;
      pthread_mutex_unlock(&conn->out_mutex);
    }
  }
  return waiting;
}

/* Closes the connections marked dead. While a thread leads, none is
 * closed (the leader may hold one); the last leader to go wakes the bus
 * thread to try again. */
static void _lmq_bus_reap(lmq_bus *bus) {
  uint32_t i = 0;

  while (i < bus->conn_count) {
    _lmq_bus_conn *conn = bus->conns[i];
    int overflow = 0;
    int leaders;
    if (!_lmq_bus_conn_is_dead(conn, &overflow)) {
      i++;
      continue;
    }
    pthread_mutex_lock(&bus->state_mutex);
    leaders = bus->leaders > 0;
    if (leaders) bus->reap_deferred = 1;
    pthread_mutex_unlock(&bus->state_mutex);
    if (leaders) return;
    if (overflow) {
      LMQ_LOG(LMQ_LVL_FAIL, "%s(): node %u does not take its frames, disconnected\n", __func__,
              (unsigned)conn->node);
    }
    _lmq_bus_drop_conn(bus, i);
  }
}

/* Brings a connection's entry in the epoll set in line with events
 * (watch 0: out of the set). A connection that cannot be watched is
 * dropped, logged. in_mutex held. */
static void _lmq_bus_watch_nolock(lmq_bus *bus, _lmq_bus_conn *conn, int watch,
                                  uint32_t events) {
  struct epoll_event ev;
  int op;

  if (watch == conn->watched && (!watch || events == conn->events)) return;
  op = !watch ? EPOLL_CTL_DEL : conn->watched ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
  memset(&ev, 0, sizeof(ev));
  ev.events = events;
  ev.data.ptr = conn;
  if (epoll_ctl(bus->epoll_fd, op, conn->fd, &ev) < 0 && op != EPOLL_CTL_DEL) {
    LMQ_LOG(LMQ_LVL_FAIL, "%s(): cannot watch the connection of node %u (code %d), disconnected\n",
            __func__, (unsigned)conn->node, -errno);
    _lmq_bus_conn_kill(bus, conn);
    return;
  }
  conn->watched = watch;
  conn->events = events;
}

/* Events of a led connection: only its end, once (epoll always reports
 * that); the data go to the leader. */
#define LMQ_BUS_LED_EVENTS ((uint32_t)EPOLLET)

/* The bus thread has a parked connection back: the next leader must
 * take it from the bus thread again. in_mutex held. */
static void _lmq_bus_unpark_nolock(_lmq_bus_conn *conn) {
  if (!__atomic_load_n(&conn->parked, __ATOMIC_RELAXED)) return;
  __atomic_store_n(&conn->parked, 0, __ATOMIC_SEQ_CST);
  __atomic_store_n(&conn->yield, 0, __ATOMIC_SEQ_CST);
}

/* A parked connection stays so while its parking time runs, unless a
 * send asked for it (yield) or the bus thread must write or read it.
 * in_mutex held. */
static int _lmq_bus_stays_parked(_lmq_bus_conn *conn, int park_over, uint32_t events) {
  return __atomic_load_n(&conn->parked, __ATOMIC_RELAXED) && !park_over &&
         !__atomic_load_n(&conn->yield, __ATOMIC_SEQ_CST) && !conn->stalled &&
         !(events & (uint32_t)EPOLLOUT);
}

/* What the bus thread watches of a connection: nothing once the end of a
 * stalled one was seen (until its frame goes or it is dropped); else its
 * input unless stalled, and room for its output while some waits. A led
 * connection keeps what its leader set; a parked one is taken back once
 * its parking time is over (park_over) or something needs it. */
static void _lmq_bus_watch(lmq_bus *bus, _lmq_bus_conn *conn, int park_over) {
  uint32_t events = (conn->stalled ? 0u : (uint32_t)EPOLLIN) |
                    (_lmq_bus_out_pending(conn) ? (uint32_t)EPOLLOUT : 0u);

  pthread_mutex_lock(&conn->in_mutex);
  if (!conn->led && !_lmq_bus_stays_parked(conn, park_over, events)) {
    _lmq_bus_unpark_nolock(conn);
    _lmq_bus_watch_nolock(bus, conn, !(conn->stalled && conn->hung_up), events);
  }
  pthread_mutex_unlock(&conn->in_mutex);
}

/* Writes out what the frames just handled sent, one write per
 * connection. Bus thread. */
static void _lmq_bus_uncork(lmq_bus *bus) {
  uint32_t i;

  t_lmq_bus_cork = NULL;
  for (i = 0; i < bus->conn_count; i++) _lmq_bus_uncork_one(bus->conns[i]);
}

/* The bus thread reads a connection, unless a thread leads it (a parked
 * one, whose end it saw, is its own again). */
static void _lmq_bus_read(lmq_bus *bus, _lmq_bus_conn *conn, int do_read) {
  pthread_mutex_lock(&conn->in_mutex);
  if (!conn->led) {
    _lmq_bus_unpark_nolock(conn);
    conn->offer = &bus->offer;
    t_lmq_bus_reading = 1;
    t_lmq_bus_cork = bus;
    _lmq_bus_pull(bus, conn, do_read);
    _lmq_bus_uncork(bus);
    t_lmq_bus_reading = 0;
  }
  pthread_mutex_unlock(&conn->in_mutex);
}

static void _lmq_bus_conn_event(_lmq_bus_conn *conn, uint32_t revents, lmq_bus *bus) {
  if (revents & EPOLLOUT) _lmq_bus_flush(conn);
  if (conn->stalled) {
    if (revents & (EPOLLHUP | EPOLLERR)) conn->hung_up = 1;
  } else if (revents & (EPOLLIN | EPOLLHUP | EPOLLERR)) {
    _lmq_bus_read(bus, conn, 1);
  }
}

static void *_lmq_bus_main(void *arg) {
  lmq_bus *bus = (lmq_bus *)arg;
  struct epoll_event events[LMQ_BUS_EVENTS];
  int waiting = 0;
  int park_over = 0;

  t_lmq_bus_self = bus;
  while (!__atomic_load_n(&bus->stop, __ATOMIC_ACQUIRE)) {
    int accept_ready = 0;
    int n;
    int i;
    uint32_t c;
    char drain[64];

    for (c = 0; c < bus->conn_count; c++) _lmq_bus_watch(bus, bus->conns[c], park_over);
    park_over = 0;
    n = epoll_wait(bus->epoll_fd, events, LMQ_BUS_EVENTS, waiting ? LMQ_BUS_STALL_POLL_MS : -1);
    if (n < 0) {
      if (errno != EINTR) {
        LMQ_LOG(LMQ_LVL_SEVERE, "%s(): epoll_wait failed (code %d)\n", __func__, -errno);
      }
      continue;
    }
    /* Connections are only freed by the reaping below, so every record
     * named by an event is still there. */
    for (i = 0; i < n; i++) {
      if (events[i].data.u64 == LMQ_BUS_TAG_WAKE) {
        while (read(bus->wake_rd, drain, sizeof(drain)) > 0) {
        }
      } else if (events[i].data.u64 == LMQ_BUS_TAG_LISTEN) {
        accept_ready = 1;
      } else if (events[i].data.u64 == LMQ_BUS_TAG_PARK) {
        /* Parking ends: the watch pass above takes the connection back. */
        uint64_t expirations;
        while (read(bus->park_fd, &expirations, sizeof(expirations)) > 0) {
        }
        __atomic_store_n(&bus->park_armed, 0, __ATOMIC_SEQ_CST);
        park_over = 1;
      } else {
        _lmq_bus_conn_event((_lmq_bus_conn *)events[i].data.ptr, events[i].events, bus);
      }
    }
    /* Frames that waited for room may go now. */
    for (c = 0; c < bus->conn_count; c++) {
      if (bus->conns[c]->stalled && !_lmq_bus_conn_is_dead(bus->conns[c], NULL)) {
        _lmq_bus_read(bus, bus->conns[c], 0);
      }
    }
    if (accept_ready) _lmq_bus_accept(bus);
    waiting = _lmq_bus_check_blocking(bus);
    _lmq_bus_reap(bus);
  }
  return NULL;
}

/* --- Set-up and teardown ------------------------------------------------------------ */

static void _lmq_bus_free(lmq_bus *bus) {
  uint32_t i;

  for (i = 0; i < bus->conn_count; i++) _lmq_bus_conn_free(bus->conns[i]);
  free(bus->conns);
  _lmq_bus_clients_drop(bus, 0, 0);
  if (bus->listen_fd >= 0) close(bus->listen_fd);
  if (bus->wake_rd >= 0) close(bus->wake_rd);
  if (bus->wake_wr >= 0) close(bus->wake_wr);
  if (bus->epoll_fd >= 0) close(bus->epoll_fd);
  if (bus->park_fd >= 0) close(bus->park_fd);
  pthread_cond_destroy(&bus->state_cond);
  pthread_mutex_destroy(&bus->state_mutex);
  free(bus);
}

static int _lmq_bus_new(lmq_server *server, uint32_t role, lmq_bus **out) {
  lmq_bus *bus = calloc(1, sizeof(*bus));
  pthread_condattr_t attr;
  int fds[2];
  int rc;

  if (bus == NULL) return -ENOMEM;
  bus->server = server;
  bus->role = role;
  bus->listen_fd = -1;
  bus->wake_rd = -1;
  bus->wake_wr = -1;
  bus->epoll_fd = -1;
  bus->park_fd = -1;
  rc = pthread_mutex_init(&bus->state_mutex, NULL);
  if (rc != 0) {
    free(bus);
    return -rc;
  }
  rc = pthread_condattr_init(&attr);
  if (rc == 0) {
    rc = pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    if (rc == 0) rc = pthread_cond_init(&bus->state_cond, &attr);
    pthread_condattr_destroy(&attr);
  }
  if (rc != 0) {
    pthread_mutex_destroy(&bus->state_mutex);
    free(bus);
    return -rc;
  }
  if (pipe2(fds, O_NONBLOCK | O_CLOEXEC) < 0) {
    rc = -errno;
    _lmq_bus_free(bus);
    return rc;
  }
  bus->wake_rd = fds[0];
  bus->wake_wr = fds[1];
  bus->epoll_fd = epoll_create1(EPOLL_CLOEXEC);
  if (bus->epoll_fd < 0) {
    rc = -errno;
    _lmq_bus_free(bus);
    return rc;
  }
  /* Only leaders of a peer park; without the timer they do not. */
  if (role == LMQ_BUS_PEER) {
    bus->park_fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (bus->park_fd < 0) {
      LMQ_LOG(LMQ_LVL_FAIL, "%s(): no parking timer (code %d), leaders give the connection back\n",
              __func__, -errno);
    }
  }
  *out = bus;
  return 0;
}

/* Puts one of the bus thread's own descriptors into its epoll set. */
static int _lmq_bus_watch_own(lmq_bus *bus, int fd, uint64_t tag) {
  struct epoll_event ev;

  memset(&ev, 0, sizeof(ev));
  ev.events = EPOLLIN;
  ev.data.u64 = tag;
  return epoll_ctl(bus->epoll_fd, EPOLL_CTL_ADD, fd, &ev) < 0 ? -errno : 0;
}

static int _lmq_bus_start(lmq_bus *bus) {
  pthread_attr_t attr;
  int rc;

  rc = _lmq_bus_watch_own(bus, bus->wake_rd, LMQ_BUS_TAG_WAKE);
  if (rc == 0 && bus->listen_fd >= 0) {
    rc = _lmq_bus_watch_own(bus, bus->listen_fd, LMQ_BUS_TAG_LISTEN);
  }
  if (rc == 0 && bus->park_fd >= 0) rc = _lmq_bus_watch_own(bus, bus->park_fd, LMQ_BUS_TAG_PARK);
  if (rc < 0) return rc;
  rc = _cspOsalPOSIX_pthread_attr_init(&attr);
  if (rc < 0) return rc;
  rc = _cspOsalPOSIX_pthread_attr_setname_norvi(&attr, "lmqbus");
  if (rc == 0) {
    rc = _cspOsalPOSIX_pthread_create_line(&bus->thread, &attr, _lmq_bus_main, bus, __FILE__,
                                           __LINE__);
  }
  (void)_cspOsalPOSIX_pthread_attr_destroy(&attr);
  if (rc == 0) bus->thread_started = 1;
  return rc;
}

int lmq_bus_shutdown(lmq_server *server) {
  lmq_bus *bus = server->bus;
  struct stat st;

  if (bus == NULL) return -ENOTCONN;
  pthread_mutex_lock(&server->mutex);
  __atomic_store_n(&bus->stop, 1, __ATOMIC_RELEASE);
  pthread_mutex_unlock(&server->mutex);
  if (bus->thread_started) {
    _lmq_bus_wake(bus);
    pthread_join(bus->thread, NULL);
    bus->thread_started = 0;
  }
  /* No new leader starts once stop is set; those inside end within their
   * timeout, and may still change the tables until then. */
  pthread_mutex_lock(&bus->state_mutex);
  while (bus->leaders > 0) _lmq_bus_wait_state(bus, NULL);
  pthread_mutex_unlock(&bus->state_mutex);
  pthread_mutex_lock(&server->mutex);
  pthread_mutex_lock(&bus->state_mutex);
  _lmq_bus_forget_nolock(bus, 0, 0);
  server->bus = NULL;
  pthread_mutex_unlock(&bus->state_mutex);
  pthread_mutex_unlock(&server->mutex);

  /* Remove the socket file only while it is still ours. */
  if (bus->listen_fd >= 0 && stat(bus->path, &st) == 0 && st.st_dev == bus->dev &&
      st.st_ino == bus->ino) {
    (void)unlink(bus->path);
  }
  _lmq_bus_free(bus);
  return 0;
}

/* Sets up a Unix socket address; -22 for an empty path, -36 for one that
 * does not fit. */
static int _lmq_bus_address(struct sockaddr_un *addr, const char *path) {
  size_t len = strlen(path);

  if (len == 0) return -EINVAL;
  if (len >= sizeof(addr->sun_path)) return -ENAMETOOLONG;
  memset(addr, 0, sizeof(*addr));
  addr->sun_family = AF_UNIX;
  memcpy(addr->sun_path, path, len + 1);
  return 0;
}

/* The path is taken: 0 when it was a socket file nobody listens on, which
 * is now removed; -98 when someone listens there, or it is no socket. */
static int _lmq_bus_reclaim(const struct sockaddr_un *addr) {
  struct stat st;
  int probe;
  int rc;
  int err;

  if (lstat(addr->sun_path, &st) < 0) return errno == ENOENT ? 0 : -errno;
  if (!S_ISSOCK(st.st_mode)) return -EADDRINUSE;
  probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (probe < 0) return -errno;
  rc = connect(probe, (const struct sockaddr *)addr, sizeof(*addr));
  err = errno;
  close(probe);
  if (rc == 0 || err != ECONNREFUSED) return err == ENOENT ? 0 : -EADDRINUSE;
  if (unlink(addr->sun_path) < 0 && errno != ENOENT) return -errno;
  return 0;
}

/* Binds and listens on path with the file mode given. Returns the socket
 * or a negative errno. */
static int _lmq_bus_bind(const struct sockaddr_un *addr, uint32_t mode, dev_t *dev, ino_t *ino) {
  struct stat st;
  int attempt;
  int fd = -1;
  int rc;

  for (attempt = 0; attempt < 2; attempt++) {
    fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return -errno;
    if (bind(fd, (const struct sockaddr *)addr, sizeof(*addr)) == 0) break;
    rc = -errno;
    close(fd);
    fd = -1;
    if (rc != -EADDRINUSE || attempt > 0) return rc;
    rc = _lmq_bus_reclaim(addr);
    if (rc < 0) return rc;
  }
  /* No one can connect before listen(), so the file's mode is set first. */
  if (chmod(addr->sun_path, (mode_t)mode) < 0 || stat(addr->sun_path, &st) < 0 ||
      listen(fd, LMQ_BUS_BACKLOG) < 0) {
    rc = -errno;
    close(fd);
    (void)unlink(addr->sun_path);
    return rc;
  }
  *dev = st.st_dev;
  *ino = st.st_ino;
  return fd;
}

/* Makes server->bus of a new bus (server and state mutexes taken here). */
static void _lmq_bus_attach(lmq_server *server, lmq_bus *bus) {
  pthread_mutex_lock(&server->mutex);
  pthread_mutex_lock(&bus->state_mutex);
  server->bus = bus;
  pthread_mutex_unlock(&bus->state_mutex);
  pthread_mutex_unlock(&server->mutex);
}

int lmqServerListen(lmq_server *server, const char *path, uint32_t mode) {
  struct sockaddr_un addr;
  lmq_bus *bus = NULL;
  int rc;

  if (!_lmq_bus_server_valid(server) || path == NULL || (mode & ~0777u) != 0) return -EINVAL;
  rc = _lmq_bus_address(&addr, path);
  if (rc < 0) return rc;
  if (mode == 0) mode = LMQ_BUS_DEFAULT_MODE;

  pthread_mutex_lock(&server->bus_mutex);
  if (server->bus != NULL) {
    rc = -EALREADY;
    goto out;
  }
  rc = _lmq_bus_new(server, LMQ_BUS_HUB, &bus);
  if (rc < 0) goto out;
  rc = _lmq_bus_bind(&addr, mode, &bus->dev, &bus->ino);
  if (rc < 0) {
    _lmq_bus_free(bus);
    goto out;
  }
  bus->listen_fd = rc;
  memcpy(bus->path, addr.sun_path, sizeof(bus->path));
  _lmq_bus_attach(server, bus);
  rc = _lmq_bus_start(bus);
  if (rc < 0) (void)lmq_bus_shutdown(server);
out:
  pthread_mutex_unlock(&server->bus_mutex);
  return rc;
}

/*
 * Pings every active connection (a peer: its hub, also while the welcome
 * is pending) and waits for all the pongs. Frames are handled in order on
 * both sides, so afterwards every frame sent before has been handled
 * there, and every frame the other side sent before its pong has been
 * handled here. Bus mutex held. Returns 0; -110; on a peer -103 (or the
 * hub's refusal) when the hub went away, -107 when it was gone already.
 */
static int _lmq_bus_sync(lmq_server *server, const _cspOsalTime_struct *timeout) {
  lmq_bus *bus = server->bus;
  struct timespec deadline;
  uint32_t token;
  uint32_t i;
  int rc = 0;

  if (bus == NULL) return -ENOTCONN;
  if (timeout != NULL) _lmq_bus_deadline(&deadline, timeout);
  pthread_mutex_lock(&server->mutex);
  if (bus->role == LMQ_BUS_PEER && bus->conn_count == 0) {
    pthread_mutex_unlock(&server->mutex);
    return -ENOTCONN;
  }
  pthread_mutex_lock(&bus->state_mutex);
  token = ++bus->last_token;
  pthread_mutex_unlock(&bus->state_mutex);
  for (i = 0; i < bus->conn_count; i++) {
    _lmq_bus_conn *conn = bus->conns[i];
    lmq_frame frame;
    if (!conn->active && bus->role == LMQ_BUS_HUB) continue;
    _lmq_bus_frame_init(&frame, LMQ_FRAME_PING);
    frame.token = token;
    _lmq_bus_control(bus, conn, &frame);
    pthread_mutex_lock(&bus->state_mutex);
    conn->pinged = token;
    pthread_mutex_unlock(&bus->state_mutex);
  }
  pthread_mutex_unlock(&server->mutex);

  pthread_mutex_lock(&bus->state_mutex);
  for (;;) {
    int waiting = 0;
    for (i = 0; i < bus->conn_count; i++) {
      if (bus->conns[i]->pinged == token && bus->conns[i]->ponged != token) waiting = 1;
    }
    if (!waiting) break;
    if (_lmq_bus_wait_state(bus, timeout != NULL ? &deadline : NULL) == ETIMEDOUT) {
      rc = -ETIMEDOUT;
      break;
    }
  }
  if (rc == 0 && bus->role == LMQ_BUS_PEER && bus->conn_count == 0) {
    rc = bus->refused < 0 ? bus->refused : -ECONNABORTED;
  }
  pthread_mutex_unlock(&bus->state_mutex);
  return rc;
}

/* Connects a socket to path, waiting at most until the timeout (the
 * kernel waits only while the listener's backlog is full). Returns the
 * non-blocking socket or a negative errno. */
static int _lmq_bus_dial(const struct sockaddr_un *addr, const _cspOsalTime_struct *timeout) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int rc;

  if (fd < 0) return -errno;
  if (timeout != NULL) {
    _cspOsalTime_struct span = *timeout;
    struct timeval tv;
    cspOsalNormalizeTime(&span);
    tv.tv_sec = span.sec < 0 ? 0 : (time_t)(span.sec > 1000000 ? 1000000 : span.sec);
    tv.tv_usec = span.sec < 0 ? 0 : span.usec;
    if (tv.tv_sec == 0 && tv.tv_usec == 0) tv.tv_usec = 1;
    (void)setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
  }
  do {
    rc = connect(fd, (const struct sockaddr *)addr, sizeof(*addr));
  } while (rc < 0 && errno == EINTR);
  if (rc < 0) {
    rc = errno == EAGAIN || errno == EINPROGRESS ? -ETIMEDOUT : -errno;
    close(fd);
    return rc;
  }
  /* The socket stays blocking: every read and write of the bus says
   * MSG_DONTWAIT, and only a leader waits in recv (lmqClientLeadBus). */
  return fd;
}

int lmqServerConnect(lmq_server *server, const char *path, const _cspOsalTime_struct *timeout) {
  struct sockaddr_un addr;
  lmq_bus *bus = NULL;
  _lmq_bus_conn *conn;
  lmq_frame frame;
  uint32_t b;
  int fd;
  int rc;

  if (!_lmq_bus_server_valid(server) || path == NULL) return -EINVAL;
  rc = _lmq_bus_address(&addr, path);
  if (rc < 0) return rc;

  pthread_mutex_lock(&server->bus_mutex);
  pthread_mutex_lock(&server->mutex);
  rc = server->bus != NULL ? -EALREADY : server->service_count > 0 ? -EBUSY : 0;
  pthread_mutex_unlock(&server->mutex);
  if (rc < 0) goto out;
  rc = _lmq_bus_new(server, LMQ_BUS_PEER, &bus);
  if (rc < 0) goto out;
  fd = _lmq_bus_dial(&addr, timeout);
  if (fd < 0) {
    rc = fd;
    _lmq_bus_free(bus);
    goto out;
  }
  conn = _lmq_bus_conn_new(fd);
  if (conn == NULL || _lmq_bus_conn_add_nolock(bus, conn) < 0) {
    _lmq_bus_conn_free(conn);
    _lmq_bus_free(bus);
    rc = -ENOMEM;
    goto out;
  }

  /* The hello and the clients attached so far go out before anything
   * else the server will send, so the hub learns of every client once. */
  pthread_mutex_lock(&server->mutex);
  pthread_mutex_lock(&bus->state_mutex);
  server->bus = bus;
  pthread_mutex_unlock(&bus->state_mutex);
  _lmq_bus_frame_init(&frame, LMQ_FRAME_HELLO);
  frame.magic = LMQ_FRAME_MAGIC;
  frame.version = LMQ_FRAME_VERSION;
  frame.node = server->node;
  _lmq_bus_control(bus, conn, &frame);
  for (b = 0; b < LMQ_BUCKETS; b++) {
    const _lmq_client_rec *rec;
    for (rec = server->clients[b]; rec != NULL; rec = rec->next) {
      _lmq_bus_frame_init(&frame, LMQ_FRAME_CLIENT_ADD);
      frame.node = server->node;
      frame.client = rec->number;
      _lmq_bus_control(bus, conn, &frame);
    }
  }
  pthread_mutex_unlock(&server->mutex);

  rc = _lmq_bus_start(bus);
  if (rc == 0) rc = _lmq_bus_sync(server, timeout);
  if (rc == 0) {
    pthread_mutex_lock(&server->mutex);
    if (bus->hub_node == 0) rc = -ECONNABORTED;
    pthread_mutex_unlock(&server->mutex);
  }
  if (rc < 0) (void)lmq_bus_shutdown(server);
out:
  pthread_mutex_unlock(&server->bus_mutex);
  return rc;
}

int lmq_bus_register(lmq_server *server, const char *name, size_t len, int16_t *id) {
  lmq_bus *bus = server->bus;
  _lmq_service *service = NULL;
  _lmq_bus_conn *conn;
  struct timespec deadline;
  _cspOsalTime_struct wait = {LMQ_BUS_REGISTER_TIMEOUT_MS / 1000u,
                              (int32_t)(LMQ_BUS_REGISTER_TIMEOUT_MS % 1000u) * 1000};
  int answered = 0;
  int16_t given = 0;
  int rc = 0;

  _lmq_bus_deadline(&deadline, &wait);
  pthread_mutex_lock(&server->mutex);
  conn = _lmq_bus_hub_conn_nolock(bus);
  if (conn != NULL) {
    lmq_frame frame;
    lmq_iovec entry;
    pthread_mutex_lock(&bus->state_mutex);
    bus->reg_token = ++bus->last_token;
    bus->reg_done = 0;
    _lmq_bus_frame_init(&frame, LMQ_FRAME_REGISTER);
    frame.token = bus->reg_token;
    pthread_mutex_unlock(&bus->state_mutex);
    entry.base = (void *)(uintptr_t)name;
    entry.len = (uint32_t)len;
    (void)_lmq_bus_send_frame(bus, conn, &frame, &entry, 1, (uint32_t)len, 1);
  }
  pthread_mutex_unlock(&server->mutex);

  if (conn != NULL) {
    pthread_mutex_lock(&bus->state_mutex);
    while (!bus->reg_done && bus->conn_count > 0 && rc == 0) {
      if (_lmq_bus_wait_state(bus, &deadline) == ETIMEDOUT) rc = -ETIMEDOUT;
    }
    answered = bus->reg_done;
    if (answered) {
      rc = bus->reg_result;
      given = bus->reg_id;
    }
    pthread_mutex_unlock(&bus->state_mutex);
  }
  if (rc < 0) return rc;

  pthread_mutex_lock(&server->mutex);
  if (answered) {
    /* Made by the bus thread; gone again only if the hub went away. */
    service = lmq_service_lookup_nolock(server, given);
    if (service == NULL && lmq_service_find_name_nolock(server, name, len) == NULL) {
      service = lmq_service_create_nolock(server, name, len, given);
    }
  } else {
    /* No hub any more: this server gives its ids itself again. */
    service = lmq_service_find_name_nolock(server, name, len);
    if (service == NULL) service = lmq_service_create_nolock(server, name, len, 0);
  }
  if (service == NULL) {
    rc = -ENOMEM;
  } else {
    service->refs++;
    *id = service->id;
  }
  pthread_mutex_unlock(&server->mutex);
  return rc;
}

/* --- Public calls ----------------------------------------------------------------- */

int lmqServerBusSync(lmq_server *server, const _cspOsalTime_struct *timeout) {
  int rc;

  if (!_lmq_bus_server_valid(server)) return -EINVAL;
  pthread_mutex_lock(&server->bus_mutex);
  rc = _lmq_bus_sync(server, timeout);
  pthread_mutex_unlock(&server->bus_mutex);
  return rc;
}

int lmqServerBusClose(lmq_server *server) {
  int rc;

  if (!_lmq_bus_server_valid(server)) return -EINVAL;
  pthread_mutex_lock(&server->bus_mutex);
  rc = lmq_bus_shutdown(server);
  pthread_mutex_unlock(&server->bus_mutex);
  return rc;
}

/* --- Leading ---------------------------------------------------------------- */

/* Whether ticket a came after ticket b (the counts wrap). */
static int _lmq_bus_ticket_after(uint32_t a, uint32_t b) {
  return (int32_t)(a - b) > 0;
}

/* This thread waits for the answer to its last announced send on conn
 * without leading (refused, or its lead ended unanswered). That answer
 * comes after the answers to every send before it: a leader whose own
 * send went before must not park the connection, or the answer would
 * wait for the parking time with nobody reading. */
static void _lmq_bus_note_unled_wait(_lmq_bus_conn *conn) {
  uint32_t ticket = t_lmq_bus_lead_ticket;
  uint32_t seen;

  if (t_lmq_bus_lead_conn != conn) return;
  seen = __atomic_load_n(&conn->waited, __ATOMIC_SEQ_CST);
  do {
    if (seen != 0 && !_lmq_bus_ticket_after(ticket, seen)) return;
  } while (!__atomic_compare_exchange_n(&conn->waited, &seen, ticket, 0, __ATOMIC_SEQ_CST,
                                        __ATOMIC_SEQ_CST));
}

/* Whether a thread that does not lead waits for an answer that comes
 * after this leader's own (or this thread's send is unknown). An awaited
 * answer to an earlier send came before this leader's own and has been
 * read: it is forgotten, so that no stale ticket outlives the counts'
 * wrap. */
static int _lmq_bus_later_answer_awaited(_lmq_bus_conn *conn) {
  uint32_t waited = __atomic_load_n(&conn->waited, __ATOMIC_SEQ_CST);

  if (t_lmq_bus_lead_conn != conn) return 1;
  if (waited == 0) return 0;
  if (_lmq_bus_ticket_after(waited, t_lmq_bus_lead_ticket)) return 1;
  /* A newer one noted meanwhile stays. */
  (void)__atomic_compare_exchange_n(&conn->waited, &waited, 0u, 0, __ATOMIC_SEQ_CST,
                                    __ATOMIC_SEQ_CST);
  return 0;
}

/* Takes a peer's hub connection from the bus thread, which stops watching
 * its input (a parked connection is the leader's at once). Refused while
 * another thread leads (-16: that one does not park it then), for a dead
 * connection (-107), and for one that cannot be handed over now (-11):
 * not watched yet, or with output waiting (only the bus thread writes
 * that out). */
static int _lmq_bus_lead_take(lmq_bus *bus, _lmq_bus_conn *conn) {
  int rc = 0;
  int out;

  pthread_mutex_lock(&conn->in_mutex);
  out = _lmq_bus_out_state(conn);
  if (conn->led) {
    _lmq_bus_note_unled_wait(conn);
    __atomic_store_n(&conn->yield, 1, __ATOMIC_SEQ_CST);
    rc = -EBUSY;
  } else if (out == LMQ_BUS_OUT_DEAD) {
    rc = -ENOTCONN;
  } else if (!conn->watched || out == LMQ_BUS_OUT_PENDING) {
    _lmq_bus_note_unled_wait(conn);
    rc = -EAGAIN;
  } else if (__atomic_load_n(&conn->parked, __ATOMIC_RELAXED)) {
    __atomic_store_n(&conn->parked, 0, __ATOMIC_SEQ_CST);
    conn->led = 1;
  } else {
    _lmq_bus_watch_nolock(bus, conn, 1, LMQ_BUS_LED_EVENTS);
    conn->led = conn->events == LMQ_BUS_LED_EVENTS;
    if (!conn->led) rc = -ENOTCONN;
  }
  pthread_mutex_unlock(&conn->in_mutex);
  return rc;
}

/* Makes sure the bus thread goes round its loop, and so takes a parked
 * connection back, within us microseconds. Returns 0 when it cannot. */
static int _lmq_bus_park_timer(lmq_bus *bus, uint32_t us) {
  struct itimerspec expiry;

  if (__atomic_exchange_n(&bus->park_armed, 1, __ATOMIC_SEQ_CST)) return 1;
  memset(&expiry, 0, sizeof(expiry));
  expiry.it_value.tv_sec = (time_t)(us / 1000000u);
  expiry.it_value.tv_nsec = (long)(us % 1000000u) * 1000L;
  if (timerfd_settime(bus->park_fd, 0, &expiry, NULL) == 0) return 1;
  __atomic_store_n(&bus->park_armed, 0, __ATOMIC_SEQ_CST);
  return 0;
}

/* Leaves the led connection, input unwatched, to the next leader (see the
 * top of the file). Not when a send asked for the connection to be given
 * back. in_mutex held, the connection alive with no output waiting (which
 * the bus thread must write out); returns 0 when it must be given back. */
static int _lmq_bus_lead_park(lmq_bus *bus, _lmq_bus_conn *conn) {
  uint32_t us = __atomic_load_n(&bus->server->park_us, __ATOMIC_RELAXED);

  if (us == 0 || bus->park_fd < 0 || __atomic_load_n(&bus->stop, __ATOMIC_ACQUIRE)) return 0;
  if (_lmq_bus_later_answer_awaited(conn)) return 0;
  /* Paired with _lmq_bus_sent_unled. */
  __atomic_store_n(&conn->parked, 1, __ATOMIC_SEQ_CST);
  if (!__atomic_load_n(&conn->yield, __ATOMIC_SEQ_CST) && _lmq_bus_park_timer(bus, us)) return 1;
  __atomic_store_n(&conn->parked, 0, __ATOMIC_SEQ_CST);
  return 0;
}

/* Gives the connection back: the bus thread watches it again at once, so
 * whatever arrived meanwhile wakes it. A leader whose answer came parks
 * it instead when it can. */
static void _lmq_bus_lead_give(lmq_bus *bus, _lmq_bus_conn *conn, int answered) {
  int out = _lmq_bus_out_state(conn);
  uint32_t events = (uint32_t)EPOLLIN | (out == LMQ_BUS_OUT_PENDING ? (uint32_t)EPOLLOUT : 0u);

  pthread_mutex_lock(&conn->in_mutex);
  if (!answered) _lmq_bus_note_unled_wait(conn);
  conn->led = 0;
  if (!answered || out != 0 || !_lmq_bus_lead_park(bus, conn)) {
    __atomic_store_n(&conn->yield, 0, __ATOMIC_SEQ_CST);
    _lmq_bus_watch_nolock(bus, conn, 1, events);
  }
  pthread_mutex_unlock(&conn->in_mutex);
}

/* Milliseconds from now to deadline, 0 once passed. */
static int _lmq_bus_ms_left(const struct timespec *deadline) {
  struct timespec now;
  int64_t ms;

  clock_gettime(CLOCK_MONOTONIC, &now);
  ms = ((int64_t)deadline->tv_sec - now.tv_sec) * 1000 +
       (deadline->tv_nsec - now.tv_nsec + 999999L) / 1000000L;
  if (ms <= 0) return 0;
  return ms > INT32_MAX ? INT32_MAX : (int)ms;
}

/* Nanoseconds of the monotonic clock. */
static int64_t _lmq_bus_now_ns(void) {
  struct timespec now;

  clock_gettime(CLOCK_MONOTONIC, &now);
  return (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
}

/* Reads what the led connection has into the input buffer without
 * waiting. Returns what recv returned. */
static ssize_t _lmq_bus_lead_try_recv(_lmq_bus_conn *conn) {
  ssize_t n;

  do {
    n = recv(conn->fd, conn->in + conn->in_len, LMQ_BUS_IN_BYTES - conn->in_len, MSG_DONTWAIT);
  } while (n < 0 && errno == EINTR);
  return n;
}

/* Polls the led connection for up to the server's spin time before the
 * leader sleeps: an answer that comes meanwhile is read without this
 * processor going idle and being woken again, which costs more than a
 * quick server takes to answer. Polls that keep finding nothing are
 * skipped for a while (LMQ_BUS_LEAD_SPIN_MISS_LIMIT). Returns what recv
 * returned; -1 with EAGAIN when nothing came (or it did not poll). */
static ssize_t _lmq_bus_lead_spin(lmq_bus *bus, _lmq_bus_conn *conn) {
  uint32_t us = __atomic_load_n(&bus->server->lead_spin_us, __ATOMIC_RELAXED);
  int64_t end;
  ssize_t n;

  if (us == 0) goto nothing;
  if (conn->spin_skips > 0) {
    conn->spin_skips--;
    goto nothing;
  }
  end = _lmq_bus_now_ns() + (int64_t)us * 1000;
  do {
    n = _lmq_bus_lead_try_recv(conn);
    if (n >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) {
      conn->spin_misses = 0;
      if (n > 0) __atomic_add_fetch(&conn->spin_hit_count, 1u, __ATOMIC_RELAXED);
      return n;
    }
  } while (_lmq_bus_now_ns() < end);
  __atomic_add_fetch(&conn->spin_miss_count, 1u, __ATOMIC_RELAXED);
  if (++conn->spin_misses >= LMQ_BUS_LEAD_SPIN_MISS_LIMIT) {
    conn->spin_misses = 0;
    conn->spin_skips = LMQ_BUS_LEAD_SPIN_SKIP;
  }
nothing:
  errno = EAGAIN;
  return -1;
}

/* Waits up to ms for input on the led connection and reads it into the
 * input buffer: a blocking recv, whose timeout is set on the socket when
 * it changes (a leader's first wait is usually its only one). Returns
 * what recv returned; -1 with EAGAIN when the time ran out. */
static ssize_t _lmq_bus_lead_recv(_lmq_bus_conn *conn, int ms) {
  ssize_t n;

  if (conn->lead_timeout_ms != ms) {
    struct timeval tv;
    tv.tv_sec = ms / 1000;
    tv.tv_usec = (ms % 1000) * 1000;
    if (setsockopt(conn->fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv)) < 0) return -1;
    conn->lead_timeout_ms = ms;
  }
  do {
    n = recv(conn->fd, conn->in + conn->in_len, LMQ_BUS_IN_BYTES - conn->in_len, 0);
  } while (n < 0 && errno == EINTR);
  return n;
}

/* Reads the led connection: polls first, then sleeps up to the deadline
 * (*ms, refreshed after the poll). Returns what recv returned; -1 with
 * EAGAIN when nothing came in time. */
static ssize_t _lmq_bus_lead_read(lmq_bus *bus, _lmq_bus_conn *conn,
                                  const struct timespec *deadline, int *ms) {
  ssize_t n = _lmq_bus_lead_spin(bus, conn);

  if (n >= 0 || errno != EAGAIN) return n;
  *ms = _lmq_bus_ms_left(deadline);
  if (*ms == 0) return -1; /* errno is EAGAIN */
  return _lmq_bus_lead_recv(conn, *ms);
}

/* Reads and handles the led connection until done, the deadline, mail for
 * the client's receiver, or the connection's end. While it leads, the
 * input side is this thread's alone. */
static int _lmq_bus_lead_loop(lmq_bus *bus, _lmq_bus_conn *conn, _lmq_client_rec *rec,
                              uint32_t kept, uint32_t timeout_ms, lmq_lead_done_fn done,
                              void *context) {
  struct timespec deadline;
  _cspOsalTime_struct timeout;
  lmq_offer offer;
  int ms = timeout_ms > INT32_MAX ? INT32_MAX : (int)timeout_ms;

  offer.target = NULL;
  conn->offer = &offer;
  timeout.sec = ms / 1000;
  timeout.usec = (ms % 1000) * 1000;
  _lmq_bus_deadline(&deadline, &timeout);
  for (;;) {
    ssize_t n;

    if (done(context)) return 0;
    if (lmq_client_has_mail(rec, kept)) return -EAGAIN;
    if (_lmq_bus_conn_is_dead(conn, NULL)) return -ENOTCONN;
    if (ms == 0) return -ETIMEDOUT;
    n = _lmq_bus_lead_read(bus, conn, &deadline, &ms);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      ms = _lmq_bus_ms_left(&deadline);
      continue;
    }
    if (n < 0 && errno != ECONNRESET) return -errno;
    t_lmq_bus_reading = 1;
    _lmq_bus_receive(bus, conn, 1, n);
    t_lmq_bus_reading = 0;
    ms = _lmq_bus_ms_left(&deadline);
  }
}

/* A leader is done with the bus: the last one lets a shutdown go on and
 * the bus thread close what died meanwhile. */
static void _lmq_bus_leader_leave(lmq_bus *bus) {
  int wake;

  pthread_mutex_lock(&bus->state_mutex);
  bus->leaders--;
  wake = bus->leaders == 0 && bus->reap_deferred;
  if (wake) bus->reap_deferred = 0;
  if (bus->leaders == 0) pthread_cond_broadcast(&bus->state_cond);
  pthread_mutex_unlock(&bus->state_mutex);
  if (wake) _lmq_bus_wake(bus);
}

int lmq_bus_lead(lmq_server *server, _lmq_client_rec *rec, uint32_t kept, uint32_t timeout_ms,
                 lmq_lead_done_fn done, void *context) {
  _lmq_bus_conn *conn;
  lmq_bus *bus;
  int rc;

  if (t_lmq_bus_reading) return -EBUSY;
  pthread_mutex_lock(&server->mutex);
  bus = server->bus;
  conn = bus != NULL && !__atomic_load_n(&bus->stop, __ATOMIC_ACQUIRE)
             ? _lmq_bus_hub_conn_nolock(bus)
             : NULL;
  if (conn == NULL || !conn->active) {
    pthread_mutex_unlock(&server->mutex);
    return -ENOTCONN;
  }
  /* Counted before the server mutex goes: the connection is not freed and
   * the bus not closed while a leader is inside. */
  pthread_mutex_lock(&bus->state_mutex);
  bus->leaders++;
  pthread_mutex_unlock(&bus->state_mutex);
  pthread_mutex_unlock(&server->mutex);

  rc = _lmq_bus_lead_take(bus, conn);
  if (rc == 0) {
    rc = _lmq_bus_lead_loop(bus, conn, rec, kept, timeout_ms, done, context);
    _lmq_bus_lead_give(bus, conn, rc == 0);
  }
  _lmq_bus_leader_leave(bus);
  return rc;
}

void lmq_bus_lead_declined(lmq_server *server) {
  lmq_bus *bus;
  _lmq_bus_conn *conn;

  pthread_mutex_lock(&server->mutex);
  bus = server->bus;
  conn = bus != NULL && bus->role == LMQ_BUS_PEER ? _lmq_bus_hub_conn_nolock(bus) : NULL;
  if (conn != NULL) {
    /* As _lmq_bus_sent_unled: either a leader sees yield, or this thread
     * sees the connection parked. */
    _lmq_bus_note_unled_wait(conn);
    __atomic_store_n(&conn->yield, 1, __ATOMIC_SEQ_CST);
    if (__atomic_load_n(&conn->parked, __ATOMIC_SEQ_CST)) _lmq_bus_wake(bus);
  }
  pthread_mutex_unlock(&server->mutex);
}

int lmqServerBusSetParking(lmq_server *server, uint32_t max_us) {
  if (!_lmq_bus_server_valid(server) || max_us > LMQ_BUS_PARK_US_MAX) return -EINVAL;
  __atomic_store_n(&server->park_us, max_us, __ATOMIC_RELAXED);
  return 0;
}

int lmqServerBusSetLeadSpin(lmq_server *server, uint32_t max_us) {
  if (!_lmq_bus_server_valid(server) || max_us > LMQ_BUS_LEAD_SPIN_US_MAX) return -EINVAL;
  __atomic_store_n(&server->lead_spin_us, max_us, __ATOMIC_RELAXED);
  return 0;
}

uint32_t lmq_bus_lead_spin_default(void) {
  cpu_set_t cpus;

  if (sched_getaffinity(0, sizeof(cpus), &cpus) != 0) return 0;
  return CPU_COUNT(&cpus) > 1 ? LMQ_BUS_LEAD_SPIN_US_DEFAULT : 0u;
}

void lmq_bus_lead_next(int will_lead) {
  t_lmq_bus_lead_next = will_lead != 0;
}

int lmqServerBusStatus(lmq_server *server, lmq_bus_status *status) {
  lmq_bus *bus;
  uint32_t i;

  if (!_lmq_bus_server_valid(server) || status == NULL) return -EINVAL;
  memset(status, 0, sizeof(*status));
  pthread_mutex_lock(&server->mutex);
  status->node = server->node;
  status->lead_spin_us = __atomic_load_n(&server->lead_spin_us, __ATOMIC_RELAXED);
  bus = server->bus;
  if (bus != NULL) {
    status->role = bus->role;
    status->hub_node = bus->role == LMQ_BUS_HUB ? server->node : bus->hub_node;
    for (i = 0; i < bus->conn_count; i++) {
      status->peers += bus->conns[i]->active ? 1u : 0u;
      status->parked += (uint32_t)__atomic_load_n(&bus->conns[i]->parked, __ATOMIC_SEQ_CST);
      status->lead_spin_hits += __atomic_load_n(&bus->conns[i]->spin_hit_count, __ATOMIC_RELAXED);
      status->lead_spin_misses +=
          __atomic_load_n(&bus->conns[i]->spin_miss_count, __ATOMIC_RELAXED);
    }
  }
  pthread_mutex_unlock(&server->mutex);
  return 0;
}
