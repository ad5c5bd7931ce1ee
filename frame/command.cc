#include "frame/command.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/times.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "frame/eloop.h"
#include "frame/log.h"

extern char **environ;

namespace {

command_runner *test_runner;
unsigned limit_second_ms = 1000;
bool pidfd_wanted = true;
command_job *running;
uint64_t killed[COMMAND_KINDS];

// After SIGTERM, a process group has this long to end before SIGKILL.
constexpr unsigned KILL_GRACE_MS = 2000;
// Without a pidfd, a wait outside the loop looks this often.
constexpr int CHILD_POLL_MS = 5;

// Limits are kept on the elapsed real time that times(2) counts. The
// end-to-end tests run the daemon 60 times fast under a preloaded
// time-faking library, which speeds up clock_gettime and every time-out,
// but not the real I/O of an upload: a 120-s limit on such a clock would
// end an upload after 2 real seconds. times() is not faked; a loop
// time-out is only a wake-up to look at it again.
unsigned long ticks_now() {
  struct tms t;
  return static_cast<unsigned long>(times(&t));
}

unsigned long ms_to_ticks(unsigned long ms) {
  return ms * static_cast<unsigned long>(sysconf(_SC_CLK_TCK)) / 1000;
}

// Milliseconds until the job's next step: its limit, then the end of its
// grace after SIGTERM. 0 when it is due.
unsigned long ms_left(const command_job *job) {
  unsigned long ms = static_cast<unsigned long>(job->limit.seconds) * limit_second_ms;
  if (job->killed)
    ms += static_cast<unsigned long>(KILL_GRACE_MS) * limit_second_ms / 1000;
  const unsigned long due = ms_to_ticks(ms), used = ticks_now() - job->start_ticks;
  return used >= due ? 0 : (due - used) * 1000 / ms_to_ticks(1000) + 1;
}

// The first word after a leading "cd DIR &&" or "cd DIR;": an upload's
// command holds the password, so only the program is ever logged.
void note_program(command_job *job, const char *cmd) {
  const char *p = cmd;
  if (strncmp(p, "cd ", 3) == 0 && strpbrk(p, ";&")) {
    p = strpbrk(p, ";&");
    p += strspn(p, ";& ");
  }
  const size_t n = strcspn(p, " ;|&");
  snprintf(job->program, sizeof(job->program), "%.*s", static_cast<int>(n), p);
}

// SIGTERM to the job's process group at its limit (or the daemon's stop),
// SIGKILL once its grace has passed.
void end_group(command_job *job, bool stopping) {
  if (job->killed) {
    kill(-job->pid, SIGKILL);
    return;
  }
  kill(-job->pid, SIGTERM);
  job->killed = true;
  killed[job->limit.kind]++;
  if (stopping)
    log_msg_as("command_run", WARN, "%s killed with its process group: the daemon is stopping\n",
               job->program);
  else
    log_msg_as("command_run", WARN, "%s still running after %u s: killed with its process group\n",
               job->program, job->limit.seconds);
}

void close_output(command_job *job) {
  if (job->out_fd < 0)
    return;
  eloop_remove_sock(job->out_fd, EVENT_TYPE_READ);
  close(job->out_fd);
  job->out_fd = -1;
}

// The job's deadline has passed: SIGTERM first, SIGKILL after the grace.
// A shell that has ended while something of its group still holds its
// output is done once that is killed: the output is closed.
void deadline_passed(command_job *job) {
  end_group(job, false);
  if (job->exited && ms_left(job) == 0)
    close_output(job);
}

// Starts "/bin/sh -c cmd" in a process group of its own; with out_fd >= 0
// the child's stdout goes there.
pid_t spawn_shell(const char *cmd, int out_fd, int close_fd) {
  posix_spawn_file_actions_t actions;
  if (posix_spawn_file_actions_init(&actions) != 0)
    return -1;
  posix_spawnattr_t attr;
  if (posix_spawnattr_init(&attr) != 0) {
    posix_spawn_file_actions_destroy(&actions);
    return -1;
  }
  // Commands start with the default dispositions, whatever the daemon's
  // (it ignores SIGPIPE and catches SIGCHLD): a writer into a pipeline that
  // ended early is killed as anywhere else, and a shell can wait for its
  // children.
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  sigaddset(&defaults, SIGCHLD);
  // No command reads the daemon's standard input (a terminal under -D).
  int rc = posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  if (rc == 0 && out_fd >= 0) {
    rc = posix_spawn_file_actions_adddup2(&actions, out_fd, STDOUT_FILENO);
    if (rc == 0)
      rc = posix_spawn_file_actions_addclose(&actions, close_fd);
  }
  if (rc == 0)
    rc = posix_spawnattr_setsigdefault(&attr, &defaults);
  if (rc == 0)
    rc = posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF);
  if (rc == 0)
    rc = posix_spawnattr_setpgroup(&attr, 0);
  char *const argv[] = {const_cast<char *>("sh"), const_cast<char *>("-c"), const_cast<char *>(cmd),
                        nullptr};
  pid_t pid = -1;
  if (rc == 0)
    rc = posix_spawn(&pid, "/bin/sh", &actions, &attr, argv, environ);
  posix_spawnattr_destroy(&attr);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    log_msg_as("command_run", ERROR, "cannot start /bin/sh: %s\n", strerror(rc));
    return -1;
  }
  return pid;
}

