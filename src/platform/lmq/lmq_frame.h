/*
 * Frames of the lmq bus: what message servers of different processes send
 * each other over a Unix stream socket.
 *
 * A frame is
 *
 *     length  4 bytes, big-endian: the bytes that follow, type included
 *     type    1 byte
 *     fields  the type's fixed fields, big-endian, in the order below
 *     tail    for some types: a service name or a message
 *
 * A length of 0 or above LMQ_FRAME_MAX is broken at once, before any byte
 * of the frame is looked at, so a reader never needs more room than one
 * largest frame. Each type then has an exact size: its fixed fields, plus
 * a name of 1..LMQ_SERVICE_NAME_MAX bytes without zero bytes, or a
 * message of 1..LMQ_MAX_MESSAGE_SIZE bytes. Anything else (an unknown
 * type, a type that does not travel in that direction, a size that does
 * not fit, a role other than 0 or 1) is a broken frame.
 *
 * Fields (codes used in the layout table of lmq_frame.c):
 *   M magic u32 "LMQB"   V version u16     n node u32     c client u32
 *   N peer node u32      C peer client u32 e result i32   t token u32
 *   i service id i16     r role u8         y system message type u32
 *   s sequence u32
 *
 *   type            dir  fields  tail     meaning
 *   1  HELLO        ->h  M V n            a peer introduces its node
 *   2  WELCOME      ->p  M V n            the hub accepts it, n = hub's node
 *   3  REFUSED      ->p  e                the hub refuses it and closes
 *   4  PING         both t                answer with PONG t
 *   5  PONG         both t
 *   6  CLIENT_ADD   both n c              client c of node n attached
 *   7  CLIENT_DEL   both n c              ... detached, with its membership
 *   8  NODE_DEL     ->p  n                node n left the bus
 *   9  REGISTER     ->h  t       name     id of a name, please
 *   10 REGISTERED   ->p  t e i   name     the id (e = 0) or an error
 *   11 UNREGISTER   ->h  i                the peer dropped the name
 *   12 JOIN         ->h  i r c            client c of the peer joins as r
 *   13 LEAVE        ->h  i r c            ... leaves
 *   14 MEMBER_ADD   ->p  i r n c          client c of node n joined as r
 *   15 MEMBER_DEL   ->p  i r n c          ... left
 *   16 SYSMSG       ->p  i y c N C        system message y for client c
 *                                         about client C of node N
 *   17 COMMAND      both i N C s message  from client C of node N, with
 *   18 NOTIFY       both i N C s message  its sequence number s
 *   19 REPLY        both n c i N C s message  to client c of node n
 */
#ifndef PLATFORM_LMQ_LMQ_FRAME_H
#define PLATFORM_LMQ_LMQ_FRAME_H

#include <stddef.h>
#include <stdint.h>

#include "platform/lmq.h"

#define LMQ_FRAME_MAGIC 0x4C4D5142u /* "LMQB" */
#define LMQ_FRAME_VERSION 1u

#define LMQ_FRAME_LENGTH_SIZE 4u
/* The largest fixed part, type byte included (REPLY). */
#define LMQ_FRAME_FIXED_MAX 23u
/* The largest value of the length field. */
#define LMQ_FRAME_MAX (LMQ_FRAME_FIXED_MAX + LMQ_MAX_MESSAGE_SIZE)
/* Room for the length field and the fixed part of any frame. */
#define LMQ_FRAME_HEAD_MAX (LMQ_FRAME_LENGTH_SIZE + LMQ_FRAME_FIXED_MAX)

enum {
  LMQ_FRAME_HELLO = 1,
  LMQ_FRAME_WELCOME = 2,
  LMQ_FRAME_REFUSED = 3,
  LMQ_FRAME_PING = 4,
  LMQ_FRAME_PONG = 5,
  LMQ_FRAME_CLIENT_ADD = 6,
  LMQ_FRAME_CLIENT_DEL = 7,
  LMQ_FRAME_NODE_DEL = 8,
  LMQ_FRAME_REGISTER = 9,
  LMQ_FRAME_REGISTERED = 10,
  LMQ_FRAME_UNREGISTER = 11,
  LMQ_FRAME_JOIN = 12,
  LMQ_FRAME_LEAVE = 13,
  LMQ_FRAME_MEMBER_ADD = 14,
  LMQ_FRAME_MEMBER_DEL = 15,
  LMQ_FRAME_SYSMSG = 16,
  LMQ_FRAME_COMMAND = 17,
  LMQ_FRAME_NOTIFY = 18,
  LMQ_FRAME_REPLY = 19
};

/* Roles in JOIN, LEAVE, MEMBER_ADD and MEMBER_DEL. */
#define LMQ_FRAME_ROLE_HOST 0u
#define LMQ_FRAME_ROLE_SUBSCRIBER 1u

/* Directions: who may receive a type. */
#define LMQ_FRAME_TO_HUB 1u
#define LMQ_FRAME_TO_PEER 2u

/* A frame in host form; a type uses only its own fields. tail points into
 * the bytes that were decoded. */
typedef struct lmq_frame {
  uint8_t type;
  uint16_t version;
  uint32_t magic;
  uint32_t node;        /* the client's (or member's, or target's) node */
  uint32_t client;
  uint32_t peer_node;   /* the other party: sender, or peer of a sysmsg */
  uint32_t peer_client;
  int32_t result;
  uint32_t token;
  int16_t service_id;
  uint8_t role;
  uint32_t sysmsg_type;
  uint32_t sequence;
  const unsigned char *tail;
  uint32_t tail_len;
} lmq_frame;

/* Non-zero when a length field is possible at all. */
int lmq_frame_length_ok(uint32_t length);

/* Writes the length field (for a tail of tail_len bytes), the type and the
 * fixed fields of *frame to head, which has LMQ_FRAME_HEAD_MAX bytes.
 * Returns the number of bytes written. The type must be known. */
uint32_t lmq_frame_encode(unsigned char *head, const lmq_frame *frame, uint32_t tail_len);

/* Decodes the length bytes after a length field (type byte first) for a
 * receiver of the given direction. Returns 0, or -74 (EBADMSG) with a
 * short reason written to why (why_size bytes). */
int lmq_frame_decode(lmq_frame *frame, const unsigned char *bytes, uint32_t length,
                     uint32_t direction, char *why, size_t why_size);

#endif
