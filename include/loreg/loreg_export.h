/*
 * Export macro of the registry library. Symbols are hidden by default; only
 * what carries LOREG_EXPORT is part of the shared library's interface.
 */
#ifndef LOREG_EXPORT_H
#define LOREG_EXPORT_H

#if defined(LOREG_BUILDING_LIBRARY)
#define LOREG_EXPORT __attribute__((visibility("default")))
#else
#define LOREG_EXPORT
#endif

#endif