int open_pidfd(pid_t pid) {
#ifdef SYS_pidfd_open
  if (pidfd_wanted)
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#endif
  (void)pid;
  return -1;
}

// Starts the process of a job: its pid, its pidfd when the kernel has
// them, and the read end of its output pipe.
void drop_output(command_job *job) {
  free(job->out);
  job->out = nullptr;
  job->out_len = 0;
}

int spawn(command_job *job, const char *cmd, command_limit limit, bool capture, size_t max) {
  drop_output(job);
  job->limit = limit;
  job->max = max;
  job->exited = job->killed = job->by_sigchld = false;
  job->status = -1;
  job->pidfd = job->out_fd = -1;
  note_program(job, cmd);
  int p[2] = {-1, -1};
  if (capture && pipe2(p, O_CLOEXEC) != 0)
    return -1;
  job->start_ticks = ticks_now();
  job->pid = spawn_shell(cmd, p[1], p[0]);
  if (p[1] >= 0)
    close(p[1]);
  if (job->pid < 0) {
    job->pid = 0;
    if (p[0] >= 0)
      close(p[0]);
    return -1;
  }
  job->out_fd = p[0];
  if (job->out_fd >= 0)
    fcntl(job->out_fd, F_SETFL, O_NONBLOCK);
  job->pidfd = open_pidfd(job->pid);
  return 0;
}

// Reads what the job printed; at the end of its output the pipe is
// closed. A grandchild may hold the pipe after the shell has gone: the
// job is done only when both have ended.
void read_output(command_job *job) {
  char buf[4096];
  for (;;) {
    const ssize_t n = read(job->out_fd, buf, sizeof(buf));
    if (n > 0) {
      const size_t keep = std::min(static_cast<size_t>(n), job->max - job->out_len);
      char *grown = keep ? static_cast<char *>(realloc(job->out, job->out_len + keep)) : job->out;
      if (grown) {
        memcpy(grown + job->out_len, buf, keep);
        job->out = grown;
        job->out_len += keep;
      }
      continue;
    }
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0 && errno == EAGAIN)
      return;
    close_output(job);
    return;
  }
}

// Reaps the job's process if it has ended. A killed job's group is killed
// again first, while its zombie still holds the group's id. With SIGCHLD
// ignored the kernel reaps the process first and the wait ends in ECHILD,
// which says nothing of how it ended: a failure.
void try_reap(command_job *job, bool block) {
  if (job->exited)
    return;
  siginfo_t info;
  info.si_pid = 0;
  int r;
  do
    r = waitid(P_PID, static_cast<id_t>(job->pid), &info, WEXITED | WNOWAIT | (block ? 0 : WNOHANG));
  while (r < 0 && errno == EINTR);
  if (r == 0 && info.si_pid == 0)
    return;
  if (r == 0 && job->killed)
    kill(-job->pid, SIGKILL);
  int status = 0;
  pid_t w = -1;
  if (r == 0) {
    do
      w = waitpid(job->pid, &status, 0);
    while (w < 0 && errno == EINTR);
  }
  job->exited = true;
  job->status = w == job->pid ? status : -1;
  // A pidfd stays readable once its process has ended.
  if (job->pidfd >= 0) {
    eloop_remove_sock(job->pidfd, EVENT_TYPE_READ);
    close(job->pidfd);
    job->pidfd = -1;
  }
}

