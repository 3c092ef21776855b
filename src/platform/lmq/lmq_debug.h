/*
 * Private logging of lmq. lmq logs failures only, on its own channel, each
 * line behind the level test of the platform's debug output.
 */
#ifndef PLATFORM_LMQ_LMQ_DEBUG_H
#define PLATFORM_LMQ_LMQ_DEBUG_H

#include "platform/csp_debug.h"

#define LMQ_DEBUG_CHANNEL 0x6Cu
#define LMQ_DEBUG_MODULE 0x0100u

#define LMQ_LVL_SEVERE 1000u
#define LMQ_LVL_FAIL 3000u

#define LMQ_LOG(level, ...)                                                              \
  do {                                                                                   \
    if (cspDebugCheckLevelGetFrameAndChunk(LMQ_DEBUG_CHANNEL, (level), LMQ_DEBUG_MODULE)) \
      cspDebugOutput0(__VA_ARGS__);                                                      \
  } while (0)

#endif
