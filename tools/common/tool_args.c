#include "tool_args.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>

int tool_usage_error(const char *program, int status, const char *format, va_list args) {
  fprintf(stderr, "%s: ", program);
  vfprintf(stderr, format, args);
  fprintf(stderr, "\nTry '%s --help' for more information.\n", program);
  return status;
}

int tool_parse_number(const char *text, int base, unsigned long long max,
                      unsigned long long *out) {
  char *end = NULL;
  unsigned long long value;

  if (text == NULL || *text == '\0' || *text == '-' || *text == '+') return -EINVAL;
  errno = 0;
  value = strtoull(text, &end, base);
  if (errno != 0 || end == NULL || *end != '\0' || value > max) return -EINVAL;
  *out = value;
  return 0;
}
