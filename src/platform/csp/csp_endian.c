#include "platform/csp_endian.h"

#include <errno.h>
#include <string.h>

static int _csp_endian_table_valid(const __csp_EndianTable *table) {
  if (table == NULL || table->entries == NULL) return 0;
  for (const __csp_EndianInfoEntry *e = table->entries; e->word != CSP_ENDIAN_END; e++) {
    if (e->size != 1 && e->size != 2 && e->size != 4 && e->size != 8) return 0;
    if ((uint32_t)e->offset + e->size > table->size) return 0;
  }
  return 1;
}

/* Reverses the bytes of one field in place. Protocol order is big-endian,
 * so on a little-endian host both directions are the same swap. Fields may
 * be unaligned inside the record, hence the copies. */
static void _csp_swap_field(unsigned char *field, uint16_t size) {
  switch (size) {
    case 2: {
      uint16_t v;
      memcpy(&v, field, sizeof v);
      v = __builtin_bswap16(v);
      memcpy(field, &v, sizeof v);
      break;
    }
    case 4: {
      uint32_t v;
      memcpy(&v, field, sizeof v);
      v = __builtin_bswap32(v);
      memcpy(field, &v, sizeof v);
      break;
    }
    case 8: {
      uint64_t v;
      memcpy(&v, field, sizeof v);
      v = __builtin_bswap64(v);
      memcpy(field, &v, sizeof v);
      break;
    }
    default:
      break; /* one byte has no order */
  }
}

static int _csp_convert(void *destination, const void *source, const __csp_EndianTable *table) {
  if (destination == NULL || source == NULL || !_csp_endian_table_valid(table)) return -EINVAL;
  if (destination != source) memmove(destination, source, table->size);
  if (__BYTE_ORDER__ == __ORDER_BIG_ENDIAN__) return 0;
  for (const __csp_EndianInfoEntry *e = table->entries; e->word != CSP_ENDIAN_END; e++) {
    _csp_swap_field((unsigned char *)destination + e->offset, e->size);
  }
  return 0;
}

int cspHostToProtocol(void *destination, const void *source, const __csp_EndianTable *table) {
  return _csp_convert(destination, source, table);
}

int cspProtocolToHost(void *destination, const void *source, const __csp_EndianTable *table) {
  return _csp_convert(destination, source, table);
}
