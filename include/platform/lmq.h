/*
 * lmq: the platform's message queue.
 *
 * A message server (lmq_server) connects any number of clients. Each client
 * owns a bounded receive queue in memory that its creator provides; every
 * message is copied whole into the receiver's queue at send time, so a
 * sender never waits for a receiver.
 *
 * Services are named and get 16-bit ids from lmqRegisterPlainId. A client
 * may host a service (it then receives every command sent to the service)
 * or subscribe to it (it then receives every notification of the service).
 * A service may have several hosts and many subscribers.
 *
 * Addresses. Every received message comes with an lmq_rx_info whose reply
 * address names the sending client; the address is 20 plain bytes that may
 * be copied, kept and used later with lmqCXReply, which delivers to that
 * one client. Addresses hold no pointers, so they can travel between
 * processes.
 *
 * System messages. When a client subscribes to a service that has a host,
 * or starts hosting a service that has subscribers, lmq queues system
 * messages (kind 0 in the reply address):
 *   - each host concerned receives LMQ_SYSMSG_SUBSCRIBER_PRESENT (a
 *     subscriber is there), once per new subscriber;
 *   - each subscriber concerned receives LMQ_SYSMSG_HOST_PRESENT (a host is
 *     there), once per new host.
 * The order of hosting and subscribing does not matter. A client is never
 * paired with itself. A subscriber may answer LMQ_SYSMSG_HOST_PRESENT at
 * once with a command to the service: the new host is reachable by then,
 * on whichever node of a bus it is. A system message is LMQ_SYSMSG_SIZE bytes: the
 * 28-byte header in protocol order (protocol byte 0x82, 7 words, type,
 * subtype, size) followed by the service id (16 bits, big-endian). Its
 * reply address carries the service concerned and names the other client
 * of the pair. A system message that finds no room in a queue is dropped
 * and logged; it never makes lmqHostService or lmqSubscribeService fail.
 * lmqCXHandleSystemMessage decodes them.
 *
 * Queues. Each queued message takes its size plus LMQ_QUEUE_ENTRY_OVERHEAD
 * bytes of its receiver's queue, so a queue of n bytes can never take a
 * message larger than n - LMQ_QUEUE_ENTRY_OVERHEAD (-90).
 *
 * Threads. Any thread may send to any client; one thread receives per
 * client. Functions return 0 (or a positive length) on success and a
 * negative errno on failure:
 *   -22  (EINVAL)    null or invalid argument
 *   -2   (ENOENT)    unknown service id or client not attached
 *   -17  (EEXIST)    already hosting/subscribed/attached
 *   -12  (ENOMEM)    no memory for a table entry
 *   -90  (EMSGSIZE)  message larger than LMQ_MAX_MESSAGE_SIZE, than the
 *                    receiver's queue, or than the receive buffer
 *   -105 (ENOBUFS)   the receiver's queue is full (the send fails at once,
 *                    never blocks, and the queue stays intact)
 *   -113 (EHOSTUNREACH) a command for a service without host, or a reply
 *                    to a client that is gone
 *   -215             lmqCXReceive's timeout ran out (or its idle reply
 *                    handler asked it to look at its timers)
 *
 * Time. Receive timeouts run on the platform's uptime clock, so the clock's
 * test hook (cspOsalTestAdvanceUptime) ends them without real waiting.
 *
 * The bus. Message servers of different processes can be joined over a
 * Unix domain socket: one server listens (the hub, lmqServerListen), the
 * others connect to it (peers, lmqServerConnect). Hosts, subscribers and
 * clients of all of them then meet as on one server: commands reach every
 * host on every node, replies reach the client a kept address names,
 * notifications reach every subscriber, and the system messages above
 * pair hosts and subscribers across nodes too. Node numbers are unique
 * across the processes of a bus (they hold the process id), and the hub
 * gives the service ids of the whole bus. Differences to one server:
 *   - A message for another node reaches its queue later, on that node's
 *     bus thread. Its send returns 0 once the bus took it; a queue there
 *     without room drops it, with a log line on that node.
 *   - A message that the connection to its node cannot take at once gets
 *     -105, as a full queue does (no sender ever waits for a socket); a
 *     command or reply whose node's connection broke gets -113.
 *   - Membership changes travel through the hub; lmqServerBusSync tells
 *     when a server has caught up with the hub.
 *   - When a process leaves the bus (its socket closes), its clients,
 *     hosts and subscriptions are gone for every other node: commands to
 *     a service it alone hosted, and replies to its clients, give -113.
 * lmq logs what goes wrong on the bus on channel 0x6C: a peer that sends a
 * broken frame is disconnected, the others go on.
 */
