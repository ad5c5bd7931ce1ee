// Start-up: options, single-instance lock, detach, signals, then every
// subsystem's set-up in a fixed order, and the event loop for the rest of
// the process's life.
#include <fcntl.h>
#include <getopt.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "config/config.h"
#include "config/identity.h"
#include "daemon/stats.h"
#include "frame/command.h"
#include "frame/eloop.h"
#include "frame/feed.h"
#include "frame/fixed_file.h"
#include "frame/log.h"
#include "frame/paths.h"
#include "frame/report_timer.h"
#include "netbar/netbar_group.h"
#include "output/archive.h"
#include "output/unsent.h"
#include "status/bjson.h"
#include "terminal/source_group.h"

namespace {

int lock_fd = -1;
report_timer tick_report;
time_t started;

// Every tick: a word in the log while the feeds are behind, and the
// counters file.
report_result tick_report_timer(void *) {
  feed_report();
  bcp_tick();
  bjson_tick();
  qz2fh_status_files_tick();
  stats_write(started);
  return report_result::done;
}

// After every handler and before each wait: a group whose bounds were
// reached starts its archive between two records, never inside one; while
// one must wait behind its archive in flight, the feeds wait in the
// kernel. In durable mode every record line written is then in its file.
void after_handler() {
  archive_run_due();
  feed_hold(archive_waiting());
  if (unsent_enabled())
    bcp_flush_written();
}

void stop_signal(int) { eloop_terminate(); }

// Durable mode stops on SIGTERM and SIGINT without losing the open cycle;
// otherwise they keep their default action.
void durable_stop_signals() {
  if (eloop_enable_terminate() != 0) {
    log_msg(ERROR, "no pipe for stopping: SIGTERM and SIGINT end the daemon at once\n");
    return;
  }
  struct sigaction sa = {};
  sa.sa_handler = stop_signal;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGTERM, &sa, nullptr);
  sigaction(SIGINT, &sa, nullptr);
}

// Dispositions a parent may have left: with SIGCHLD ignored the kernel
// reaps every command before its status can be read, and a console or
// syslog reader going away must not end the daemon by SIGPIPE (its writes
// fail instead, and are dropped).
void known_signal_dispositions() {
  struct sigaction sa = {};
  sigemptyset(&sa.sa_mask);
  sa.sa_handler = SIG_DFL;
  sigaction(SIGCHLD, &sa, nullptr);
  sa.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &sa, nullptr);
}

const struct option long_options[] = {
    {"debug", required_argument, nullptr, 'D'},
    {nullptr, 0, nullptr, 0},
};

void lock_file_release() {
  if (lock_fd != -1) {
    close(lock_fd);
    lock_fd = -1;
  }
}

}  // namespace

int main(int argc, char *argv[]) {
  known_signal_dispositions();
  int opt;
  while ((opt = getopt_long(argc, argv, "D", long_options, nullptr)) != -1) {
    if (opt == 'D') {
      debug_mode_on();
    } else {
      fprintf(stderr, "unknown command: %c\n", opt);
      return -1;
    }
  }

  static const char lock_failed[] = "can not get file lock or open file failed";
  // What another account put there first would keep every start from
  // taking the lock: moved aside. Anything else but a plain file of our
  // own there counts as a failed open.
  fixed_file_clear_foreign(QZ_FILE_LOCK_PATH, "lock file");
  lock_fd = fixed_file_open_lock(QZ_FILE_LOCK_PATH);
  if (lock_fd < 0) {
    printf("open QZ_FILE_LOCK_PATH failed!");
    fflush(stdout);
    fputs(lock_failed, stderr);
    return -1;
  }
  if (flock(lock_fd, LOCK_EX | LOCK_NB) != 0) {
    close(lock_fd);
    lock_fd = -1;
    fputs(lock_failed, stderr);
    return -1;
  }
  atexit(lock_file_release);

  if (!debug_mode_get() && daemon(0, 0) != 0) {
    fprintf(stderr, "daemon failed: %s", strerror(errno));
    return -1;
  }

  if (signal(SIGUSR1, log_sigusr1) == SIG_ERR)
    puts("to register SIGUSR1 fail");
  if (signal(SIGUSR2, log_sigusr2) == SIG_ERR)
    puts("to register SIGUSR2 fail");

  if (eloop_init() != 0) {
    log_msg(ERROR, "eloop init failed\n");
    return -1;
  }
  eloop_set_after_handler(after_handler);
  feed_set_yield(bcp_archive_pending);
  if (qz2fh_config_init() != 0) {
    log_msg(ERROR, "config init failed\n");
    return -1;
  }
  started = time(nullptr);
  if (unsent_enabled()) {
    if (unsent_store_open() != 0) {
      log_msg(ERROR, "config init failed\n");
      return -1;
    }
    durable_stop_signals();
  }
  report_timer_start();
  if (source_group_init() != 0) {
    log_msg(ERROR, "terminal group set-up failed\n");
    return -1;
  }
  // A router without one of the feeds (no kernel module, a socket taken)
  // still records what the other brings.
  if (netbar_group_init() != 0)
    log_msg(ERROR, "a feed could not be opened: running without it\n");
  if (bjson_report_init() != 0) {
    log_msg(ERROR, "status report set-up failed\n");
    return -1;
  }
  for (int i = 0; i < bcp_group_count(); i++)
    archive_recover_leftovers(bcp_group_at(i));
  report_timer_init(&tick_report, tick_report_timer, REPORT_TICK_SECONDS,
                    report_order{report_owner_new(), report_phase::records});
  report_timer_add(&tick_report);

  eloop_run();
  if (eloop_terminated()) {
    // Commands in flight end (what they had not finished is kept), what
    // the kernel holds for the feeds is handled, then the open cycles are
    // kept for the next start.
    command_stop_all();
    netbar_feeds_finish();
    archive_keep_all();
    stats_write(started);
    log_msg(DEBUG, "stopped: open cycles kept in %s\n", qz2fh_get_unsent_dir());
    eloop_destroy();
    return 0;
  }
  eloop_destroy();
  log_msg(DEBUG, "fdsafdas\n");
  return -1;
}
