// Every shell command of the daemon runs here: through /bin/sh -c, as
// system(3) and popen(3) would, while the feed sockets keep being read into
// the feed queue so that the kernel's small queues do not overflow.
#pragma once

#include <cstddef>
#include <string>

// Seconds a command may run. One still running after its limit is killed
// with its whole process group and logged at WARN with its program's name;
// it then counts as a command that could not run. Transfers (zip, upload)
// ask for the long limit; probes, listings and spool directories take the
// short one.
constexpr unsigned COMMAND_LIMIT_SHORT = 10;
constexpr unsigned COMMAND_LIMIT_TRANSFER = 120;

// Runs cmd with the daemon's standard output and error. Returns the wait
// status as system(3) does, or -1 when no process could be started or it
// was killed at its limit.
int command_system(const char *cmd, unsigned limit_s = COMMAND_LIMIT_SHORT);
// Runs cmd with its standard output captured into out (at most max bytes
// kept, the rest read and discarded). Returns the wait status, or -1 when
// no process could be started or it was killed at its limit (then out is
// empty).
int command_read(const char *cmd, std::string *out, size_t max,
                 unsigned limit_s = COMMAND_LIMIT_SHORT);

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
