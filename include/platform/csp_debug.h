/*
 * csp OS layer: debug output.
 *
 * Every log line of the platform and the registry is written as
 *
 *     if (cspDebugCheckLevelGetFrameAndChunk(channel, level, module))
 *         cspDebugOutput0(format, ...);
 *
 * A line prints when its level is at or below the threshold of its channel
 * (default CSP_DEBUG_DEFAULT_THRESHOLD: status and severe lines show).
 * The host sets thresholds per channel and may replace the sink, which by
 * default writes to standard error. The check records the channel, level
 * and module of the line that follows in thread-local storage, so a sink
 * sees them too. Thread-safe; the sink may be called from several threads
 * at once and must not call cspDebugSetSink itself.
 */
#ifndef PLATFORM_CSP_DEBUG_H
#define PLATFORM_CSP_DEBUG_H

#include <stdint.h>

#include "platform/csp_export.h"

#ifdef __cplusplus
extern "C" {
#endif

#define CSP_DEBUG_DEFAULT_THRESHOLD 1000
#define CSP_DEBUG_CHANNELS 256

/* One formatted line, with the channel, level and module of its check. */
typedef void (*cspDebugSink)(void *context, uint32_t channel, uint32_t level, uint32_t module,
                             const char *text);

/* Returns non-zero when a line of this level on this channel is to print.
 * Channels at or above CSP_DEBUG_CHANNELS never print. */
CSP_EXPORT int cspDebugCheckLevelGetFrameAndChunk(uint32_t channel, uint32_t level,
                                                  uint32_t module);

/* Formats and hands the text to the sink. Longer texts than 1023 bytes are
 * cut. */
CSP_EXPORT void cspDebugOutput0(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* Sets the threshold of one channel; returns the old one, or -22 for a
 * channel out of range. */
CSP_EXPORT int cspDebugSetThreshold(uint32_t channel, uint32_t level);

/* Returns the threshold of a channel, or -22 for one out of range. */
CSP_EXPORT int cspDebugGetThreshold(uint32_t channel);

/* Installs a sink; null restores the default (standard error). Waits for
 * running calls of the old sink: when it returns, the old sink is not
 * running and will not be called again. */
CSP_EXPORT void cspDebugSetSink(cspDebugSink sink, void *context);

#ifdef __cplusplus
}
#endif

#endif
