#include "loreg/loreg_msg.h"

#include <assert.h>
#include <endian.h>
#include <stddef.h>
#include <string.h>

#include "common/loreg_debug.h"
#include "messaging/loreg_msg_check.h"

/* The header's fields: name, offset on the wire, width in bits. The
 * record lies as on the wire, which the assertions below check, so the
 * same list makes the conversion table and the converters. */
#define _LOREG_HEADER_FIELDS(X) \
  X(msgtype, 0, 16)             \
  X(reserved0, 2, 16)           \
  X(reqid, 4, 32)               \
  X(arg0, 8, 32)                \
  X(arg1, 12, 32)               \
  X(tid, 16, 32)                \
  X(result, 20, 32)             \
  X(len0, 24, 16)               \
  X(len1, 26, 16)               \
  X(reserved1, 28, 32)

_Static_assert(sizeof(loreg_Header_t) == LOREG_HEADER_SIZE,
               "loreg_Header_t is 32 bytes on the wire");
#define _LOREG_FIELD_CHECK(name, offset, bits)                          \
  _Static_assert(offsetof(loreg_Header_t, name) == (offset) &&          \
                     sizeof(((loreg_Header_t *)0)->name) * 8 == (bits), \
                 "loreg_Header_t." #name " lies as on the wire");
_LOREG_HEADER_FIELDS(_LOREG_FIELD_CHECK)
#undef _LOREG_FIELD_CHECK

#define _LOREG_FIELD_ENTRY(name, offset, bits) {offset, (bits) / 8, 0},
const __csp_EndianInfoEntry __csp_EndianInfoEntries_loreg_Header_t[11] = {
    _LOREG_HEADER_FIELDS(_LOREG_FIELD_ENTRY){0, 0, CSP_ENDIAN_END},
};
#undef _LOREG_FIELD_ENTRY

const __csp_EndianTable __csp_EndianTable_loreg_Header_t = {
    sizeof(loreg_Header_t),
    __csp_EndianInfoEntries_loreg_Header_t,
};

static void _loreg_put16(unsigned char *wire, uint16_t value) {
  value = htobe16(value);
  memcpy(wire, &value, sizeof(value));
}

static void _loreg_put32(unsigned char *wire, uint32_t value) {
  value = htobe32(value);
  memcpy(wire, &value, sizeof(value));
}

static uint16_t _loreg_get16(const unsigned char *wire) {
  uint16_t value;
  memcpy(&value, wire, sizeof(value));
  return be16toh(value);
}

static uint32_t _loreg_get32(const unsigned char *wire) {
  uint32_t value;
  memcpy(&value, wire, sizeof(value));
  return be32toh(value);
}

/* The header in protocol order and back: the bytes that cspHostToProtocol
 * and cspProtocolToHost give with __csp_EndianTable_loreg_Header_t, without
 * walking and checking the table for every message. */
static void _loreg_header_to_wire(unsigned char *wire, const loreg_Header_t *header) {
#define _LOREG_FIELD_PUT(name, offset, bits) \
  _loreg_put##bits(wire + (offset), (uint##bits##_t)header->name);
  _LOREG_HEADER_FIELDS(_LOREG_FIELD_PUT)
#undef _LOREG_FIELD_PUT
}

static void _loreg_header_from_wire(loreg_Header_t *header, const unsigned char *wire) {
#define _LOREG_FIELD_GET(name, offset, bits) \
  header->name = _loreg_get##bits(wire + (offset));
  _LOREG_HEADER_FIELDS(_LOREG_FIELD_GET)
#undef _LOREG_FIELD_GET
}

/* The two zero bytes between data0 and data1. They make data0 a terminated
 * text in the receiver's buffer without a copy. */
static const char _loreg_guard[LOREG_GUARD_SIZE] = {0, 0};

/* The four ways a message leaves; they differ only in the final lmq call. */
typedef enum {
  _LOREG_SEND_COMMAND,
  _LOREG_SEND_REPLY,
  _LOREG_SEND_NOTIFY,
  _LOREG_SEND_SELF,
} _loreg_send_kind;

static const char *const _loreg_send_lmq_names[] = {
    "lmqCXSendCommand",
    "lmqCXReply",
    "lmqCXNotify",
    "lmqCXNotifySelf",
};

/* lmq_iovec holds a non-const pointer although lmq only reads sent data. */
static void *_loreg_unconst(const void *p) {
  return (void *)(uintptr_t)p;
}

/*
 * The one routine behind the four send operations. Builds the gather
 * vector [lmq header, loreg header, data0?, guard, prefix?, data1?] on the
 * stack, so that only the two headers are written here and the caller's
 * bytes go out where they lie.
 */
static int _loreg_send(_loreg_send_kind kind, const char *caller, lmq_client *client,
                       int16_t service_id, const lmq_address *address, const loreg_msg *msg) {
  unsigned char lmq_wire[LMQ_HEADER_SIZE];
  unsigned char header_wire[LOREG_HEADER_SIZE];
  lmq_msg_header lmq_header;
  loreg_Header_t header;
  lmq_iovec vector[6];
  uint32_t count = 0;
  uint32_t prefix_len = 0;
  uint32_t size = LOREG_MSG_MIN_SIZE;
  int rc;

  /* The header changes below (len1 grows by the prefix); the caller's
   * message stays as it is. */
  header = msg->header;
  if (msg->prefix != NULL) prefix_len = (uint32_t)strlen(msg->prefix);

  vector[count].base = lmq_wire;
  vector[count++].len = LMQ_HEADER_SIZE;
  vector[count].base = header_wire;
  vector[count++].len = LOREG_HEADER_SIZE;
  if (header.len0 > 0) {
    vector[count].base = msg->data0;
    vector[count++].len = header.len0;
    size += header.len0;
  }
  vector[count].base = _loreg_unconst(_loreg_guard);
  vector[count++].len = LOREG_GUARD_SIZE;
  if (prefix_len > 0) {
    vector[count].base = _loreg_unconst(msg->prefix);
    vector[count++].len = prefix_len;
    size += prefix_len;
  }
  if (header.len1 > 0) {
    vector[count].base = msg->data1;
    vector[count++].len = header.len1;
    size += header.len1;
  }
  assert(count >= 3 && count <= 6);

  memset(&lmq_header, 0, sizeof(lmq_header));
  lmq_header.protocol = LOREG_LMQ_PROTOCOL_BYTE;
  lmq_header.words = LOREG_LMQ_HEADER_WORDS;
  lmq_header.type = LOREG_LMQ_MSG_TYPE;
  lmq_header.subtype = LOREG_LMQ_MSG_SUBTYPE;
  lmq_header.size = size;
  lmq_header.size2 = size;

  /* The receiver sees prefix and data1 as one area. */
  header.len1 = (uint16_t)(header.len1 + prefix_len);

  lmqMessageHeaderToProtocol(lmq_wire, &lmq_header);
  _loreg_header_to_wire(header_wire, &header);

  switch (kind) {
    case _LOREG_SEND_COMMAND:
      rc = lmqCXSendCommand(client, service_id, vector, count, 0);
      break;
    case _LOREG_SEND_REPLY:
      rc = lmqCXReply(client, address, vector, count, 0);
      break;
    case _LOREG_SEND_NOTIFY:
      rc = lmqCXNotify(client, service_id, vector, count, 0);
      break;
    case _LOREG_SEND_SELF:
    default:
      rc = lmqCXNotifySelf(client, vector, count, 0);
      break;
  }
  if (rc < 0) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_MSG, "%s(msgtype=0x%04x): %s() failed. (lmq code %d)\n",
              caller, (unsigned)msg->header.msgtype, _loreg_send_lmq_names[kind], rc);
    return rc;
  }
  return 0;
}