// Without pidfds: SIGCHLD writes to a pipe the loop reads.
int chld_pipe[2] = {-1, -1};
int fallback_jobs;

void on_sigchld(int) {
  const int saved = errno;
  const char byte = 0;
  (void)!write(chld_pipe[1], &byte, 1);
  errno = saved;
}

void finish(command_job *job);
void deadline_due(void *eloop_data, void *);

void maybe_finish(command_job *job) {
  if (job->exited && job->out_fd < 0)
    finish(job);
}

void chld_ready(int fd, void *, void *) {
  char buf[64];
  while (read(fd, buf, sizeof(buf)) > 0) {
  }
  for (command_job *job = running, *next; job; job = next) {
    next = job->next;
    if (job->by_sigchld && !job->exited) {
      try_reap(job, false);
      maybe_finish(job);
    }
  }
}

bool chld_fallback_ready() {
  if (chld_pipe[0] < 0) {
    if (pipe2(chld_pipe, O_CLOEXEC | O_NONBLOCK) != 0) {
      chld_pipe[0] = chld_pipe[1] = -1;
      return false;
    }
    struct sigaction sa = {};
    sa.sa_handler = on_sigchld;
    sa.sa_flags = SA_RESTART | SA_NOCLDSTOP;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGCHLD, &sa, nullptr);
  }
  return fallback_jobs++ > 0 || eloop_add_reader(chld_pipe[0], chld_ready, nullptr, nullptr) == 0;
}

// The loop's callback of a job's pidfd and of its output pipe.
void job_ready(int fd, void *eloop_data, void *) {
  auto *job = static_cast<command_job *>(eloop_data);
  if (fd == job->out_fd)
    read_output(job);
  else
    try_reap(job, false);
  maybe_finish(job);
}

void arm_deadline(command_job *job, unsigned long ms) {
  eloop_add_timeout(static_cast<unsigned>(ms / 1000), static_cast<unsigned>(ms % 1000) * 1000,
                    deadline_due, job, nullptr);
}

void deadline_due(void *eloop_data, void *) {
  auto *job = static_cast<command_job *>(eloop_data);
  // An end the loop missed (no pidfd and SIGCHLD ignored by someone).
  try_reap(job, false);
  if (!(job->exited && job->out_fd < 0) && ms_left(job) == 0)
    deadline_passed(job);
  if (job->exited && job->out_fd < 0) {
    finish(job);
    return;
  }
  const unsigned long ms = ms_left(job);
  arm_deadline(job, ms ? ms : 100);
}

// The job's end: everything of it leaves the loop before its owner hears.
void finish(command_job *job) {
  eloop_cancel_timeout(deadline_due, job, nullptr);
  if (job->pidfd >= 0) {
    eloop_remove_sock(job->pidfd, EVENT_TYPE_READ);
    close(job->pidfd);
    job->pidfd = -1;
  }
  if (job->by_sigchld && --fallback_jobs == 0)
    eloop_remove_sock(chld_pipe[0], EVENT_TYPE_READ);
  job->by_sigchld = false;
  for (command_job **p = &running; *p; p = &(*p)->next) {
    if (*p == job) {
      *p = job->next;
      break;
    }
  }
  const int status = job->killed ? -1 : job->status;
  if (status == -1)
    drop_output(job);  // a listing cut anywhere, even inside a MAC
  job->pid = 0;
  job->done(job, status);
  if (job->pid == 0)
    drop_output(job);
}

// A test runner's answer, given from the loop as a real end would be.
void fake_done(void *eloop_data, void *) { finish(static_cast<command_job *>(eloop_data)); }

// Waits outside the loop for a job to end, within its limit.
int wait_here(command_job *job) {
  while (!(job->exited && job->out_fd < 0)) {
    pollfd fds[2];
    int n = 0;
    if (job->out_fd >= 0)
      fds[n++] = pollfd{job->out_fd, POLLIN, 0};
    if (job->pidfd >= 0 && !job->exited)
      fds[n++] = pollfd{job->pidfd, POLLIN, 0};
    unsigned long wait = ms_left(job);
    if (wait == 0 || (job->pidfd < 0 && !job->exited && wait > CHILD_POLL_MS))
      wait = CHILD_POLL_MS;
    if (poll(fds, n, static_cast<int>(wait)) < 0 && errno != EINTR)
      break;
    if (job->out_fd >= 0)
      read_output(job);
    if (!job->exited)
      try_reap(job, false);
    if (!(job->exited && job->out_fd < 0) && ms_left(job) == 0)
      deadline_passed(job);
  }
  close_output(job);
  if (job->pidfd >= 0)
    close(job->pidfd);
  job->pidfd = -1;
  job->pid = 0;
  return job->killed ? -1 : job->status;
}

