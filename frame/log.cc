#include "frame/log.h"

#include <syslog.h>
#include <cstdarg>
#include <cstdio>
#include <ctime>

int debug_mode;
// Stored only by the signal handlers, read by every log call.
volatile sig_atomic_t syslog_mode;

namespace {

struct level_info {
  const char *word;
  int priority;
};

constexpr level_info level_table[] = {
    {"DEBUG", LOG_DEBUG},
    {"WARN", LOG_WARNING},
    {"ERROR", LOG_ERR},
};

// Large enough for a whole record line plus the prefix.
constexpr size_t SYSLOG_LINE_SIZE = 8192;

int print_prefix(char *buf, size_t size, FILE *stream, const level_info &lv, const char *func,
                 int line) {
  time_t now = time(nullptr);
  struct tm tmv;
  localtime_r(&now, &tmv);
  if (stream)
    return fprintf(stream, "%d-%d-%d %d:%d:%d %s<%d>: %s:", tmv.tm_year + 1900, tmv.tm_mon + 1,
                   tmv.tm_mday, tmv.tm_hour, tmv.tm_min, tmv.tm_sec, func, line, lv.word);
  return snprintf(buf, size, "%d-%d-%d %d:%d:%d %s<%d>: %s:", tmv.tm_year + 1900, tmv.tm_mon + 1,
                  tmv.tm_mday, tmv.tm_hour, tmv.tm_min, tmv.tm_sec, func, line, lv.word);
}

}  // namespace

void log_write(log_level level, const char *func, int line, const char *format, ...) {
  const bool to_console = debug_mode != 0;
  const bool to_syslog = syslog_mode != 0;
  if (!to_console && !to_syslog)
    return;
  const level_info &lv = level_table[static_cast<int>(level)];
  va_list ap;
  if (to_console) {
    FILE *stream = level == log_level::DEBUG ? stdout : stderr;
    print_prefix(nullptr, 0, stream, lv, func, line);
    va_start(ap, format);
    vfprintf(stream, format, ap);
    va_end(ap);
    fflush(stream);
  }
  if (to_syslog) {
    char buf[SYSLOG_LINE_SIZE];
    int n = print_prefix(buf, sizeof(buf), nullptr, lv, func, line);
    if (n < 0)
      return;
    if (static_cast<size_t>(n) < sizeof(buf)) {
      va_start(ap, format);
      vsnprintf(buf + n, sizeof(buf) - n, format, ap);
      va_end(ap);
    }
    syslog(lv.priority, "%s", buf);
  }
}

void debug_mode_on() { debug_mode = 1; }
int debug_mode_get() { return debug_mode; }
void syslog_mode_on() { syslog_mode = 1; }
void syslog_mode_off() { syslog_mode = 0; }
int syslog_mode_get() { return syslog_mode; }

void log_sigusr1(int) { syslog_mode_on(); }
void log_sigusr2(int) { syslog_mode_off(); }
