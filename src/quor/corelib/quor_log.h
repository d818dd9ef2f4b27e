/*
 * quor_log.h - log file and checked allocation of the iterative layer.
 *
 * Messages are appended to "./velmora-ml.out", one open/write/close per
 * message, so that the file is complete even if the process dies.  When the
 * file cannot be opened the line goes to standard error.  Which messages are
 * written depends on one process-wide level (0 by default):
 *
 *   quor_log_debug   level > 1    the text exactly as formatted
 *   quor_log         level >= 1   "[VELMORA/ML]>> <text>\n"
 *   quor_log_info    level >= 1   "[VELMORA/ML]>> <text>\n"
 *   quor_log_warn    level >= 1   "[VELMORA/ML]>> WARNING: <text>\n"
 *   quor_log_error   always       "[VELMORA/ML]>> ERROR: <text>\n"
 *
 * The allocation wrappers never return NULL: on failure they print what
 * failed and end the program.  A request of zero bytes returns a valid,
 * freeable block.
 */
#ifndef VELMORA_QUOR_LOG_H
#define VELMORA_QUOR_LOG_H

#include <cstddef>

#define QUOR_LOG_FILE "./velmora-ml.out"

#if defined(__GNUC__)
#define QUOR_PRINTF_LIKE(fmt_index, first_arg) __attribute__((format(printf, fmt_index, first_arg)))
#else
#define QUOR_PRINTF_LIKE(fmt_index, first_arg)
#endif

void quor_log_debug(const char *fmt, ...) QUOR_PRINTF_LIKE(1, 2);
void quor_log(const char *fmt, ...) QUOR_PRINTF_LIKE(1, 2);
void quor_log_info(const char *fmt, ...) QUOR_PRINTF_LIKE(1, 2);
void quor_log_warn(const char *fmt, ...) QUOR_PRINTF_LIKE(1, 2);
void quor_log_error(const char *fmt, ...) QUOR_PRINTF_LIKE(1, 2);

/* Debug text prefixed with its source position, "file:line: text". */
void quor_log_debug_at(const char *file, int line, const char *fmt, ...) QUOR_PRINTF_LIKE(3, 4);
#define QUOR_LOG_DEBUG(...) quor_log_debug_at(__FILE__, __LINE__, __VA_ARGS__)

int quor_log_get_level(void);
void quor_log_set_level(int level);

/*
 * Start a fresh log: delete the file and create it empty.  Prints
 * "Error while opening file ./velmora-ml.out" to standard error when the
 * file cannot be created.
 */
void quor_log_startup(void);

void *quor_malloc(std::size_t size);
void *quor_calloc(std::size_t count, std::size_t size);
void *quor_realloc(void *ptr, std::size_t size);

#endif /* VELMORA_QUOR_LOG_H */
