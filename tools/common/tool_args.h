/*
 * Command-line helpers shared by the programs under tools/.
 */
#ifndef TOOLS_COMMON_TOOL_ARGS_H
#define TOOLS_COMMON_TOOL_ARGS_H

#include <stdarg.h>

/* Prints "PROGRAM: <message>" and the hint to --help on standard error and
 * returns status, the program's exit status for a bad command line. */
int tool_usage_error(const char *program, int status, const char *format, va_list args);

/* Parses a whole unsigned number in base (10, 16, or 8) that is at most
 * max: no sign, no blanks, nothing after it. Returns 0 with *out set, or
 * -22 (EINVAL). */
int tool_parse_number(const char *text, int base, unsigned long long max,
                      unsigned long long *out);

#endif
