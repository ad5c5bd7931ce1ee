#include "frame/report_timer.h"

#include "frame/eloop.h"

report_timer report_timer_list = {
    &report_timer_list, &report_timer_list, nullptr, nullptr, 0, {}, 0, false};

namespace {

unsigned owners;
int64_t base_sec, base_usec;  // the loop clock at the scheduler's start
int64_t tick_at;  // seconds from the start to the tick being run, or the last one

// Seconds and microseconds from now to at seconds after the start
// (negative when past). No 64-bit division: routers are 32-bit too.
int64_t until(int64_t at, int64_t *usec) {
  int64_t sec = 0, us = 0;
  eloop_now(&sec, &us);
  sec = base_sec + at - sec;
  *usec = base_usec - us;
  if (*usec < 0) {
    *usec += 1000000;
    sec--;
  }
  return sec;
}

void arm(int64_t at) {
  int64_t usec;
  const int64_t sec = until(at, &usec);
  eloop_add_timeout(sec < 0 ? 0 : static_cast<unsigned>(sec), sec < 0 ? 0 : static_cast<unsigned>(usec),
                    report_timer_tick, &report_timer_list, nullptr);
}

}  // namespace

unsigned report_owner_new() { return owners++; }

void report_timer_init(report_timer *timer, report_result (*handler)(void *), uint32_t period,
                       report_order order, void *arg) {
  *timer = report_timer{timer, timer, handler, arg, period, order, period, false};
}

void report_timer_start() {
  eloop_now(&base_sec, &base_usec);
  tick_at = 0;
  arm(REPORT_TICK_SECONDS);
}

void report_timer_add(report_timer *timer) {
  report_timer *pos = &report_timer_list;  // insert before pos
  while (pos->prev != &report_timer_list &&
         (timer->order.owner < pos->prev->order.owner ||
          (timer->order.owner == pos->prev->order.owner && timer->order.phase < pos->prev->order.phase)))
    pos = pos->prev;
  timer->next = pos;
  timer->prev = pos->prev;
  pos->prev->next = timer;
  pos->prev = timer;
}

void report_timer_tick(void *eloop_data, void *) {
  auto *head = static_cast<report_timer *>(eloop_data);
  // Ticks missed while the loop was held are not made up for: this one
  // stands for the last that was due.
  tick_at += REPORT_TICK_SECONDS;
  for (int64_t usec, sec; (sec = until(tick_at + REPORT_TICK_SECONDS, &usec)) < 0 || (sec == 0 && usec == 0);)
    tick_at += REPORT_TICK_SECONDS;
  for (report_timer *t = head->next; t != head; t = t->next) {
    if (!t->handler || t->running || t->due > tick_at)
      continue;
    t->running = true;
    const report_result result = t->handler(t->arg);
    if (result != report_result::running)
      report_timer_end(t, result);
  }
  arm(tick_at + REPORT_TICK_SECONDS);
}

void report_timer_end(report_timer *timer, report_result result) {
  timer->running = false;
  timer->due = result == report_result::done ? timer->due + timer->period : tick_at + REPORT_TICK_SECONDS;
}
