#include "frame/command.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>

#include "frame/feed_queue.h"
#include "frame/unique_fd.h"

extern char **environ;

namespace {

command_runner *test_runner;

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

// Starts "/bin/sh -c cmd"; with out_fd >= 0 the child's stdout goes there.
pid_t spawn_shell(const char *cmd, int out_fd, int close_fd) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (out_fd >= 0) {
    posix_spawn_file_actions_adddup2(&actions, out_fd, STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, close_fd);
  }
  char *const argv[] = {const_cast<char *>("sh"), const_cast<char *>("-c"), const_cast<char *>(cmd),
                        nullptr};
  pid_t pid = -1;
  int rc = posix_spawn(&pid, "/bin/sh", &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  return rc == 0 ? pid : -1;
}

// Waits for the child while reading its output (if any) and the feeds.
int wait_child(pid_t pid, unique_fd out, std::string *text, size_t max) {
  unique_fd pidfd(open_pidfd(pid));
  int status = 0;
  bool exited = false;
  for (;;) {
    pollfd fds[FEED_MAX_SOURCES + 2];
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

    if (!exited && pid_slot < 0) {
      pid_t r = waitpid(pid, &status, WNOHANG);
      if (r == pid || (r < 0 && errno != EINTR))
        exited = true;
    }
    if (exited && !out)
      break;

    int timeout = pid_slot >= 0 || exited ? -1 : CHILD_POLL_MS;
    int ready = poll(fds, n, timeout);
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
    }
  }
  if (!exited) {
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
  }
  return status;
}

int real_system(const char *cmd) {
  pid_t pid = spawn_shell(cmd, -1, -1);
  if (pid < 0)
    return -1;
  return wait_child(pid, unique_fd(), nullptr, 0);
}

int real_read(const char *cmd, std::string *out, size_t max) {
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
  return wait_child(pid, std::move(rd), out, max);
}

}  // namespace

int command_system(const char *cmd) {
  return test_runner ? test_runner->run_system(cmd) : real_system(cmd);
}

int command_read(const char *cmd, std::string *out, size_t max) {
  return test_runner ? test_runner->run_read(cmd, out, max) : real_read(cmd, out, max);
}

void command_set_runner(command_runner *runner) { test_runner = runner; }
