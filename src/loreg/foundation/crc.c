#include "loreg/crc.h"

#include <stddef.h>

#define CRC_POLYNOMIAL 0xEDB88320u

/*
 * Word 0 is zero until the table has been built and 1 afterwards; words 1
 * to 256 are the table. The table is built without a lock: threads that
 * meet an unbuilt table each compute it and store the same values. The
 * words are accessed atomically so that such a duplicate build is not a
 * data race for a reader that already uses the table, and the flag is
 * published with release order after the entries.
 */
static uint32_t crc_table[257];

static void _crc_table_build(void) {
  for (uint32_t i = 0; i < 256; i++) {
    uint32_t value = i;
    for (int step = 0; step < 8; step++) {
      value = (value & 1u) ? (value >> 1) ^ CRC_POLYNOMIAL : value >> 1;
    }
    __atomic_store_n(&crc_table[i + 1], value, __ATOMIC_RELAXED);
  }
  __atomic_store_n(&crc_table[0], 1u, __ATOMIC_RELEASE);
}

uint32_t crc_update(uint32_t crc, const void *data, uint32_t len) {
  if (__atomic_load_n(&crc_table[0], __ATOMIC_ACQUIRE) == 0) _crc_table_build();
  if (data == NULL) return crc;
  const uint8_t *bytes = (const uint8_t *)data;
  for (uint32_t i = 0; i < len; i++) {
    uint32_t entry = __atomic_load_n(&crc_table[1 + ((crc ^ bytes[i]) & 255u)], __ATOMIC_RELAXED);
    crc = entry ^ (crc >> 8);
  }
  return crc;
}

uint32_t crc_calculate(const void *data, uint32_t len) {
  return ~crc_update(0xFFFFFFFFu, data, len);
}
