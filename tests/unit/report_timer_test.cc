#include "frame/report_timer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "frame/eloop.h"

namespace {

std::vector<std::string> calls;

report_result done_job(void *arg) {
  calls.emplace_back(static_cast<const char *>(arg));
  return report_result::done;
}
report_result retry_job(void *arg) {
  calls.emplace_back(static_cast<const char *>(arg));
  return report_result::retry;
}
report_result running_job(void *arg) {
  calls.emplace_back(static_cast<const char *>(arg));
  return report_result::running;
}

int64_t clock_s;
int fake_clock(int64_t *sec, int64_t *usec) {
  *sec = clock_s;
  *usec = 0;
  return 0;
}

void job(report_timer *t, report_result (*handler)(void *), const char *name, uint32_t period,
         report_order order) {
  report_timer_init(t, handler, period, order);
  t->arg = const_cast<char *>(name);
}

// Ticks every 5 s of the clock; runs are due one period after the run
// before was due, whatever the ticks between did.
TEST(ReportTimer, PeriodsRetriesAndPlacesAcrossTicks) {
  eloop_init();
  clock_s = 1000;
  eloop_set_clock(fake_clock);
  report_timer_start();
  const unsigned first = report_owner_new();
  const unsigned second = report_owner_new();
  report_timer other, records, archive, retry, idle, soon, slow;
  // Added out of their places: the tick runs them by owner, then phase.
  job(&other, done_job, "other", REPORT_COUNTDOWN_SECONDS, {second, report_phase::records});
  job(&records, done_job, "records", REPORT_COUNTDOWN_SECONDS, {first, report_phase::records});
  job(&archive, done_job, "archive", REPORT_COUNTDOWN_SECONDS, {first, report_phase::archive});
  job(&retry, retry_job, "retry", 10, {second, report_phase::records});
  job(&idle, nullptr, "idle", 5, {first, report_phase::archive});
  job(&soon, done_job, "soon", 7, {second, report_phase::archive});
  job(&slow, running_job, "slow", REPORT_COUNTDOWN_SECONDS, {second, report_phase::archive});
  soon.due = 0;
  for (report_timer *t : {&other, &records, &archive, &retry, &idle, &soon, &slow})
    report_timer_add(t);

  std::vector<std::vector<std::string>> per_tick;
  for (int tick = 1; tick <= 120; tick++) {
    calls.clear();
    clock_s += 5;
    // A loop held up for 20 s (ticks 8 to 11 missed) moves nothing later.
    if (tick >= 8 && tick <= 11)
      continue;
    report_timer_tick(&report_timer_list, nullptr);
    per_tick.push_back(calls);
    // The slow job's first run ends 200 s later: not started meanwhile.
    if (tick == 100)
      report_timer_end(&slow, report_result::done);
  }
  per_tick.insert(per_tick.begin() + 7, 4, std::vector<std::string>{"missed"});
  // Due at 0 runs on the first tick, a period of 7 then 7 s after it was
  // due; a retry runs on every tick after its first run.
  EXPECT_EQ(per_tick[0], std::vector<std::string>({"soon"}));
  EXPECT_EQ(per_tick[1], std::vector<std::string>({"soon", "retry"}));
  EXPECT_EQ(per_tick[2], std::vector<std::string>({"soon", "retry"}));
  EXPECT_EQ(per_tick[3], std::vector<std::string>({"retry"}));
  // 300 s: ticks 60 and 120, the first owner's archive before its records.
  EXPECT_EQ(per_tick[59], std::vector<std::string>({"archive", "records", "slow", "other", "retry"}));
  EXPECT_EQ(per_tick[119], std::vector<std::string>({"archive", "records", "slow", "other", "retry"}));
  int archive_runs = 0, slow_runs = 0;
  for (const auto &t : per_tick)
    for (const auto &c : t) {
      archive_runs += c == "archive";
      slow_runs += c == "slow";
    }
  EXPECT_EQ(archive_runs, 2);
  EXPECT_EQ(slow_runs, 2);
  // A job without a handler never runs.
  EXPECT_EQ(idle.due, 5);
  eloop_set_clock(nullptr);
  eloop_destroy();
}

}  // namespace
