// Diagnostics: one line per call, on the console when debugging and in
// syslog when switched on by SIGUSR1.
#pragma once

#include <csignal>

enum class log_level { DEBUG, WARN, ERROR };

// Writes "Y-M-D h:m:s func<line>: LEVEL:" followed by the formatted message,
// unpadded local time, to stdout (DEBUG) or stderr (WARN, ERROR) when
// debug_mode is on, and the same text to syslog when syslog_mode is on.
// Nothing is appended: a message that ends a line carries its own "\n".
void log_write(log_level level, const char *func, int line, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

// True when a line would reach any output; with both switches off a log
// call costs two flag reads and formats nothing.
inline bool log_enabled();

// Logs with the name of the calling function.
#define log_msg(level, ...)                                         \
  do {                                                              \
    if (log_enabled())                                              \
      log_write(log_level::level, __func__, __LINE__, __VA_ARGS__); \
  } while (0)
// Logs under an explicit function name, for shared code that reports on
// behalf of its caller.
#define log_msg_as(name, level, ...)                              \
  do {                                                            \
    if (log_enabled())                                            \
      log_write(log_level::level, (name), __LINE__, __VA_ARGS__); \
  } while (0)

extern int debug_mode;
extern volatile sig_atomic_t syslog_mode;
inline bool log_enabled() { return debug_mode != 0 || syslog_mode != 0; }

void debug_mode_on();
int debug_mode_get();
void syslog_mode_on();
void syslog_mode_off();
int syslog_mode_get();

// Signal handlers: SIGUSR1 switches syslog output on, SIGUSR2 off.
void log_sigusr1(int);
void log_sigusr2(int);
