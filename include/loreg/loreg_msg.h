/*
 * loreg messages: the wire format between registry clients and servers.
 *
 * Every exchange is one lmq message: the 28-byte lmq header, the 32-byte
 * loreg_Header_t in protocol (big-endian) order, data0 (len0 bytes), a
 * two-byte zero guard, and data1 (len1 bytes: the sender's prefix, if any,
 * then the caller's data1). The smallest message is 62 bytes.
 *
 * Conventions
 * - Ownership: a send operation reads msg and the bytes it points to
 *   during the call only and changes none of them; data0, data1 and prefix
 *   stay where they are and go out through a gather vector, so nothing but
 *   the header is copied. After loreg_validate_msg, data0 and data1 point
 *   into the caller's receive buffer and are valid until it is reused.
 * - Null arguments: msg and client must not be null (lmq refuses a null
 *   client with -22). A null prefix, and an empty one, mean no prefix.
 * - Errors: 0 on success, else a negative errno or one of the registry's
 *   numbers below; lmq codes are returned unchanged.
 * - Threads: the send operations work on their own stack and may be called
 *   from any thread that may use the lmq client; validation writes only
 *   into the caller's buffer and msg.
 */
#ifndef LOREG_LOREG_MSG_H
#define LOREG_LOREG_MSG_H

#include <stdint.h>

#include "loreg/loreg_export.h"
#include "platform/csp_endian.h"
#include "platform/lmq.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Registry error numbers beside the system's errno values. */
#define LOREG_ERR_WRONG_SIDE (-201)     /* message type not for this side */
#define LOREG_ERR_NOT_REGISTRY (-205)   /* not a registry message */
#define LOREG_ERR_TIMEOUT (-215)        /* lmq receive timeout */
#define LOREG_ERR_BAD_LENGTHS (-223)    /* registry message with broken lengths */
#define LOREG_ERR_DISPATCH_REFUSED (-227)

/* Message types. A reply has the request's type plus LOREG_MSG_REPLY_BIT;
 * notifications carry LOREG_MSG_NOTIFY_BIT. */
#define LOREG_MSG_VALUE_QUERY 0x0001u
#define LOREG_MSG_VALUE_SET 0x0002u
#define LOREG_MSG_KEY_DELETE 0x0003u
#define LOREG_MSG_KEY_COUNT 0x0004u
#define LOREG_MSG_KEY_QUERY 0x0005u
#define LOREG_MSG_TA_START 0x0006u
#define LOREG_MSG_TA_END 0x0007u
#define LOREG_MSG_REPO_STORE 0x0008u
#define LOREG_MSG_REPO_RELOAD 0x0009u
#define LOREG_MSG_STOP 0x000Au
#define LOREG_MSG_ECHO 0x000Bu
#define LOREG_MSG_TA_START_TIMED 0x000Cu
#define LOREG_MSG_TID_ACQUIRE 0x000Du
#define LOREG_MSG_TID_RELEASE 0x000Eu
#define LOREG_MSG_KEY_UPDATE_TRIGGER 0x00E1u
#define LOREG_MSG_ROOT_KEY_QUERY 0x00E2u
#define LOREG_MSG_IDLE 0x200Au
#define LOREG_MSG_KEY_UPDATE 0x20E1u

#define LOREG_MSG_REPLY_BIT 0x1000u
#define LOREG_MSG_NOTIFY_BIT 0x2000u
#define LOREG_MSG_CLASS_MASK 0xF000u
#define LOREG_MSG_REPLY_TYPE(request) ((uint16_t)((request) + LOREG_MSG_REPLY_BIT))

/* Reason codes of a key update notification (arg0). */
#define LOREG_REASON_KEY_UPDATE 0x5001u
#define LOREG_REASON_KEY_DELETE 0x5002u
#define LOREG_REASON_TA_START 0x5003u
#define LOREG_REASON_TA_END 0x5004u
#define LOREG_REASON_KEY_ADD 0x5005u
#define LOREG_REASON_KEY_CHANGE 0x5006u
#define LOREG_REASON_SERVER_AVAILABLE 0x5101u
#define LOREG_REASON_SERVER_GONE 0x5102u

