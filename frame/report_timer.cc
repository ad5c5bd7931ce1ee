#include "frame/report_timer.h"

#include "frame/eloop.h"

report_timer report_timer_list = {&report_timer_list, &report_timer_list, nullptr, nullptr, 0};

void report_timer_init(report_timer *timer, void (*handler)(void *), uint32_t countdown) {
  timer->next = timer;
  timer->prev = timer;
  timer->handler = handler;
  timer->arg = nullptr;
  timer->countdown = countdown;
}

void report_timer_start() {
  eloop_add_timeout(REPORT_TICK_SECONDS, 0, report_timer_tick, &report_timer_list, nullptr);
}

void report_timer_add(report_timer *timer) {
  report_timer *head = &report_timer_list;
  timer->next = head;
  timer->prev = head->prev;
  head->prev->next = timer;
  head->prev = timer;
}

void report_timer_tick(void *eloop_data, void *) {
  auto *head = static_cast<report_timer *>(eloop_data);
  for (report_timer *t = head->next; t != head; t = t->next) {
    if (!t->handler)
      continue;
    if (t->countdown > REPORT_TICK_SECONDS)
      t->countdown -= REPORT_TICK_SECONDS;
    else
      t->handler(t->arg);
  }
  eloop_add_timeout(REPORT_TICK_SECONDS, 0, report_timer_tick, head, nullptr);
}
