/*
 * Private logging helpers of the registry library. Every line goes through
 * the platform's debug output on the registry channel, behind a level test.
 */
#ifndef LOREG_COMMON_LOREG_DEBUG_H
#define LOREG_COMMON_LOREG_DEBUG_H

#include <stddef.h>
#include <string.h>

#include "platform/csp_debug.h"

#define LOREG_DEBUG_CHANNEL 0x6Bu

/* Levels. */
#define LOREG_LVL_STATUS 1u
#define LOREG_LVL_SEVERE 1000u
#define LOREG_LVL_WARN 2000u
#define LOREG_LVL_FAIL 3000u
#define LOREG_LVL_DETAIL 4000u
#define LOREG_LVL_TRACE 5000u

/* Module numbers. */
#define LOREG_MOD_CLIENT_API 0xA000u
#define LOREG_MOD_MSG 0xB000u
#define LOREG_MOD_SERVER 0xB100u
#define LOREG_MOD_CLIENT_TASK 0xC000u
#define LOREG_MOD_APIJ 0xC001u
#define LOREG_MOD_TMRQ 0xC002u
#define LOREG_MOD_LORKC 0xC003u

/* Lines of the form "file:line:function()" carry the source file's base
 * name, not the path the build passed in __FILE__. */
static inline const char *loreg_basename(const char *path) {
  const char *slash = strrchr(path, '/');
  return slash != NULL ? slash + 1 : path;
}

#define LOREG_LOG(level, module, ...)                                               \
  do {                                                                             \
    if (cspDebugCheckLevelGetFrameAndChunk(LOREG_DEBUG_CHANNEL, (level), (module))) \
      cspDebugOutput0(__VA_ARGS__);                                                \
  } while (0)

#endif
