/*
 * csp OS layer: byte order by field table.
 *
 * A record is described by a table: its size and a list of fields, each an
 * offset and a size, ended by an entry whose word is CSP_ENDIAN_END. Fields
 * of 2, 4 or 8 bytes are converted between host order and protocol order,
 * which is big-endian; bytes outside any field are copied as they are.
 * Destination and source may be the same record.
 */
#ifndef PLATFORM_CSP_ENDIAN_H
#define PLATFORM_CSP_ENDIAN_H

#include <stdint.h>

#include "platform/csp_export.h"

#ifdef __cplusplus
extern "C" {
#endif

#define CSP_ENDIAN_END 0xFFFFFFFFu

typedef struct __csp_EndianInfoEntry {
  uint16_t offset;
  uint16_t size;
  uint32_t word; /* 0, or CSP_ENDIAN_END on the last entry */
} __csp_EndianInfoEntry;

typedef struct __csp_EndianTable {
  uint32_t size;                         /* size of the record in bytes */
  const __csp_EndianInfoEntry *entries;  /* field list */
} __csp_EndianTable;

/* Converts *source in host order to *destination in protocol order.
 * Returns 0, or -22 for a null argument or a field that lies outside the
 * record or has a size other than 1, 2, 4 or 8 (nothing is written then). */
CSP_EXPORT int cspHostToProtocol(void *destination, const void *source,
                                 const __csp_EndianTable *table);

/* The reverse of cspHostToProtocol, with the same results. */
CSP_EXPORT int cspProtocolToHost(void *destination, const void *source,
                                 const __csp_EndianTable *table);

#ifdef __cplusplus
}
#endif

#endif
