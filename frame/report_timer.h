// The five-second scheduler tick and its list of periodic jobs. A job's
// record lives inside its owner; adding one allocates nothing.
#pragma once

#include <cstdint>

constexpr unsigned REPORT_TICK_SECONDS = 5;
constexpr uint32_t REPORT_COUNTDOWN_SECONDS = 300;

// What a run of a job says: done until its next period, to be run again on
// the next tick, or running beside the loop (commands), to be ended with
// report_timer_end.
enum class report_result { done, retry, running };

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
  uint32_t period;  // seconds from one run to the next
  report_order order;
  int64_t due;   // when it runs next, in seconds of the scheduler's clock
  bool running;  // a run has not ended yet: it is not started again
};

extern report_timer report_timer_list;

// A place in the tick for a new owner of jobs, after every earlier one.
unsigned report_owner_new();
// Fills a job record, self-linked, ready for report_timer_add; its first
// run is one period after the scheduler's start. The handler is called
// with arg.
void report_timer_init(report_timer *timer, report_result (*handler)(void *), uint32_t period,
                       report_order order, void *arg = nullptr);
// Starts the scheduler's clock and arms the first tick. Called once,
// before any job is added.
void report_timer_start();
// Puts a job into the list at its place.
void report_timer_add(report_timer *timer);
// The tick, every 5 s of the loop's monotonic clock: runs each job that is
// due and not running. Ticks keep time: a late one does not move later
// ones, and runs are due on the clock, one period after the run before was
// due, however long that run took.
void report_timer_tick(void *eloop_data, void *user_data);
// Ends a run that said running.
void report_timer_end(report_timer *timer, report_result result);
