/*
 * Export macro of the platform layer. Symbols are hidden by default; only
 * what carries CSP_EXPORT is part of the shared library's interface.
 */
#ifndef PLATFORM_CSP_EXPORT_H
#define PLATFORM_CSP_EXPORT_H

#if defined(CSP_BUILDING_LIBRARY)
#define CSP_EXPORT __attribute__((visibility("default")))
#else
#define CSP_EXPORT
#endif

#endif