int run_here(const char *cmd, std::string *out, size_t max, command_limit limit) {
  if (out)
    out->clear();
  if (test_runner)
    return test_runner->run(cmd, out, max);
  if (limit.ends_with_daemon && eloop_terminated())
    return -1;
  command_job job{};
  if (spawn(&job, cmd, limit, out != nullptr, max) != 0)
    return -1;
  const int status = wait_here(&job);
  if (out && status != -1 && job.out)
    out->append(job.out, job.out_len);
  drop_output(&job);
  return status;
}

}  // namespace

const char *command_kind_name(int kind) {
  static const char *const names[COMMAND_KINDS] = {"local", "probe", "zip", "upload"};
  return kind >= 0 && kind < COMMAND_KINDS ? names[kind] : "";
}

uint64_t command_killed(int kind) { return kind >= 0 && kind < COMMAND_KINDS ? killed[kind] : 0; }

int command_start(command_job *job, const char *cmd, command_limit limit, command_done_fn done,
                  size_t capture) {
  // A stopping daemon starts nothing: what its owners had not finished is
  // kept by the stop itself.
  if (eloop_terminated())
    return -1;
  job->done = done;
  if (test_runner) {
    job->limit = limit;
    job->killed = job->exited = job->by_sigchld = false;
    std::string out;
    job->status = test_runner->run(cmd, capture ? &out : nullptr, capture);
    drop_output(job);
    job->max = capture;
    job->out = out.empty() ? nullptr : static_cast<char *>(malloc(out.size()));
    if (job->out) {
      memcpy(job->out, out.data(), out.size());
      job->out_len = out.size();
    }
    job->pid = -1;
    job->pidfd = job->out_fd = -1;
    if (eloop_add_timeout(0, 0, fake_done, job, nullptr) != 0) {
      job->pid = 0;
      return -1;
    }
  } else {
    if (spawn(job, cmd, limit, capture != 0, capture) != 0)
      return -1;
    job->by_sigchld = job->pidfd < 0;
    const bool watched = job->pidfd >= 0
                             ? eloop_add_reader(job->pidfd, job_ready, job, nullptr) == 0
                             : chld_fallback_ready();
    if (job->out_fd >= 0 && eloop_add_reader(job->out_fd, job_ready, job, nullptr) != 0)
      read_output(job);  // not watched: read at its end
    arm_deadline(job, ms_left(job));
    if (!watched)
      log_msg_as("command_run", ERROR, "%s cannot be watched: it ends at its limit\n",
                 job->program);
    // A child that ended before its watch began is looked for at once.
    if (job->pidfd < 0 && chld_pipe[1] >= 0)
      on_sigchld(SIGCHLD);
  }
  job->next = running;
  running = job;
  return 0;
}

bool command_busy(const command_job *job) { return job->pid != 0; }

std::string_view command_output(const command_job *job) {
  return job->out ? std::string_view(job->out, job->out_len) : std::string_view();
}

int command_count() {
  int n = 0;
  for (const command_job *job = running; job; job = job->next)
    n++;
  return n;
}

int command_system(const char *cmd, command_limit limit) {
  return run_here(cmd, nullptr, 0, limit);
}

int command_read(const char *cmd, std::string *out, size_t max, command_limit limit) {
  return run_here(cmd, out, max, limit);
}

void command_stop_all() {
  // One grace for all, from now: SIGTERM first, SIGKILL when it has passed.
  const unsigned long now = ticks_now();
  for (command_job *job = running; job; job = job->next) {
    if (job->pid > 0) {
      end_group(job, true);
      job->start_ticks = now - ms_to_ticks(static_cast<unsigned long>(job->limit.seconds) * limit_second_ms);
    }
  }
  while (running) {
    command_job *job = running;
    if (job->pid > 0)
      wait_here(job);
    finish(job);
  }
}

void command_set_runner(command_runner *runner) { test_runner = runner; }

void command_set_limit_second_ms(unsigned ms) { limit_second_ms = ms ? ms : 1000; }

void command_use_pidfd(bool use) { pidfd_wanted = use; }
