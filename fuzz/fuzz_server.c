#include "fuzz_server.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "loreg/lors_fio.h"
#include "platform/csp_debug.h"
#include "platform/lmq.h"

#define FUZZ_QUEUE_BYTES (256u * 1024u)

static const uint8_t *g_file_data;
static size_t g_file_size;
static size_t g_file_pos;
static uint32_t g_read_size = 1;
static int g_files_open;

static void *_fuzz_open(const char *device, const char *file, uint32_t mode) {
  (void)device;
  (void)file;
  if (mode != LORS_FIO_MODE_READ) {
    errno = EROFS;
    return NULL;
  }
  g_file_pos = 0;
  g_files_open++;
  return &g_file_pos;
}

static int32_t _fuzz_close(void *handle) {
  (void)handle;
  g_files_open--;
  return 0;
}

static int32_t _fuzz_read(void *handle, void *buffer, uint32_t size) {
  size_t n = g_file_size - g_file_pos;

  (void)handle;
  if (n > size) n = size;
  if (n > g_read_size) n = g_read_size;
  if (n > 0) memcpy(buffer, g_file_data + g_file_pos, n);
  g_file_pos += n;
  return (int32_t)n;
}

static int32_t _fuzz_write(void *handle, const void *buffer, uint32_t size) {
  (void)handle;
  (void)buffer;
  (void)size;
  return -EROFS;
}

static const lors_fio g_fuzz_fio = {NULL, "loreg0.dat", "loreg1.dat", _fuzz_open,
                                    _fuzz_close, _fuzz_read, _fuzz_write};

static void _fuzz_quiet(void *context, uint32_t channel, uint32_t level, uint32_t module,
                        const char *text) {
  (void)context;
  (void)channel;
  (void)level;
  (void)module;
  (void)text;
}

static lmq_server *g_lmq;
static lmq_client g_client;
static unsigned char g_queue[FUZZ_QUEUE_BYTES];
static lors_ctx *g_server;

lors_ctx *fuzz_server(void) {
  lors_params params;

  if (g_server != NULL) return g_server;
  cspDebugSetSink(_fuzz_quiet, NULL);
  if (lmqServerCreate(&g_lmq) != 0 || lmqClientInit(&g_client, g_queue, sizeof(g_queue)) != 0 ||
      lmqServerAddClient(g_lmq, &g_client) != 0) {
    abort();
  }
  memset(&params, 0, sizeof(params));
  params.lmq_server = g_lmq;
  params.lmq_client = &g_client;
  params.fio = &g_fuzz_fio;
  if (lors_init(&g_server, &params) != 0) abort();
  fuzz_server_drain();
  return g_server;
}

lmq_server *fuzz_lmq_server(void) { return g_lmq; }

lmq_client *fuzz_server_client(void) { return &g_client; }

void fuzz_file_set(const uint8_t *data, size_t size, uint32_t read_size) {
  g_file_data = data;
  g_file_size = data != NULL ? size : 0;
  g_read_size = read_size > 0 ? read_size : 1;
}

int fuzz_files_open(void) { return g_files_open; }

void fuzz_server_drain(void) {
  static unsigned char message[LMQ_MAX_MESSAGE_SIZE];

  for (;;) {
    lmq_iovec entry = {message, sizeof(message)};
    lmq_rx_info info;
    _cspOsalTime_struct now = {0, 0};
    if (lmqCXReceive(&g_client, &entry, 1, &info, &now) < 0) return;
  }
}
