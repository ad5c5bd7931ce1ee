#include "frame/command.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/times.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "frame/eloop.h"
#include "frame/feed_queue.h"
#include "frame/log.h"
#include "frame/unique_fd.h"

extern char **environ;

namespace {

command_runner *test_runner;
unsigned limit_second_ms = 1000;

// Without a pidfd the runner cannot sleep until the child ends; it then
// looks every few milliseconds.
constexpr int CHILD_POLL_MS = 5;

int open_pidfd(pid_t pid) {
#ifdef SYS_pidfd_open
  return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#else
  (void)pid;
  return -1;
#endif
}

// A command's time limit, kept on the elapsed real time that times(2)
// counts. The end-to-end tests run the daemon 60 times fast under a
// preloaded time-faking library, which speeds up clock_gettime, timers and
// poll time-outs alike, but not the real I/O of an upload: a 120-s limit
// on such a clock would end an upload after 2 real seconds. times() is not
// faked, and a poll time-out is only a wait here: the limit is judged from
// times() after each wake-up.
class command_deadline {
 public:
  command_deadline(const char *command, command_limit limit)
      : cmd(command),
        limit_s(limit.seconds),
        ends_with_daemon(limit.ends_with_daemon),
        start_(now()),
        ticks_(static_cast<unsigned long>(limit.seconds) * limit_second_ms * hz() / 1000) {}
  bool passed() const { return now() - start_ >= ticks_; }
  // A poll time-out (ms, -1 for none) cut to what is left of the limit.
  int bound(int timeout) const {
    const unsigned long used = now() - start_;
    const unsigned long left_ms = used >= ticks_ ? 0 : (ticks_ - used) * 1000 / hz() + 1;
    return timeout >= 0 && static_cast<unsigned long>(timeout) < left_ms
               ? timeout
               : static_cast<int>(left_ms);
  }
  const char *const cmd;
  const unsigned limit_s;
  const bool ends_with_daemon;

 private:
  static unsigned long now() {
    struct tms t;
    return static_cast<unsigned long>(times(&t));
  }
  static unsigned long hz() { return static_cast<unsigned long>(sysconf(_SC_CLK_TCK)); }
  unsigned long start_;
  unsigned long ticks_;
};

// Ends a command that ran past its limit: its whole process group, so that
// what the shell started (a pipeline, a retrying upload) ends too. The
// warning names only the program (the first word after a leading "cd
// DIR;"): an upload's command holds the password.
void command_kill(pid_t pid, const command_deadline &deadline, bool stopping) {
  kill(-pid, SIGKILL);
  const char *program = deadline.cmd;
  if (strncmp(program, "cd ", 3) == 0 && strchr(program, ';'))
    program = strchr(program, ';') + 1;
  const int name_len = static_cast<int>(strcspn(program, " ;|&"));
  if (stopping)
    log_msg(WARN, "%.*s killed with its process group: the daemon is stopping\n", name_len,
            program);
  else
    log_msg(WARN, "%.*s still running after %u s: killed with its process group\n", name_len,
            program, deadline.limit_s);
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
  // (it ignores SIGPIPE): a writer into a pipeline that ended early is
  // killed as anywhere else, and a shell can wait for its children.
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
    log_msg(ERROR, "cannot start /bin/sh: %s\n", strerror(rc));
    return -1;
  }
  return pid;
}

