#include "frame/report_timer.h"

#include "frame/eloop.h"

report_timer report_timer_list = {
    &report_timer_list, &report_timer_list, nullptr, nullptr, 0, {}, 0, false};

namespace {

unsigned owners;
int64_t base_us;  // the loop clock at the scheduler's start
int64_t tick_at;  // seconds from the start to the tick being run, or the last one

// Microseconds since the start; arms the tick at that many seconds.
int64_t elapsed_us() {
  int64_t sec = 0, usec = 0;
  eloop_now(&sec, &usec);
  return sec * 1000000 + usec - base_us;
}

void arm(int64_t at) {
  int64_t us = at * 1000000 - elapsed_us();
  us = us > 0 ? us : 0;
  eloop_add_timeout(static_cast<unsigned>(us / 1000000), static_cast<unsigned>(us % 1000000),
                    report_timer_tick, &report_timer_list, nullptr);
}

}  // namespace

unsigned report_owner_new() { return owners++; }

void report_timer_init(report_timer *timer, report_result (*handler)(void *), uint32_t period,
                       report_order order, void *arg) {
  *timer = report_timer{timer, timer, handler, arg, period, order, period, false};
}

void report_timer_start() {
  base_us = 0;
  base_us = elapsed_us();
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
  while (tick_at + REPORT_TICK_SECONDS <= elapsed_us() / 1000000)
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
