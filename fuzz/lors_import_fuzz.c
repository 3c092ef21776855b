/*
 * The repository file import against arbitrary files. The first byte of
 * an input picks how many bytes one read returns (1 to 8192), so that
 * lines are cut at every place across reads; the rest is the file. An
 * import either succeeds or fails with its error; it must not crash, leak
 * or leave the file open.
 */
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include "fuzz_server.h"
#include "loreg/lors_import.h"

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  lors_ctx *server = fuzz_server();

  if (size < 1) return 0;
  fuzz_file_set(data + 1, size - 1, 1u + ((uint32_t)data[0] * 97u) % 8192u);
  (void)lors_import(server, NULL, "loreg0.dat", 0);
  fuzz_file_set(NULL, 0, 1);
  if (fuzz_files_open() != 0) abort();
  return 0;
}
