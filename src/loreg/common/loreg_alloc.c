#include "loreg/loreg_alloc.h"

#include <stdlib.h>

static int _loreg_allocator_is_default(const loreg_allocator *allocator) {
  return allocator == NULL || allocator == LOREG_ALLOCATOR_DEFAULT;
}

void *loreg_malloc(const loreg_allocator *allocator, size_t size) {
  if (_loreg_allocator_is_default(allocator)) return malloc(size);
  return allocator->alloc(allocator->context, size, 0);
}

void loreg_free(const loreg_allocator *allocator, void *block) {
  if (_loreg_allocator_is_default(allocator)) {
    free(block);
    return;
  }
  if (block == NULL) return;
  allocator->free(allocator->context, block);
}
