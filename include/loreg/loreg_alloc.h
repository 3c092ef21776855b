/*
 * loreg allocator: the two allocation calls of every lower layer.
 *
 * A host may give the registry its own allocator. An allocator handle is a
 * pointer to a loreg_allocator; the handles NULL and LOREG_ALLOCATOR_DEFAULT
 * (the all-ones pointer) both select the C library's malloc and free.
 */
#ifndef LOREG_ALLOC_H
#define LOREG_ALLOC_H

#include <stddef.h>
#include <stdint.h>

#include "loreg/loreg_export.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct loreg_allocator {
  void *context;                                       /* first argument of both */
  void *(*alloc)(void *context, size_t size, int zero); /* third argument always 0 */
  void (*free)(void *context, void *block);
} loreg_allocator;

#define LOREG_ALLOCATOR_DEFAULT ((loreg_allocator *)(~(uintptr_t)0))

/* Returns a block of size bytes from the allocator, or NULL. */
LOREG_EXPORT void *loreg_malloc(const loreg_allocator *allocator, size_t size);

/* Gives a block back to the allocator it came from. NULL is ignored. */
LOREG_EXPORT void loreg_free(const loreg_allocator *allocator, void *block);

#ifdef __cplusplus
}
#endif

#endif