int loreg_send_command(lmq_client *client, int16_t service_id, const loreg_msg *msg) {
  if (msg == NULL) return -22;
  return _loreg_send(_LOREG_SEND_COMMAND, __func__, client, service_id, NULL, msg);
}

int loreg_send_reply(lmq_client *client, const loreg_msg *msg, const lmq_address *reply_address) {
  if (msg == NULL) return -22;
  return _loreg_send(_LOREG_SEND_REPLY, __func__, client, -1, reply_address, msg);
}

int loreg_send_notification(lmq_client *client, int16_t service_id, const loreg_msg *msg) {
  if (msg == NULL) return -22;
  return _loreg_send(_LOREG_SEND_NOTIFY, __func__, client, service_id, NULL, msg);
}

int loreg_send_self_notification(lmq_client *client, const loreg_msg *msg) {
  if (msg == NULL) return -22;
  return _loreg_send(_LOREG_SEND_SELF, __func__, client, -1, NULL, msg);
}

/* Logs a reason for refusing a message unless the check is a quiet one. */
#define LOREG_CHECK_LOG(quiet, ...)                                      \
  do {                                                                   \
    if (!(quiet)) LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_MSG, __VA_ARGS__); \
  } while (0)

int loreg_msg_check(loreg_msg *msg, void *buffer, uint32_t buffer_size, const lmq_rx_info *info,
                    int quiet) {
  lmq_msg_header lmq_header;
  void *payload = NULL;
  unsigned char *body;
  uint32_t rest;
  uint32_t areas;
  int rc;

  if (msg == NULL) return -22;
  rc = lmqMessageHeaderValidate(&payload, info, buffer, buffer_size);
  if (rc != 0) {
    LOREG_CHECK_LOG(quiet, "%s(): lmqMessageHeaderValidate() failed. (code %d)\n",
                    "loreg_validate_msg", rc);
    return rc;
  }
  lmqMessageHeaderToHost(&lmq_header, buffer);
  if ((lmq_header.protocol & 0x7Fu) != LOREG_LMQ_PROTOCOL) {
    LOREG_CHECK_LOG(quiet, "%s(): wrong lmq header protocol (%d)\n", "loreg_validate_msg",
                    (int)(lmq_header.protocol & 0x7Fu));
    return LOREG_ERR_NOT_REGISTRY;
  }
  if (lmq_header.type != LOREG_LMQ_MSG_TYPE) {
    LOREG_CHECK_LOG(quiet, "%s(): wrong lmq header msg type (0x%08x)\n", "loreg_validate_msg",
                    (unsigned)lmq_header.type);
    return LOREG_ERR_NOT_REGISTRY;
  }
  if (lmq_header.subtype != LOREG_LMQ_MSG_SUBTYPE) {
    LOREG_CHECK_LOG(quiet, "%s(): wrong lmq header msg subtype (0x%08x)\n", "loreg_validate_msg",
                    (unsigned)lmq_header.subtype);
    return LOREG_ERR_NOT_REGISTRY;
  }

  body = (unsigned char *)payload;
  rest = info->size - (uint32_t)(body - (unsigned char *)buffer);
  if (rest < LOREG_HEADER_SIZE + LOREG_GUARD_SIZE) {
    LOREG_CHECK_LOG(quiet, "%s(): incomplete loreg header + guard\n", "loreg_validate_msg");
    return LOREG_ERR_BAD_LENGTHS;
  }
  rest -= LOREG_HEADER_SIZE + LOREG_GUARD_SIZE;
  _loreg_header_from_wire(&msg->header, body);

  areas = (uint32_t)msg->header.len0 + msg->header.len1;
  if (areas > rest) {
    LOREG_CHECK_LOG(
        quiet, "%s(): inconsistent lengths in loreg header (data0=%d, data1=%d, size left=%d)\n",
        "loreg_validate_msg", (int)msg->header.len0, (int)msg->header.len1, (int)rest);
    return LOREG_ERR_BAD_LENGTHS;
  }

  /* Bytes beyond the two areas are allowed and ignored. */
  msg->prefix = NULL;
  msg->data0 = (char *)body + LOREG_HEADER_SIZE;
  msg->data1 = msg->data0 + msg->header.len0 + LOREG_GUARD_SIZE;

  /* data1 has no guard on the wire: the zero after it is stored here, in
   * the spare byte that the receive left free or in unused bytes of the
   * message itself. */
  if (info->size < buffer_size || rest > areas) {
    msg->data1[msg->header.len1] = 0;
    return 0;
  }
  LOREG_CHECK_LOG(quiet, "%s(): single additional spare byte missing in recv-buffer\n",
                  "loreg_validate_msg");
  return LOREG_ERR_BAD_LENGTHS;
}

int loreg_validate_msg(loreg_msg *msg, void *buffer, uint32_t buffer_size,
                       const lmq_rx_info *info) {
  return loreg_msg_check(msg, buffer, buffer_size, info, 0);
}

int loreg_msg_check_offered(loreg_msg *msg, lmq_rx_info *info, void *message, uint32_t size,
                            uint32_t buffer_size, const lmq_address *from) {
  memset(info, 0, sizeof(*info));
  info->size = size;
  info->reply = *from;
  return loreg_msg_check(msg, message, buffer_size, info, 1);
}

const char *lorc_get_reason_txt(uint32_t code) {
  switch (code) {
    case LOREG_REASON_KEY_UPDATE:
      return "key update";
    case LOREG_REASON_KEY_DELETE:
      return "key delete";
    case LOREG_REASON_TA_START:
      return "transaction start";
    case LOREG_REASON_TA_END:
      return "transaction end";
    case LOREG_REASON_KEY_ADD:
      return "key add";
    case LOREG_REASON_KEY_CHANGE:
      return "key change";
    case LOREG_REASON_SERVER_AVAILABLE:
      return "server available";
    case LOREG_REASON_SERVER_GONE:
      return "server gone";
    default:
      return "<unknown>";
  }
}
