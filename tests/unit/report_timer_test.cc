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

void job(report_timer *t, report_result (*handler)(void *), const char *name, uint32_t period,
         report_order order) {
  report_timer_init(t, handler, period, order);
  t->arg = const_cast<char *>(name);
}

TEST(ReportTimer, PeriodsRetriesAndPlacesAcrossTicks) {
  eloop_init();
  const unsigned first = report_owner_new();
  const unsigned second = report_owner_new();
  report_timer other, records, archive, retry, idle, soon;
  // Added out of their places: the tick runs them by owner, then phase.
  job(&other, done_job, "other", REPORT_COUNTDOWN_SECONDS, {second, report_phase::records});
  job(&records, done_job, "records", REPORT_COUNTDOWN_SECONDS, {first, report_phase::records});
  job(&archive, done_job, "archive", REPORT_COUNTDOWN_SECONDS, {first, report_phase::archive});
  job(&retry, retry_job, "retry", 10, {second, report_phase::records});
  job(&idle, nullptr, "idle", 5, {first, report_phase::archive});
  job(&soon, done_job, "soon", 7, {second, report_phase::archive});
  soon.countdown = 0;
  for (report_timer *t : {&other, &records, &archive, &retry, &idle, &soon})
    report_timer_add(t);

  std::vector<std::vector<std::string>> per_tick;
  for (int tick = 1; tick <= 120; tick++) {
    calls.clear();
    report_timer_tick(&report_timer_list, nullptr);
    per_tick.push_back(calls);
  }
  // Countdown 0 runs on the first tick, a period of 7 then on the second
  // tick after; a retry runs on every tick after its first run.
  EXPECT_EQ(per_tick[0], std::vector<std::string>({"soon"}));
  EXPECT_EQ(per_tick[1], std::vector<std::string>({"retry"}));
  EXPECT_EQ(per_tick[2], std::vector<std::string>({"soon", "retry"}));
  // 300 s: ticks 60 and 120, the first owner's archive before its records.
  EXPECT_EQ(per_tick[59], std::vector<std::string>({"archive", "records", "other", "retry"}));
  EXPECT_EQ(per_tick[119], per_tick[59]);
  int archive_runs = 0;
  for (const auto &t : per_tick)
    for (const auto &c : t)
      archive_runs += c == "archive";
  EXPECT_EQ(archive_runs, 2);
  // A job without a handler is never counted down.
  EXPECT_EQ(idle.countdown, 5u);
  eloop_destroy();
}

}  // namespace
