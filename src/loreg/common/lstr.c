#include "loreg/lstr.h"

#include <string.h>

uint32_t lstr_init(lstr *l, char *text) {
  l->ptr = text;
  l->len = (uint32_t)strlen(text);
  return l->len;
}

uint32_t lstr_cinit(lstr *l, const char *text) {
  /* The record has one pointer type; constness is the caller's promise. */
  return lstr_init(l, (char *)text);
}

char *lstr_zterm(lstr *l) {
  l->ptr[l->len] = '\0';
  return l->ptr;
}

void lstr_cpy(lstr *dst, const lstr *src) {
  if (src == NULL) {
    dst->len = 0;
    return;
  }
  if (src->len > 0) memmove(dst->ptr, src->ptr, src->len);
  dst->len = src->len;
}

void lstr_append(lstr *dst, const lstr *src) {
  if (src == NULL) return;
  if (src->len > 0) memmove(dst->ptr + dst->len, src->ptr, src->len);
  dst->len += src->len;
}

int lstr_ncmp(const lstr *a, const lstr *b, uint32_t n) {
  uint32_t m = a->len < b->len ? a->len : b->len;
  int tie = a->len < b->len ? -1 : (a->len > b->len ? 1 : 0);
  uint32_t count = n;
  int full_match = 0;
  if (m < n) {
    count = m;
    full_match = tie;
  }
  const unsigned char *pa = (const unsigned char *)a->ptr;
  const unsigned char *pb = (const unsigned char *)b->ptr;
  for (uint32_t i = 0; i < count; i++) {
    if (pa[i] != pb[i]) return (int)pa[i] - (int)pb[i];
  }
  return full_match;
}

int lstr_cmp(const lstr *a, const lstr *b) { return lstr_ncmp(a, b, UINT32_MAX); }

char *lstr_chr(const lstr *l, uint32_t c) {
  if (l == NULL || l->len == 0) return NULL;
  for (uint32_t i = 0; i < l->len; i++) {
    if ((uint32_t)(unsigned char)l->ptr[i] == c) return l->ptr + i;
  }
  return NULL;
}

char *lstr_rchr(const lstr *l, uint32_t c) {
  if (l == NULL || l->len == 0) return NULL;
  for (uint32_t i = 1; i <= l->len; i++) {
    if ((uint32_t)(unsigned char)l->ptr[-(intptr_t)i] == c) return l->ptr - i;
  }
  return NULL;
}