// Waits for the child while reading its output (if any) and the feeds;
// kills it when its deadline passes (then *killed is set). -1 when the
// child could not be waited for: with SIGCHLD ignored the kernel reaps it
// and the wait ends in ECHILD, which says nothing about how it ended.
int wait_child(pid_t pid, unique_fd out, std::string *text, size_t max,
               const command_deadline &deadline, bool *killed) {
  unique_fd pidfd(open_pidfd(pid));
  int status = 0;
  bool exited = false;
  bool lost = false;
  for (;;) {
    pollfd fds[FEED_MAX_SOURCES + 3];
    int feeds[FEED_MAX_SOURCES];
    int n = 0;
#ifdef QZ_COMMANDS_BLOCKING
    // Built only to measure what the queue saves: feeds wait in the kernel.
    const int sources = 0;
#else
    const int sources = feed_queue_source_count();
#endif
    // A feed whose share is full is left to the kernel until room is made.
    for (int i = 0; i < sources; i++) {
      if (feed_queue_has_room(i)) {
        feeds[n] = i;
        fds[n++] = pollfd{feed_queue_source_fd(i), POLLIN, 0};
      }
    }
    const int feed_slots = n;
    const int out_slot = out ? n : -1;
    if (out)
      fds[n++] = pollfd{out.get(), POLLIN, 0};
    const int pid_slot = pidfd && !exited ? n : -1;
    if (pid_slot >= 0)
      fds[n++] = pollfd{pidfd.get(), POLLIN, 0};
    const int stop_fd = deadline.ends_with_daemon ? eloop_terminate_fd() : -1;
    if (stop_fd >= 0)
      fds[n++] = pollfd{stop_fd, POLLIN, 0};

    if (!exited && pid_slot < 0) {
      pid_t r = waitpid(pid, &status, WNOHANG);
      if (r == pid || (r < 0 && errno != EINTR))
        exited = true;
      lost = r < 0 && errno != EINTR;
    }
    if (exited && !out)
      break;

    int timeout = pid_slot >= 0 || exited ? -1 : CHILD_POLL_MS;
    int ready = poll(fds, n, deadline.bound(timeout));
    if (ready < 0) {
      if (errno == EINTR)
        continue;
      break;
    }
    for (int i = 0; i < feed_slots; i++)
      if (fds[i].revents & (POLLIN | POLLERR))
        feed_queue_pull(feeds[i]);
    if (out_slot >= 0 && fds[out_slot].revents) {
      char buf[4096];
      ssize_t r = read(out.get(), buf, sizeof(buf));
      if (r > 0) {
        size_t keep = text->size() < max ? max - text->size() : 0;
        text->append(buf, static_cast<size_t>(r) < keep ? r : keep);
      } else if (r == 0 || errno != EINTR) {
        out.reset();
      }
    }
    if (pid_slot >= 0 && fds[pid_slot].revents) {
      pid_t r;
      do
        r = waitpid(pid, &status, 0);
      while (r < 0 && errno == EINTR);
      exited = true;
      lost = r < 0;
    }
    const bool stopping = deadline.ends_with_daemon && eloop_terminated();
    if ((stopping || deadline.passed()) && !(exited && !out)) {
      command_kill(pid, deadline, stopping);
      *killed = true;
      break;
    }
  }
  if (!exited) {
    pid_t r;
    do
      r = waitpid(pid, &status, 0);
    while (r < 0 && errno == EINTR);
    lost = r < 0;
  }
  return lost ? -1 : status;
}

int real_system(const char *cmd, command_limit limit) {
  const command_deadline deadline(cmd, limit);
  pid_t pid = spawn_shell(cmd, -1, -1);
  if (pid < 0)
    return -1;
  bool killed = false;
  const int status = wait_child(pid, unique_fd(), nullptr, 0, deadline, &killed);
  return killed ? -1 : status;
}

int real_read(const char *cmd, std::string *out, size_t max, command_limit limit) {
  const command_deadline deadline(cmd, limit);
  out->clear();
  int p[2];
  if (pipe2(p, O_CLOEXEC) != 0)
    return -1;
  unique_fd rd(p[0]);
  unique_fd wr(p[1]);
  pid_t pid = spawn_shell(cmd, wr.get(), rd.get());
  if (pid < 0)
    return -1;
  wr.reset();
  bool killed = false;
  const int status = wait_child(pid, std::move(rd), out, max, deadline, &killed);
  if (killed || status == -1) {
    out->clear();  // a listing cut anywhere, even inside a MAC
    return -1;
  }
  return status;
}

}  // namespace

int command_system(const char *cmd, command_limit limit) {
  return test_runner ? test_runner->run_system(cmd) : real_system(cmd, limit);
}

int command_read(const char *cmd, std::string *out, size_t max, command_limit limit) {
  return test_runner ? test_runner->run_read(cmd, out, max) : real_read(cmd, out, max, limit);
}

void command_set_runner(command_runner *runner) { test_runner = runner; }

void command_set_limit_second_ms(unsigned ms) { limit_second_ms = ms ? ms : 1000; }
