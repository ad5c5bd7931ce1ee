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

// Logs with the name of the calling function.
#define log_msg(level, ...) log_write(log_level::level, __func__, __LINE__, __VA_ARGS__)
// Logs under an explicit function name, for shared code that reports on
// behalf of its caller.
#define log_msg_as(name, level, ...) log_write(log_level::level, (name), __LINE__, __VA_ARGS__)

void debug_mode_on();
int debug_mode_get();
void syslog_mode_on();
void syslog_mode_off();
int syslog_mode_get();

// Signal handlers: SIGUSR1 switches syslog output on, SIGUSR2 off.
void log_sigusr1(int);
void log_sigusr2(int);
