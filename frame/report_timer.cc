#include "frame/report_timer.h"

#include "frame/eloop.h"

report_timer report_timer_list = {
    &report_timer_list, &report_timer_list, nullptr, nullptr, 0, {}, 0};

namespace {

unsigned owners;

bool runs_before(const report_order &a, const report_order &b) {
  return a.owner < b.owner || (a.owner == b.owner && a.phase < b.phase);
}

}  // namespace

unsigned report_owner_new() { return owners++; }

void report_timer_init(report_timer *timer, report_result (*handler)(void *), uint32_t period,
                       report_order order, void *arg) {
  timer->next = timer;
  timer->prev = timer;
  timer->handler = handler;
  timer->arg = arg;
  timer->period = period;
  timer->order = order;
  timer->countdown = period;
}

void report_timer_start() {
  eloop_add_timeout(REPORT_TICK_SECONDS, 0, report_timer_tick, &report_timer_list, nullptr);
}

void report_timer_add(report_timer *timer) {
  report_timer *head = &report_timer_list;
  report_timer *pos = head;  // insert before pos
  while (pos->prev != head && runs_before(timer->order, pos->prev->order))
    pos = pos->prev;
  timer->next = pos;
  timer->prev = pos->prev;
  pos->prev->next = timer;
  pos->prev = timer;
}

void report_timer_tick(void *eloop_data, void *) {
  auto *head = static_cast<report_timer *>(eloop_data);
  for (report_timer *t = head->next; t != head; t = t->next) {
    if (!t->handler)
      continue;
    if (t->countdown > REPORT_TICK_SECONDS) {
      t->countdown -= REPORT_TICK_SECONDS;
      continue;
    }
    const report_result result = t->handler(t->arg);
    t->countdown = result == report_result::done ? t->period : REPORT_TICK_SECONDS;
  }
  eloop_add_timeout(REPORT_TICK_SECONDS, 0, report_timer_tick, head, nullptr);
}
