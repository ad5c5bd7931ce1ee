// Every shell command of the daemon runs here: through /bin/sh -c, as
// system(3) and popen(3) would, while the feed sockets keep being read into
// the feed queue so that the kernel's small queues do not overflow.
#pragma once

#include <cstddef>
#include <string>

// How long a command may run. One still running after its limit is killed
// with its whole process group and logged at WARN with its program's name;
// it then counts as a command that could not run. A command that ends with
// the daemon is killed the same way as soon as the loop is terminated (a
// stopping daemon does not wait for the network), while the local steps of
// the last archive run to their end.
struct command_limit {
  unsigned seconds;
  bool ends_with_daemon;
};
constexpr command_limit COMMAND_LOCAL = {10, false};   // spool directories
constexpr command_limit COMMAND_PROBE = {10, true};    // route, address, wum listing
constexpr command_limit COMMAND_ZIP = {120, false};
constexpr command_limit COMMAND_UPLOAD = {120, true};

// Runs cmd with the daemon's standard output and error. Returns the wait
// status as system(3) does, or -1 when no process could be started, it was
// killed, or it could not be waited for (ECHILD).
int command_system(const char *cmd, command_limit limit = COMMAND_LOCAL);
// Runs cmd with its standard output captured into out (at most max bytes
// kept, the rest read and discarded). Returns the wait status, or -1 when
// no process could be started, it was killed or it could not be waited for
// (then out is empty).
int command_read(const char *cmd, std::string *out, size_t max,
                 command_limit limit = COMMAND_PROBE);

// Seam for tests: a runner that records commands and answers with canned
// output instead of starting processes.
class command_runner {
 public:
  virtual ~command_runner() = default;
  virtual int run_system(const char *cmd) = 0;
  virtual int run_read(const char *cmd, std::string *out, size_t max) = 0;
};
// Null restores the real runner.
void command_set_runner(command_runner *runner);
// Seam for tests of the limits: how many milliseconds a second of a limit
// lasts (1000, or 0 to restore that).
void command_set_limit_second_ms(unsigned ms);
