/*
 * quor_log.cpp - log file and checked allocation of the iterative layer.
 */
#include "quor/corelib/quor_log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {

std::atomic<int> g_log_level{0};

/* Append one line: prefix, formatted text, suffix. */
void log_write(const char *prefix, const char *suffix, const char *fmt, va_list args) {
  FILE *out = std::fopen(QUOR_LOG_FILE, "a");
  FILE *dest = out != nullptr ? out : stderr;
  std::fputs(prefix, dest);
  std::vfprintf(dest, fmt, args);
  std::fputs(suffix, dest);
  std::fflush(dest);
  if (out != nullptr) std::fclose(out);
}

[[noreturn]] void allocation_failed(const char *message) {
  std::fputs(message, stderr);
  std::fputs("Backtrace not available.\n", stderr);
  std::fflush(stderr);
  std::exit(EXIT_FAILURE);
}

}  // namespace

void quor_log_debug(const char *fmt, ...) {
  if (g_log_level.load(std::memory_order_relaxed) <= 1) return;
  va_list args;
  va_start(args, fmt);
  log_write("", "", fmt, args);
  va_end(args);
}

void quor_log_debug_at(const char *file, int line, const char *fmt, ...) {
  if (g_log_level.load(std::memory_order_relaxed) <= 1) return;
  char where[512];
  std::snprintf(where, sizeof where, "%s:%d: ", file, line);
  va_list args;
  va_start(args, fmt);
  log_write(where, "", fmt, args);
  va_end(args);
}

void quor_log(const char *fmt, ...) {
  if (g_log_level.load(std::memory_order_relaxed) < 1) return;
  va_list args;
  va_start(args, fmt);
  log_write("[VELMORA/ML]>> ", "\n", fmt, args);
  va_end(args);
}

void quor_log_info(const char *fmt, ...) {
  if (g_log_level.load(std::memory_order_relaxed) < 1) return;
  va_list args;
  va_start(args, fmt);
  log_write("[VELMORA/ML]>> ", "\n", fmt, args);
  va_end(args);
}

void quor_log_warn(const char *fmt, ...) {
  if (g_log_level.load(std::memory_order_relaxed) < 1) return;
  va_list args;
  va_start(args, fmt);
  log_write("[VELMORA/ML]>> WARNING: ", "\n", fmt, args);
  va_end(args);
}

void quor_log_error(const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  log_write("[VELMORA/ML]>> ERROR: ", "\n", fmt, args);
  va_end(args);
}

int quor_log_get_level(void) {
  return g_log_level.load(std::memory_order_relaxed);
}

void quor_log_set_level(int level) {
  g_log_level.store(level, std::memory_order_relaxed);
}

void quor_log_startup(void) {
  std::remove(QUOR_LOG_FILE);
  FILE *out = std::fopen(QUOR_LOG_FILE, "w");
  if (out == nullptr) {
    std::fprintf(stderr, "Error while opening file %s\n", QUOR_LOG_FILE);
    return;
  }
  std::fclose(out);
}

/* malloc(0) and realloc(p, 0) may return NULL; ask for one byte instead so
 * that NULL always means failure and the block can still be freed. */
void *quor_malloc(std::size_t size) {
  void *ptr = std::malloc(size != 0 ? size : 1);
  if (ptr == nullptr) allocation_failed("ERROR during memory allocation!\n");
  return ptr;
}

void *quor_calloc(std::size_t count, std::size_t size) {
  if (count == 0 || size == 0) count = size = 1;
  void *ptr = std::calloc(count, size);
  if (ptr == nullptr) allocation_failed("ERROR during cleared memory allocation!\n");
  return ptr;
}

void *quor_realloc(void *ptr, std::size_t size) {
  void *grown = std::realloc(ptr, size != 0 ? size : 1);
  if (grown == nullptr) allocation_failed("ERROR during memory RE-allocation!\n");
  return grown;
}
