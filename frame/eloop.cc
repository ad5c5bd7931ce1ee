#include "frame/eloop.h"

#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <csignal>
#include <cstdlib>
#include <ctime>

#include "frame/log.h"

namespace {

struct eloop_sock_entry {
  int sock;
  void *eloop_data;
  void *user_data;
  eloop_sock_handler handler;
};

struct eloop_sock_table {
  int count;
  eloop_sock_entry *entries;
  int changed;
};

struct eloop_timeout_entry {
  eloop_timeout_entry *next;
  eloop_timeout_entry *prev;
  int64_t sec;
  int64_t usec;
  void *eloop_data;
  void *user_data;
  eloop_timeout_handler handler;
};

struct eloop_data_t {
  int max_sock;
  eloop_sock_table readers;
  eloop_sock_table writers;
  eloop_sock_table exceptions;
  eloop_timeout_entry timeouts;  // list head
};

eloop_data_t eloop;
eloop_clock_fn loop_clock = monotonic_now;
void (*after_handler)();

clockid_t clock_id = CLOCK_MONOTONIC;

eloop_sock_table *table_of(int type) {
  switch (type) {
    case EVENT_TYPE_READ:
      return &eloop.readers;
    case EVENT_TYPE_WRITE:
      return &eloop.writers;
    case EVENT_TYPE_EXCEPTION:
      return &eloop.exceptions;
    default:
      return nullptr;
  }
}

bool timeouts_empty() { return eloop.timeouts.next == &eloop.timeouts; }

void unlink_timeout(eloop_timeout_entry *t) {
  t->prev->next = t->next;
  t->next->prev = t->prev;
}

void run_after_handler() {
  if (after_handler)
    after_handler();
}

void fill_set(const eloop_sock_table &table, fd_set *set) {
  FD_ZERO(set);
  for (int i = 0; i < table.count; i++)
    FD_SET(table.entries[i].sock, set);
}

void dispatch(eloop_sock_table &table, fd_set *set) {
  table.changed = 0;
  for (int i = 0; i < table.count; i++) {
    const eloop_sock_entry &e = table.entries[i];
    if (!FD_ISSET(e.sock, set))
      continue;
    e.handler(e.sock, e.eloop_data, e.user_data);
    run_after_handler();
    if (table.changed)
      break;
  }
}

// Termination: a flag and a pipe written from a signal handler, so that a
// wait of the loop, or of a command, ends at once.
volatile sig_atomic_t terminated;
int terminate_pipe[2] = {-1, -1};

int run_pass(fd_set *rfds, fd_set *wfds, fd_set *efds) {
  // Work deferred outside any handler (a command run during start-up) is
  // done before the first wait too.
  run_after_handler();
  if (terminated)
    return 1;
  struct timeval tv;
  struct timeval *wait = nullptr;
  int64_t now_sec, now_usec;

  if (!timeouts_empty()) {
    if (loop_clock(&now_sec, &now_usec) == 0) {
      const eloop_timeout_entry *first = eloop.timeouts.next;
      int64_t sec = first->sec - now_sec;
      int64_t usec = first->usec - now_usec;
      if (usec < 0) {
        sec--;
        usec += 1000000;
      }
      if (sec < 0) {
        sec = 0;
        usec = 0;
      }
      tv.tv_sec = static_cast<time_t>(sec);
      tv.tv_usec = static_cast<suseconds_t>(usec);
    } else {
      tv.tv_sec = 0;
      tv.tv_usec = 0;
    }
    wait = &tv;
  } else if (eloop.readers.count == 0 && eloop.writers.count == 0 && eloop.exceptions.count == 0) {
    return 1;
  }

  fill_set(eloop.readers, rfds);
  fill_set(eloop.writers, wfds);
  fill_set(eloop.exceptions, efds);
  int max_sock = eloop.max_sock;
  if (terminate_pipe[0] >= 0) {
    FD_SET(terminate_pipe[0], rfds);
    if (terminate_pipe[0] > max_sock)
      max_sock = terminate_pipe[0];
  }
  int res = select(max_sock + 1, rfds, wfds, efds, wait);
  if (res < 0 && errno != EINTR && errno != 0) {
    log_msg(ERROR, "select failed: %s\n", strerror(errno));
    return 1;
  }
  if (terminated)
    return 1;

  if (!timeouts_empty() && loop_clock(&now_sec, &now_usec) == 0) {
    eloop_timeout_entry *t = eloop.timeouts.next;
    if (now_sec > t->sec || (now_sec == t->sec && now_usec >= t->usec)) {
      eloop_timeout_handler handler = t->handler;
      void *eloop_data = t->eloop_data;
      void *user_data = t->user_data;
      unlink_timeout(t);
      free(t);
      handler(eloop_data, user_data);
      run_after_handler();
    }
  }

  if (res <= 0)
    return 0;
  dispatch(eloop.readers, rfds);
  dispatch(eloop.writers, wfds);
  dispatch(eloop.exceptions, efds);
  return 0;
}

}  // namespace

int monotonic_now(int64_t *sec, int64_t *usec) {
  struct timespec ts;
  if (clock_gettime(clock_id, &ts) != 0) {
    if (clock_id != CLOCK_MONOTONIC)
      return -1;
    clock_id = CLOCK_REALTIME;
    if (clock_gettime(clock_id, &ts) != 0)
      return -1;
  }
  *sec = ts.tv_sec;
  *usec = ts.tv_nsec / 1000;
  return 0;
}

