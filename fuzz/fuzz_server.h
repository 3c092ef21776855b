/*
 * Shared set-up of the registry fuzz harnesses: one repository server
 * without a thread of its own (the harness dispatches to it), on a message
 * server of this process, whose file layer reads the current input from
 * memory and refuses every write.
 */
#ifndef LOREG_FUZZ_FUZZ_SERVER_H
#define LOREG_FUZZ_FUZZ_SERVER_H

#include <stddef.h>
#include <stdint.h>

#include "loreg/lors.h"

/* The server, made on the first call. Its log lines are dropped. Aborts
 * when it cannot be made: a harness without its server finds nothing. */
lors_ctx *fuzz_server(void);

/* The message server it runs on, and the server's own lmq client (the
 * harness receives on it). */
lmq_server *fuzz_lmq_server(void);
lmq_client *fuzz_server_client(void);

/* What the next file opened for reading holds, and how many bytes at most
 * one read returns (at least 1). The bytes must stay valid until the file
 * is closed. */
void fuzz_file_set(const uint8_t *data, size_t size, uint32_t read_size);

/* Files open now: 0 whenever no import is running. */
int fuzz_files_open(void);

/* Takes and drops everything waiting in the server's queue. */
void fuzz_server_drain(void);

#endif
