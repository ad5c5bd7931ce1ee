// The five-second scheduler tick and its list of periodic jobs. A job's
// record lives inside its owner; adding one allocates nothing.
#pragma once

#include <cstdint>

constexpr unsigned REPORT_TICK_SECONDS = 5;
constexpr uint32_t REPORT_COUNTDOWN_SECONDS = 300;

struct report_timer {
  report_timer *next;
  report_timer *prev;
  void (*handler)(void *arg);
  void *arg;
  // Seconds until the handler is due; the handler sets it again on each run.
  uint32_t countdown;
};

extern report_timer report_timer_list;

// Fills a job record, self-linked, ready for report_timer_add.
void report_timer_init(report_timer *timer, void (*handler)(void *), uint32_t countdown);
// Arms the first tick. Called once, before any job is added.
void report_timer_start();
// Appends a job at the end of the list.
void report_timer_add(report_timer *timer);
// The tick: counts each job down by 5 or calls it when at most 5 remain,
// then arms the next tick.
void report_timer_tick(void *eloop_data, void *user_data);
