// Every shell command of the daemon runs here, through /bin/sh -c as
// system(3) and popen(3) would. Once the loop runs, a command runs beside
// it: starting one returns at once, and its end is an event of the loop
// that calls its owner back, so that nothing waits for the network.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// What kind of command, and how long it may run. One still running after
// its limit is sent SIGTERM with its whole process group (SIGKILL a few
// seconds later), logged at WARN with its program's name, and counted; it
// then counts as a command that could not run. Limits are kept in real
// time. A command that ends with the daemon is not started once the loop
// is terminated, and one running then is ended at once.
enum command_kind { COMMAND_KIND_LOCAL, COMMAND_KIND_PROBE, COMMAND_KIND_ZIP, COMMAND_KIND_UPLOAD };
constexpr int COMMAND_KINDS = 4;
struct command_limit {
  command_kind kind;
  unsigned seconds;
  bool ends_with_daemon;
};
constexpr command_limit COMMAND_LOCAL = {COMMAND_KIND_LOCAL, 10, false};  // spool directories
constexpr command_limit COMMAND_PROBE = {COMMAND_KIND_PROBE, 10, true};   // route, wum listing
constexpr command_limit COMMAND_ZIP = {COMMAND_KIND_ZIP, 120, false};
constexpr command_limit COMMAND_UPLOAD = {COMMAND_KIND_UPLOAD, 120, true};
// "local", "probe", "zip", "upload".
const char *command_kind_name(int kind);
// Commands of that kind killed at their limit since start.
uint64_t command_killed(int kind);

struct command_job;
// Called once per started command, from the loop, with the wait status as
// system(3) gives it, or -1 when it was killed or could not be waited for
// (ECHILD). The job may be started again from here.
using command_done_fn = void (*)(command_job *job, int status);

// A command run beside the loop. The record lives inside its owner, which
// finds itself again through owner; the rest belongs to the runner.
struct command_job {
  void *owner;

  command_job *next;  // on the list of running commands
  command_done_fn done;
  pid_t pid;  // 0 while none runs
  int pidfd, out_fd;
  char *out;  // what it printed, when asked for (cut to max)
  size_t out_len, max;
  command_limit limit;
  unsigned long start_ticks;
  bool exited, killed, by_sigchld;
  int status;
  char program[24];  // for the WARN line: never the command, which may hold a password
};

// Starts cmd for job, which must not be running; its standard output is
// kept in job->output when capture is non-zero (at most capture bytes, the
// rest read and discarded). 0, or -1 when it was not started (no process,
// or the loop is terminated and the command ends with the daemon): done is
// then not called.
int command_start(command_job *job, const char *cmd, command_limit limit, command_done_fn done,
                  size_t capture = 0);
// What the job's command printed, for its callback (empty when it failed).
std::string_view command_output(const command_job *job);
bool command_busy(const command_job *job);
// Commands of the daemon's running now.
int command_count();

// Before the loop runs and after it has ended (start-up, stop): cmd run to
// its end or limit while the caller waits. Results as system(3), or -1 as
// for command_done_fn; command_read keeps at most max bytes of output (none
// when it failed).
int command_system(const char *cmd, command_limit limit = COMMAND_LOCAL);
int command_read(const char *cmd, std::string *out, size_t max,
                 command_limit limit = COMMAND_PROBE);

// A stopping daemon: every running command gets SIGTERM with its process
// group, SIGKILL a little later, and its owner's callback with -1.
void command_stop_all();

// Seam for tests: a runner that answers each command (its wait status,
// and its output into out when out is not null) instead of starting a
// process. Started commands still end through the loop.
class command_runner {
 public:
  virtual ~command_runner() = default;
  virtual int run(const char *cmd, std::string *out, size_t max) = 0;
};
// Null restores the real runner.
void command_set_runner(command_runner *runner);
// Seams for tests of the limits: how many milliseconds a second of a limit
// lasts (1000, or 0 to restore that); whether pidfds are used (else
// SIGCHLD through a pipe, as on kernels before 5.3).
void command_set_limit_second_ms(unsigned ms);
void command_use_pidfd(bool use);