/* Framing of a registry message inside lmq. */
#define LOREG_LMQ_PROTOCOL 2u
#define LOREG_LMQ_PROTOCOL_BYTE 0x82u     /* protocol 2, top bit set */
#define LOREG_LMQ_HEADER_WORDS 7u
#define LOREG_LMQ_MSG_TYPE 0x4C524547u    /* the bytes "GERL" */
#define LOREG_LMQ_MSG_SUBTYPE 0x53554231u /* the bytes "1BUS" */
#define LOREG_HEADER_SIZE 32u
#define LOREG_GUARD_SIZE 2u
#define LOREG_MSG_MIN_SIZE (LMQ_HEADER_SIZE + LOREG_HEADER_SIZE + LOREG_GUARD_SIZE)

/* The fixed part of every registry message, in host order. */
typedef struct loreg_Header_t {
  uint16_t msgtype;   /* see the message types */
  uint16_t reserved0; /* 0 on sending; echoed in replies */
  uint32_t reqid;     /* request number chosen by the client; echoed */
  uint32_t arg0;      /* first argument, meaning by msgtype */
  uint32_t arg1;      /* second argument, meaning by msgtype */
  int32_t tid;        /* transaction id; 0 none, -1 passes any lock on reads */
  int32_t result;     /* in replies 0 or a negative error number */
  uint16_t len0;      /* bytes of data0 */
  uint16_t len1;      /* bytes of data1 */
  uint32_t reserved1; /* 0 on sending; echoed in replies */
} loreg_Header_t;

#ifdef __cplusplus
static_assert(sizeof(loreg_Header_t) == 32, "loreg_Header_t is 32 bytes on the wire");
#else
typedef char loreg_header_size_check[(sizeof(loreg_Header_t) == 32) ? 1 : -1];
#endif

/* Field table of loreg_Header_t for cspHostToProtocol/cspProtocolToHost. */
LOREG_EXPORT extern const __csp_EndianInfoEntry __csp_EndianInfoEntries_loreg_Header_t[11];
LOREG_EXPORT extern const __csp_EndianTable __csp_EndianTable_loreg_Header_t;

/* The host form of a message: what a send takes and validation fills. */
typedef struct loreg_msg {
  loreg_Header_t header; /* host order */
  char *data0;           /* len0 bytes; after validation terminated by the guard */
  char *data1;           /* len1 bytes; after validation terminated by a stored zero */
  const char *prefix;    /* sending: zero-terminated text sent in front of data1.
                            Validation sets it to null. */
} loreg_msg;

/*
 * Send msg as a command to every host of service_id, by lmqCXSendCommand.
 * Returns 0, or the lmq code unchanged (e.g. -105 for a full queue, -113
 * without host); a failure is also logged. msg is not kept or changed.
 */
LOREG_EXPORT int loreg_send_command(lmq_client *client, int16_t service_id, const loreg_msg *msg);

/*
 * Send msg as a reply to the client that reply_address names (the address
 * of a received message's lmq_rx_info), by lmqCXReply. Returns as
 * loreg_send_command.
 */
LOREG_EXPORT int loreg_send_reply(lmq_client *client, const loreg_msg *msg,
                                  const lmq_address *reply_address);

/*
 * Send msg as a notification to every subscriber of service_id, by
 * lmqCXNotify. No subscriber is no error. Returns as loreg_send_command.
 */
LOREG_EXPORT int loreg_send_notification(lmq_client *client, int16_t service_id,
                                         const loreg_msg *msg);

/*
 * Send msg to the client's own queue, by lmqCXNotifySelf; it arrives with
 * service id -1. Serves to wake the task's own loop. Returns as
 * loreg_send_command.
 */
LOREG_EXPORT int loreg_send_self_notification(lmq_client *client, const loreg_msg *msg);

/*
 * Checks a message received into buffer (buffer_size bytes; the receive
 * was told buffer_size - 1 so that a spare byte remains) and fills msg:
 * header in host order, data0/data1 pointing into buffer, prefix null.
 * Stores a zero byte after data1. Returns 0; the lmqMessageHeaderValidate
 * code for broken lmq framing; -205 for a message that isn't a registry
 * message (protocol, type, subtype); -223 for broken lengths. Each failure
 * is logged. On failure msg may be partly written.
 */
LOREG_EXPORT int loreg_validate_msg(loreg_msg *msg, void *buffer, uint32_t buffer_size,
                                    const lmq_rx_info *info);

/* Text of a key update reason code; "<unknown>" for codes not listed.
 * Never fails; the text is static. */
LOREG_EXPORT const char *lorc_get_reason_txt(uint32_t code);

#ifdef __cplusplus
}
#endif

#endif
