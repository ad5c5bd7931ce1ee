// The five-second scheduler tick and its list of periodic jobs. A job's
// record lives inside its owner; adding one allocates nothing.
#pragma once

#include <cstdint>

constexpr unsigned REPORT_TICK_SECONDS = 5;
constexpr uint32_t REPORT_COUNTDOWN_SECONDS = 300;

// What a run of a job says: done until its next period, or to be run
// again on the next tick, five seconds later.
enum class report_result { done, retry };

// A job's place in a tick. Jobs run by owner, in the order their owners
// took a place (report_owner_new), and within an owner by phase; jobs of
// the same place run in the order they were added. An owner's archive runs
// before its periodic records: what those write in a tick goes into the
// next cycle's archive.
enum class report_phase : uint8_t { archive, records };
struct report_order {
  unsigned owner;
  report_phase phase;
};

struct report_timer {
  report_timer *next;
  report_timer *prev;
  report_result (*handler)(void *arg);
  void *arg;
  uint32_t period;  // seconds from a run that is done to the next
  report_order order;
  uint32_t countdown;  // seconds until the next run; kept by the scheduler
};

extern report_timer report_timer_list;

// A place in the tick for a new owner of jobs, after every earlier one.
unsigned report_owner_new();
// Fills a job record, self-linked, ready for report_timer_add; its first
// run is one period away. The handler is called with arg.
void report_timer_init(report_timer *timer, report_result (*handler)(void *), uint32_t period,
                       report_order order, void *arg = nullptr);
// Arms the first tick. Called once, before any job is added.
void report_timer_start();
// Puts a job into the list at its place.
void report_timer_add(report_timer *timer);
// The tick: counts each job down by 5, or runs it when at most 5 remain
// and sets its countdown from what it says; then arms the next tick.
void report_timer_tick(void *eloop_data, void *user_data);
