/*
 * crc: the checksum of the repository file.
 *
 * The reflected CRC-32 of IEEE 802.3 (polynomial 0xEDB88320). crc_update
 * carries a running value and applies no inversion on either side, so a
 * caller can checksum a stream piece by piece and decide itself about the
 * start value and the final inversion; crc_calculate does the standard
 * form in one call. Neither function allocates or reports errors. Any
 * thread may call: the lookup table is built at first use without a lock,
 * and two threads that build it at once write the same values.
 */
#ifndef LOREG_CRC_H
#define LOREG_CRC_H

#include <stdint.h>

#include "loreg/loreg_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Runs the value crc over len bytes at data and returns the new value. With
 * len 0, or a null data, crc comes back unchanged. */
LOREG_EXPORT uint32_t crc_update(uint32_t crc, const void *data, uint32_t len);

/* The standard CRC-32 of len bytes: crc_update from 0xFFFFFFFF, with all
 * bits of the result inverted. "123456789" gives 0xCBF43926. */
LOREG_EXPORT uint32_t crc_calculate(const void *data, uint32_t len);

#ifdef __cplusplus
}
#endif

#endif
