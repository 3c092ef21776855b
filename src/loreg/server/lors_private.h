/*
 * Small helpers shared by the repository server's sources. Not installed:
 * nothing outside src/loreg/server includes it.
 */
#ifndef LOREG_SERVER_LORS_PRIVATE_H
#define LOREG_SERVER_LORS_PRIVATE_H

#include <stdint.h>
#include <string.h>

#include "platform/csp_osal.h"

/* Texts that may be null go through this, so that a message shows what
 * the C library would print for them without handing it a null "%s". */
static inline const char *_lors_text(const char *text) { return text != NULL ? text : "(null)"; }

/* A delay in milliseconds as a relative time: ms / 1000 seconds and
 * (ms % 1000) * 1000 microseconds. */
static inline void _lors_ms_to_time(uint32_t ms, _cspOsalTime_struct *time) {
  time->sec = (int64_t)(ms / 1000u);
  time->usec = (int32_t)((ms % 1000u) * 1000u);
}

#endif