#ifndef PLATFORM_LMQ_H
#define PLATFORM_LMQ_H

#include <stdint.h>

#include "platform/csp_export.h"
#include "platform/csp_osal.h"

#ifdef __cplusplus
extern "C" {
#endif

#define LMQ_TIMEOUT (-215)
#define LMQ_MAX_MESSAGE_SIZE 8191u
#define LMQ_HEADER_SIZE 28u
#define LMQ_SERVICE_NAME_MAX 64u
#define LMQ_QUEUE_ENTRY_OVERHEAD 24u
#define LMQ_SYSMSG_SIZE (LMQ_HEADER_SIZE + 2u)

/* System message types, with subtype LMQ_SYSMSG_SUBTYPE_PRESENT. */
#define LMQ_SYSMSG_HOST_PRESENT 0x185627F3u
#define LMQ_SYSMSG_SUBSCRIBER_PRESENT 0x185627F4u
#define LMQ_SYSMSG_SUBTYPE_PRESENT 1u

/* Kind byte of an address. Zero is a system message, others application. */
#define LMQ_KIND_SYSTEM 0u
#define LMQ_KIND_COMMAND 1u
#define LMQ_KIND_REPLY 2u
#define LMQ_KIND_NOTIFY 3u
#define LMQ_KIND_SELF 4u

/* Reply address: 20 bytes that name a client. */
typedef struct lmq_address {
  uint32_t node;      /* bytes 0..3: the message server of the client */
  uint32_t client;    /* bytes 4..7: client number, never reused */
  int16_t service_id; /* bytes 8..9: service the message belongs to, -1 none */
  uint8_t kind;       /* byte 10: LMQ_KIND_* */
  uint8_t reserved0;  /* byte 11 */
  uint32_t sequence;  /* bytes 12..15: sender's message counter */
  uint32_t reserved1; /* bytes 16..19 */
} lmq_address;

/* Filled by lmqCXReceive. Words 0..2, then the reply address (words 3..7). */
typedef struct lmq_rx_info {
  uint32_t status;   /* word 0: 0 */
  uint32_t count;    /* word 1: messages taken from this client's queue so
                        far, this one included (also one dropped by -90) */
  uint32_t size;     /* word 2: received size in bytes */
  lmq_address reply; /* words 3..7 */
} lmq_rx_info;

/* One entry of a gather (send) or scatter (receive) vector. */
typedef struct lmq_iovec {
  void *base;
  uint32_t len;
} lmq_iovec;

/* The 28-byte message header in host form. */
typedef struct lmq_msg_header {
  uint8_t protocol;  /* low 7 bits protocol number, top bit set */
  uint8_t words;     /* header length in 32-bit words: 7 */
  uint16_t reserved0;
  uint32_t type;
  uint32_t subtype;
  uint32_t size;  /* whole message, header included */
  uint32_t size2; /* the same again */
  uint32_t reserved1[2];
} lmq_msg_header;

typedef struct lmq_server lmq_server;

/* Client record: created zeroed by the caller (sizeof(lmq_client)), made a
 * client by lmqClientInit. Its contents are private. */
#define LMQ_CLIENT_BYTES 320u
typedef struct lmq_client {
  union {
    unsigned char bytes[LMQ_CLIENT_BYTES];
    uint64_t align;
    void *align_ptr;
  } u;
} lmq_client;

/* Roles on a bus, for lmq_bus_status. */
#define LMQ_BUS_NONE 0u
#define LMQ_BUS_HUB 1u
#define LMQ_BUS_PEER 2u

/* Filled by lmqServerBusStatus. */
typedef struct lmq_bus_status {
  uint32_t role;     /* LMQ_BUS_NONE, LMQ_BUS_HUB or LMQ_BUS_PEER */
  uint32_t node;     /* this server's node number */
  uint32_t hub_node; /* the hub's node (a hub: its own); 0 when a peer's
                        hub is gone */
  uint32_t peers;    /* a hub: peers connected; a peer: 1 while connected */
  uint32_t parked;   /* a peer: 1 while a leader left its hub connection
                        parked for the next one (lmqClientLeadNext) */
  uint32_t lead_spin_us;     /* how long leaders poll (lmqServerBusSetLeadSpin) */
  uint32_t lead_spin_hits;   /* a peer: leaders' polls of the hub connection
                                that found input (lmqServerBusSetLeadSpin),
                                counted since it was made, wrapping */
  uint32_t lead_spin_misses; /* a peer: such polls that found nothing */
} lmq_bus_status;

/* Called by lmqCXHandleSystemMessage for a decoded system message. */
typedef void (*lmq_sysmsg_cb)(void *context, uint32_t type, uint32_t subtype, int16_t service_id);
typedef struct lmq_sysmsg_pair {
  void *context;
  lmq_sysmsg_cb callback;
} lmq_sysmsg_pair;

/* --- Server ---------------------------------------------------------- */

/* Creates a message server and registers it as a listener of the uptime
 * clock's test hook. Returns 0 and *server, or -22, -12 (no memory, or the
 * clock's listener table is full). */
CSP_EXPORT int lmqServerCreate(lmq_server **server);

/* Destroys a server. Its bus side is closed first (see lmqServerBusClose),
 * then clients still attached are detached (their queues keep what they
 * hold). No other call on the server may run meanwhile. Returns 0 or
 * -22. */
CSP_EXPORT int lmqServerDestroy(lmq_server *server);

/* Attaches an initialised client, which gets a client number that this
 * server never gives again. Returns 0, -22, -17 (attached to this or
 * another server). */
CSP_EXPORT int lmqServerAddClient(lmq_server *server, lmq_client *client);

/* Detaches a client: ends its hosting and subscriptions and makes its
 * address unreachable. Returns 0, -22, -2. */
CSP_EXPORT int lmqServerRemoveClient(lmq_server *server, lmq_client *client);

/* --- Bus ------------------------------------------------------------ */

/*
 * Makes the server the hub of a bus: it listens on a Unix socket file at
 * path, which is created with the permission bits mode (0 means 0600,
 * only the owner may connect; e.g. 0660 lets the group in). A socket file
 * left at path by a process that is gone (nobody accepts on it) is
 * removed and made anew; a live one is never taken, nor is a file of
 * another kind. Starts the server's bus thread ("lmqbus"); the socket
 * file is removed again by lmqServerBusClose or lmqServerDestroy.
 * Services registered before stay with their ids. Returns 0, -22 (null
 * server or path, empty path, mode beyond 0777), -36 (path too long for a
 * socket address), -114 (the server is on a bus already), -98 (a live
 * socket or another file at path), -12, or the -errno of socket, bind,
 * chmod or listen (e.g. -2, -13 for the directory).
 */
CSP_EXPORT int lmqServerListen(lmq_server *server, const char *path, uint32_t mode);

/*
 * Makes the server a peer of the bus whose hub listens at path and waits,
 * at most *timeout (relative, real time; null waits for ever), until the
 * hub has welcomed it and told it every client on the bus. The server's
 * clients that are attached already join the bus with it. It must not
 * have any service registered (their ids would be its own, not the bus's);
 * from now on each new name's id comes from the hub, so every node of the
 * bus agrees on it. Starts the bus thread. When the hub goes away later
 * the server goes on alone (lmqServerBusStatus shows it), with the ids it
 * has; it gives new ids itself then.
 * Returns 0, -22 (null server or path, empty path), -36 (path too long),
 * -114 (on a bus already), -16 (services registered), -2 (no socket at
 * path), -111 (nobody listens there), -13, -110 (the hub did not answer
 * in time), -17 (the hub refused: a server with this node number is on
 * the bus), -71 (the hub speaks another protocol version), -103 (the hub
 * closed the connection), -12.
 */
CSP_EXPORT int lmqServerConnect(lmq_server *server, const char *path,
                                const _cspOsalTime_struct *timeout);

/*
 * Waits, at most *timeout (relative, real time; null: for ever), until
 * the other side of each of the server's bus connections has handled
 * every frame the server sent before the call, and the server has handled
 * every frame those sides sent before their answer. So after
 *   lmqServerBusSync(a); lmqServerBusSync(b);
 * on two peers a and b, b knows of every membership change that a made
 * before. A hub waits for each peer connected. Returns 0, -22, -107 (not
 * on a bus, or a peer whose hub is gone), -103 (a peer's hub went away
 * meanwhile), -110.
 */
CSP_EXPORT int lmqServerBusSync(lmq_server *server, const _cspOsalTime_struct *timeout);

/*
 * Closes the server's bus side: ends the bus thread and the connections,
 * and forgets all clients of other nodes with their hosting and
 * subscriptions. A hub removes its socket file (if it is still the one it
 * made), and its peers go on alone; the other nodes forget a peer that
 * closes. Local clients and services stay. It first waits for a
 * lmqServerConnect, lmqServerBusSync or registration round trip of this
 * server that runs on another thread. Returns 0, -22, -107 (not on a
 * bus).
 */
CSP_EXPORT int lmqServerBusClose(lmq_server *server);

/*
 * How long, at most, a leader may leave a peer's hub connection parked
 * for the next leader (see lmqClientLeadNext): max_us microseconds, up to
 * LMQ_BUS_PARK_US_MAX; 0 makes every leader give it back at once. Messages
 * that arrive unasked meanwhile wait that long at worst. Returns 0 or
 * -22.
 */
#define LMQ_BUS_PARK_US_DEFAULT 1000u
#define LMQ_BUS_PARK_US_MAX 60000000u
CSP_EXPORT int lmqServerBusSetParking(lmq_server *server, uint32_t max_us);

/*
 * How long a leader (lmqClientLeadBus) polls the hub connection before it
 * sleeps in recv: max_us microseconds, up to LMQ_BUS_LEAD_SPIN_US_MAX; 0
 * makes leaders sleep at once. An answer that comes meanwhile is read
 * without the caller's processor going idle and being woken again, which
 * on many machines costs more than a quick server takes to answer. The
 * poll takes a processor for that long, so it only pays when the server
 * runs on another one: a new server polls LMQ_BUS_LEAD_SPIN_US_DEFAULT
 * when the process may run on more than one processor (its affinity when
 * the server is created), else not at all. After
 * LMQ_BUS_LEAD_SPIN_MISS_LIMIT polls in a row that found nothing, the
 * next LMQ_BUS_LEAD_SPIN_SKIP reads of the connection sleep at once, then
 * polling is tried again, so answers slower than the poll waste little.
 * The time a leader waits in all (its timeout) does not change. Returns
 * 0 or -22.
 */
#define LMQ_BUS_LEAD_SPIN_US_DEFAULT 20u
#define LMQ_BUS_LEAD_SPIN_US_MAX 1000u
#define LMQ_BUS_LEAD_SPIN_MISS_LIMIT 4u
#define LMQ_BUS_LEAD_SPIN_SKIP 32u
CSP_EXPORT int lmqServerBusSetLeadSpin(lmq_server *server, uint32_t max_us);

/* Describes the server's place on a bus. Returns 0 or -22. */
CSP_EXPORT int lmqServerBusStatus(lmq_server *server, lmq_bus_status *status);

/*
 * Leading. A thread that has just sent, through client, a message whose
 * answer can only come over the bus (its last send went to other nodes
 * only) may read the server's connection to its hub itself while it
 * waits, instead of the bus thread: the answer then wakes this thread
 * directly, which saves the hand-over from the bus thread. Everything
 * read meanwhile is delivered exactly as the bus thread would deliver it
 * (idle handlers run in this thread), and the bus thread takes over again
 * when the call returns. One thread leads at a time.
 *
 * done(context) is asked before each wait and after each read; the call
 * returns 0 once it answers non-zero. Otherwise it returns -110 after
 * timeout_ms milliseconds (the caller then waits its usual way); -11
 * when the client has sent nothing, or its last send did not go to other
 * nodes only, when something was queued for the client's receiver (the
 * answer may come that way) since the send was announced
 * (lmqClientLeadNext) or, unannounced, since the call began, even if the
 * receiver has taken it already, or when the connection cannot be handed
 * over right now (output waits to be written); -16 when another thread
 * leads, or this thread is reading the bus already (an idle handler);
 * -107 when the server is not a peer connected to a hub, is closing its
 * bus, or the connection ends; -2 for a client that is not attached;
 * -22. Nothing else wakes a leader before its time, so the timeout should
 * be short: closing the bus waits for it.
 */
typedef int (*lmq_lead_done_fn)(void *context);
CSP_EXPORT int lmqClientLeadBus(lmq_client *client, uint32_t timeout_ms, lmq_lead_done_fn done,
                                void *context);

/*
 * Announces (will_lead non-zero) that the calling thread leads the bus
 * right after its next send to another node, through client or any other
 * client of the process; 0 withdraws it. A leader whose answer came then
 * leaves the hub connection parked for the next leader, which saves the
 * hand-over in both directions to a thread that calls in a loop. Every
 * other send to the hub gives a parked connection back to the bus thread
 * at once, and keeps leaders from parking until one gave it back; what
 * arrives unasked while the connection is parked (notifications, commands
 * for hosts of this process) waits until the next leader reads it, or
 * the bus thread takes the connection back after at most the server's
 * parking time (lmqServerBusSetParking). The announcement is used up by
 * that send or by lmqClientLeadBus. A thread that announced and then
 * cannot lead (lmqClientLeadBus gives -11 because another send of the
 * client came in between) gives a parked connection back as well, so its
 * answer is read at once. Such a thread, and one refused because another
 * leads (-16) or whose lead ended without its answer, waits for an answer
 * that comes after those of the sends before its own: no leader whose
 * send went before it parks the connection. Returns 0 or -22.
 */
CSP_EXPORT int lmqClientLeadNext(lmq_client *client, int will_lead);

/* --- Services -------------------------------------------------------- */

/* Gives the id of the service named by name_size bytes (a trailing zero
 * included or not: the name ends at the first zero byte). The same name
 * gets the same id; each call counts a reference. On a peer of a bus the
 * first reference of a name asks the hub (a round trip of at most a few
 * seconds), so the name has the same id on every node. Returns 0 and *id,
 * or -22 (null, empty or longer than LMQ_SERVICE_NAME_MAX), -12 (no
 * memory, or all 32767 ids in use), -110 (a peer's hub did not answer).
 * Ids are positive. */
CSP_EXPORT int lmqRegisterPlainId(lmq_server *server, const char *name, uint32_t name_size,
                                  int16_t *id);

/* Drops one reference of a service id; the last one frees the name and its
 * hosts and subscribers on this server (on a bus the name lives on while
 * another node holds it). Returns 0, -22, -2. */
CSP_EXPORT int lmqUnRegisterPlainId(lmq_server *server, int16_t id);

/* Makes the attached client a host / subscriber of a service. flags must
 * be 0. Returns 0, -22, -2 (unknown id or client not attached), -17, -12. */
CSP_EXPORT int lmqHostService(lmq_client *client, int16_t id, uint32_t flags);
CSP_EXPORT int lmqSubscribeService(lmq_client *client, int16_t id, uint32_t flags);

/* The inverse operations. Return 0, -22, -2 (not hosting / subscribed). */
CSP_EXPORT int lmqUnHostService(lmq_client *client, int16_t id);
CSP_EXPORT int lmqUnSubscribeService(lmq_client *client, int16_t id);

/* --- Clients --------------------------------------------------------- */

/* Makes a client out of a zeroed record and a receive queue of queue_size
 * bytes owned by the caller (at least 64 bytes), which must stay valid
 * until lmqClientRelease. Returns 0, -22 (null, queue too small, or
 * already a client), or the -errno of the mutex or condition set-up. */
CSP_EXPORT int lmqClientInit(lmq_client *client, void *queue, uint32_t queue_size);

/* Releases a client that is no longer attached; messages still queued are
 * dropped. Returns 0 or -22 (not initialised, or still attached). */
CSP_EXPORT int lmqClientRelease(lmq_client *client);

/* Stores the client's own address (kind 0, service -1), e.g. for tests.
 * Returns 0, -22, -2 (not attached). */
CSP_EXPORT int lmqClientAddress(const lmq_client *client, lmq_address *address);

/*
 * Idle reply handler. A reply (kind LMQ_KIND_REPLY) of at most
 * LMQ_IDLE_REPLY_MAX bytes that reaches the client while its receiving
 * thread is blocked in lmqCXReceive with nothing queued is first offered
 * to handler, in the thread that delivers it (the replying thread, or the
 * bus thread for a reply from another process), after lmq has let go of
 * its own locks. Until the handler returns, the receiving thread stays
 * blocked and whatever else arrives queues up behind the offered reply,
 * so the order of messages is kept: everything the receiver was sent
 * before the reply has been received and handled, and nothing after it
 * is. The handler gets a private copy of the message in a buffer of
 * buffer_size bytes (at least one more than size) that it may change,
 * and returns 1 when it has dealt with the message, which then never
 * reaches the queue, or 0 to have it received as usual. It returns 2 when
 * it has dealt with it and the receiver should look at its timers again:
 * the blocked lmqCXReceive then returns LMQ_TIMEOUT once, also one
 * without timeout (a message that is there first is received instead).
 *
 * This saves a thread switch when a reply only has to wake a thread that
 * waits for it, or when the receiver's work for it is short. The handler
 * may send (lmq's own locks are free), but must not wait for the
 * receiving thread. Set it before the receiving thread starts; a null
 * handler switches the offers off. lmqServerRemoveClient waits for an
 * offer that is running. Returns 0, or -22 for an invalid client.
 */
#define LMQ_IDLE_REPLY_MAX 1024u
typedef int (*lmq_idle_reply_fn)(void *context, void *message, uint32_t size,
                                 uint32_t buffer_size, const lmq_address *from);
CSP_EXPORT int lmqClientSetIdleReplyHandler(lmq_client *client, lmq_idle_reply_fn handler,
                                            void *context);

/* The same for the kinds given: LMQ_IDLE_REPLIES, and LMQ_IDLE_NOTIFICATIONS
 * for notifications (kind LMQ_KIND_NOTIFY; a notification to itself is
 * never offered, as it is sent to wake the receiver). A notification for
 * several subscribers of this process is offered to at most one of them,
 * the first whose receiver is idle; the others receive it as usual.
 * kinds 0 switches the offers off. Returns 0, or -22 for an invalid
 * client or unknown kinds. */
#define LMQ_IDLE_REPLIES 0x1u
#define LMQ_IDLE_NOTIFICATIONS 0x2u
CSP_EXPORT int lmqClientSetIdleHandler(lmq_client *client, uint32_t kinds,
                                       lmq_idle_reply_fn handler, void *context);

/* --- Sending: each gathers count entries into one message ------------ */

/* The vector's entries are copied, in order, into each receiver's queue
 * before the call returns; an entry of length 0 may have a null base. A
 * message of 0 bytes, a null vector or non-zero flags give -22; a sender
 * that is not attached gets -2 (except for lmqCXNotifySelf). Each send
 * counts one in the sender's sequence, which the receiver sees in the
 * reply address. */

/* To every host of the service, on every node of the bus. If some host's
 * queue (or the connection to its node) refuses the message, the others
 * still get it and the first error is returned. flags must be 0. Returns
 * 0, -22, -2, -90, -105, -113 (no host anywhere, or the connection to the
 * node of a host broke). */
CSP_EXPORT int lmqCXSendCommand(lmq_client *client, int16_t service_id, const lmq_iovec *vector,
                                uint32_t count, uint32_t flags);

/* To the one client that the address names, on this or another node of
 * the bus. The receiver's reply address names the sender, with the
 * service id taken from the address used. An address of a client that is
 * no longer attached, or of a node that is not on the bus, gives -113.
 * Returns 0, -22, -2, -90, -105, -113. */
CSP_EXPORT int lmqCXReply(lmq_client *client, const lmq_address *address, const lmq_iovec *vector,
                          uint32_t count, uint32_t flags);

/* To every subscriber of the service on every node (none is not an
 * error). Returns as lmqCXSendCommand, without -113. */
CSP_EXPORT int lmqCXNotify(lmq_client *client, int16_t service_id, const lmq_iovec *vector,
                           uint32_t count, uint32_t flags);

/* To the sender's own queue, service id -1; the client need not be
 * attached. Another thread may use it to wake the client's receiver.
 * Returns 0, -22, -90, -105. */
CSP_EXPORT int lmqCXNotifySelf(lmq_client *client, const lmq_iovec *vector, uint32_t count,
                               uint32_t flags);

/* --- Receiving ------------------------------------------------------- */

/*
 * Takes the next message of the client's queue into the vector's buffers,
 * filled in order, and fills *info. A null timeout waits for ever; else
 * the wait ends after *timeout (relative, uptime clock) with LMQ_TIMEOUT.
 * A zero or negative timeout takes a queued message or returns LMQ_TIMEOUT
 * at once. Returns the message size (> 0), LMQ_TIMEOUT, -22, or -90 when
 * the message is larger than the buffers: it is then dropped whole (never
 * cut) and *info describes it, info->size telling its size. Only the
 * client's one receiving thread may call this.
 */
CSP_EXPORT int lmqCXReceive(lmq_client *client, const lmq_iovec *vector, uint32_t count,
                            lmq_rx_info *info, const _cspOsalTime_struct *timeout);

/* Decodes a received system message (kind 0) held in the vector and calls
 * pair->callback(pair->context, type, subtype, service id) on the calling
 * thread, with no lmq lock held. Returns 0, or -22 for an invalid server,
 * client or pair, or when it is not a well-formed system message (nothing
 * is called then). */
CSP_EXPORT int lmqCXHandleSystemMessage(lmq_server *server, lmq_client *client,
                                        const lmq_sysmsg_pair *pair, const lmq_rx_info *info,
                                        const lmq_iovec *vector, uint32_t count);

/* --- Header ---------------------------------------------------------- */

/* Convert the 28-byte header between host form and protocol (big-endian)
 * order. destination and source may be the same. Return 0 or -22. */
CSP_EXPORT int lmqMessageHeaderToProtocol(void *destination, const lmq_msg_header *source);
CSP_EXPORT int lmqMessageHeaderToHost(lmq_msg_header *destination, const void *source);

/* Checks the framing of a received message of info->size bytes in buffer
 * (protocol order): the size fits the buffer and is at least the header,
 * the header's word count is 7, and both size fields equal info->size.
 * Sets *payload to the first byte after the header. Returns 0, -22 for
 * null arguments, -74 (EBADMSG) for broken framing. */
CSP_EXPORT int lmqMessageHeaderValidate(void **payload, const lmq_rx_info *info, const void *buffer,
                                        uint32_t buffer_size);

#ifdef __cplusplus
}
#endif

#endif