void eloop_set_clock(eloop_clock_fn fn) { loop_clock = fn ? fn : monotonic_now; }

int eloop_now(int64_t *sec, int64_t *usec) { return loop_clock(sec, usec); }

void eloop_set_after_handler(void (*hook)()) { after_handler = hook; }

int eloop_enable_terminate() {
  if (terminate_pipe[0] >= 0)
    return 0;
  if (pipe2(terminate_pipe, O_CLOEXEC | O_NONBLOCK) != 0 || terminate_pipe[0] >= FD_SETSIZE) {
    terminate_pipe[0] = terminate_pipe[1] = -1;
    return -1;
  }
  return 0;
}

void eloop_terminate() {
  terminated = 1;
  if (terminate_pipe[1] >= 0) {
    const int saved = errno;
    const char byte = 0;
    (void)!write(terminate_pipe[1], &byte, 1);
    errno = saved;
  }
}

bool eloop_terminated() { return terminated != 0; }

int eloop_terminate_fd() { return terminate_pipe[0]; }

int eloop_init() {
  eloop = eloop_data_t{};
  eloop.timeouts.next = &eloop.timeouts;
  eloop.timeouts.prev = &eloop.timeouts;
  return 0;
}

int eloop_add_sock(int sock, int type, eloop_sock_handler handler, void *eloop_data,
                   void *user_data) {
  eloop_sock_table *table = table_of(type);
  // select() cannot watch a descriptor outside its fixed-size sets.
  if (!table || sock < 0 || sock >= FD_SETSIZE)
    return -1;
  auto *grown = static_cast<eloop_sock_entry *>(
      realloc(table->entries, (table->count + 1) * sizeof(eloop_sock_entry)));
  if (!grown)
    return -1;
  grown[table->count] = eloop_sock_entry{sock, eloop_data, user_data, handler};
  table->entries = grown;
  table->count++;
  if (sock > eloop.max_sock)
    eloop.max_sock = sock;
  table->changed = 1;
  return 0;
}

int eloop_add_reader(int sock, eloop_sock_handler handler, void *eloop_data, void *user_data) {
  return eloop_add_sock(sock, EVENT_TYPE_READ, handler, eloop_data, user_data);
}

void eloop_remove_sock(int sock, int type) {
  eloop_sock_table *table = table_of(type);
  if (!table)
    return;
  int kept = 0;
  for (int i = 0; i < table->count; i++)
    if (table->entries[i].sock != sock)
      table->entries[kept++] = table->entries[i];
  if (kept != table->count)
    table->changed = 1;
  table->count = kept;
}

int eloop_cancel_timeout(eloop_timeout_handler handler, void *eloop_data, void *user_data) {
  int removed = 0;
  for (eloop_timeout_entry *t = eloop.timeouts.next, *next; t != &eloop.timeouts; t = next) {
    next = t->next;
    if (t->handler == handler && t->eloop_data == eloop_data && t->user_data == user_data) {
      unlink_timeout(t);
      free(t);
      removed++;
    }
  }
  return removed;
}

int eloop_add_timeout(unsigned int secs, unsigned int usecs, eloop_timeout_handler handler,
                      void *eloop_data, void *user_data) {
  auto *t = static_cast<eloop_timeout_entry *>(calloc(1, sizeof(eloop_timeout_entry)));
  if (!t)
    return -1;
  int64_t now_sec, now_usec;
  if (loop_clock(&now_sec, &now_usec) != 0) {
    free(t);
    return -1;
  }
  t->sec = now_sec + secs;
  if (t->sec < now_sec) {
    free(t);
    return 0;
  }
  t->usec = now_usec + usecs;
  while (t->usec > 999999) {
    t->sec++;
    t->usec -= 1000000;
  }
  t->eloop_data = eloop_data;
  t->user_data = user_data;
  t->handler = handler;

  eloop_timeout_entry *pos = eloop.timeouts.next;
  while (pos != &eloop.timeouts &&
         !(pos->sec > t->sec || (pos->sec == t->sec && pos->usec > t->usec)))
    pos = pos->next;
  t->next = pos;
  t->prev = pos->prev;
  pos->prev->next = t;
  pos->prev = t;
  return 0;
}

int eloop_run_once() {
  fd_set rfds, wfds, efds;
  return run_pass(&rfds, &wfds, &efds);
}

void eloop_run() {
  auto *rfds = static_cast<fd_set *>(malloc(sizeof(fd_set)));
  auto *wfds = static_cast<fd_set *>(malloc(sizeof(fd_set)));
  auto *efds = static_cast<fd_set *>(malloc(sizeof(fd_set)));
  if (rfds && wfds && efds) {
    while (run_pass(rfds, wfds, efds) == 0) {
    }
  }
  free(rfds);
  free(wfds);
  free(efds);
}

void eloop_destroy() {
  while (!timeouts_empty()) {
    eloop_timeout_entry *t = eloop.timeouts.next;
    unlink_timeout(t);
    free(t);
  }
  free(eloop.readers.entries);
  free(eloop.writers.entries);
  free(eloop.exceptions.entries);
  eloop.readers = eloop_sock_table{};
  eloop.writers = eloop_sock_table{};
  eloop.exceptions = eloop_sock_table{};
}
