/*
 * Writes a starting corpus for lors_request_fuzz: every request type the
 * server knows, with a few paths, values and transaction ids, each as the
 * exact bytes the server's queue receives for it.
 *
 *   lors_request_seeds DIR
 */
#include <stdio.h>
#include <string.h>

#include "fuzz_server.h"
#include "loreg/loreg_msg.h"
#include "platform/lmq.h"

static const uint16_t g_types[] = {
    LOREG_MSG_VALUE_QUERY, LOREG_MSG_VALUE_SET,     LOREG_MSG_KEY_DELETE,
    LOREG_MSG_KEY_COUNT,   LOREG_MSG_KEY_QUERY,     LOREG_MSG_TA_START,
    LOREG_MSG_TA_END,      LOREG_MSG_REPO_STORE,    LOREG_MSG_REPO_RELOAD,
    LOREG_MSG_STOP,        LOREG_MSG_ECHO,          LOREG_MSG_TA_START_TIMED,
    LOREG_MSG_TID_ACQUIRE, LOREG_MSG_TID_RELEASE,   LOREG_MSG_KEY_UPDATE_TRIGGER,
    LOREG_MSG_ROOT_KEY_QUERY};
static const char *const g_paths[] = {"/com/norvi/a", "/com/norvi/b/c", "/com/norvi/",
                                      "/com/norvi/x/y/z"};
static const uint32_t g_flags[] = {0x04u, 0x30400u, 0x08u, 0x05u};
static const int32_t g_tids[] = {0, 0, 0, -1};

/* Sends one request from sender and writes what the server's queue got. */
static int _seed_write(const char *dir, lmq_client *sender, uint16_t type, unsigned variant) {
  static unsigned char message[LMQ_MAX_MESSAGE_SIZE];
  char value[] = "value";
  char path[64];
  char name[512];
  lmq_iovec entry = {message, sizeof(message)};
  lmq_rx_info info;
  _cspOsalTime_struct now = {0, 0};
  loreg_msg msg;
  FILE *file;
  int size;

  snprintf(path, sizeof(path), "%s", g_paths[variant]);
  memset(&msg, 0, sizeof(msg));
  msg.header.msgtype = type;
  msg.header.reqid = 1u + variant;
  msg.header.arg0 = g_flags[variant];
  msg.header.arg1 = variant;
  msg.header.tid = g_tids[variant];
  msg.data0 = value;
  msg.header.len0 = variant == 2 ? 0 : (uint16_t)strlen(value);
  msg.data1 = path;
  msg.header.len1 = (uint16_t)(strlen(path) + 1);
  if (loreg_send_command(sender, lors_get_service_id(fuzz_server()), &msg) != 0) return -1;
  size = lmqCXReceive(fuzz_server_client(), &entry, 1, &info, &now);
  if (size <= 0) return -1;
  snprintf(name, sizeof(name), "%s/request-%04x-%u", dir, (unsigned)type, variant);
  file = fopen(name, "wb");
  if (file == NULL) return -1;
  if (fwrite(message, 1, (size_t)size, file) != (size_t)size) {
    fclose(file);
    return -1;
  }
  return fclose(file) == 0 ? 0 : -1;
}

int main(int argc, char **argv) {
  static unsigned char queue[64u * 1024u];
  lmq_client sender;
  unsigned written = 0;
  size_t t;
  unsigned v;

  if (argc != 2) {
    fprintf(stderr, "usage: lors_request_seeds DIR\n");
    return 64;
  }
  fuzz_server();
  if (lmqClientInit(&sender, queue, sizeof(queue)) != 0 ||
      lmqServerAddClient(fuzz_lmq_server(), &sender) != 0) {
    fprintf(stderr, "lors_request_seeds: no lmq client\n");
    return 1;
  }
  for (t = 0; t < sizeof(g_types) / sizeof(g_types[0]); t++) {
    for (v = 0; v < sizeof(g_paths) / sizeof(g_paths[0]); v++) {
      if (_seed_write(argv[1], &sender, g_types[t], v) == 0) written++;
    }
  }
  printf("%u requests written to %s\n", written, argv[1]);
  return written > 0 ? 0 : 1;
}
