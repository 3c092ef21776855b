/*
 * The repository server against arbitrary requests: each input is one
 * message as a client's lmq send delivers it (the lmq header, the registry
 * header, data0, the guard, data1). What validates is dispatched to the
 * server; what it sends back is taken from its queue and dropped.
 * lors_request_seeds writes a starting corpus of well-formed requests.
 */
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "fuzz_server.h"
#include "loreg/loreg_msg.h"

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static unsigned char buffer[LORS_MSG_BUFFER_SIZE];
  lors_ctx *server = fuzz_server();
  lmq_rx_info info;
  loreg_msg msg;

  /* A receive leaves room for the terminating zero behind data1. */
  if (size > sizeof(buffer) - 1) return 0;
  memcpy(buffer, data, size);
  memset(&info, 0, sizeof(info));
  info.size = (uint32_t)size;
  info.reply.kind = LMQ_KIND_COMMAND;
  info.reply.node = 1;
  info.reply.client = 2;
  info.reply.service_id = lors_get_service_id(server);
  memset(&msg, 0, sizeof(msg));
  if (loreg_validate_msg(&msg, buffer, (uint32_t)size, &info) == 0) {
    (void)lors_dispatch_msg(server, &msg, &info);
  }
  fuzz_server_drain();
  return 0;
}
