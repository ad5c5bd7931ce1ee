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

// Large enough for a whole record line plus the prefix; longer lines are cut.
constexpr size_t LOG_LINE_SIZE = 8192;

// Formats the whole line into buf (cut to its size) and returns its length.
size_t format_line(char *buf, size_t size, const level_info &lv, const char *func, int line,
                   const char *format, va_list ap) {
  time_t now = time(nullptr);
  struct tm tmv;
  localtime_r(&now, &tmv);
  int n = snprintf(buf, size, "%d-%d-%d %d:%d:%d %s<%d>: %s:", tmv.tm_year + 1900, tmv.tm_mon + 1,
                   tmv.tm_mday, tmv.tm_hour, tmv.tm_min, tmv.tm_sec, func, line, lv.word);
  if (n < 0)
    return 0;
  if (static_cast<size_t>(n) < size) {
    int m = vsnprintf(buf + n, size - n, format, ap);
    if (m > 0)
      n += m;
  }
  return static_cast<size_t>(n) < size ? static_cast<size_t>(n) : size - 1;
}

}  // namespace

void log_write(log_level level, const char *func, int line, const char *format, ...) {
  const bool to_console = debug_mode != 0;
  const bool to_syslog = syslog_mode != 0;
  if (!to_console && !to_syslog)
    return;
  const level_info &lv = level_table[static_cast<int>(level)];
  // One write per line, so that a line is never split by other output.
  char buf[LOG_LINE_SIZE];
  va_list ap;
  if (to_console) {
    FILE *stream = level == log_level::DEBUG ? stdout : stderr;
    va_start(ap, format);
    const size_t n = format_line(buf, sizeof(buf), lv, func, line, format, ap);
    va_end(ap);
    fwrite(buf, 1, n, stream);
    fflush(stream);
  }
  if (to_syslog) {
    // The time is read again, as for a line written on its own.
    va_start(ap, format);
    format_line(buf, sizeof(buf), lv, func, line, format, ap);
    va_end(ap);
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
