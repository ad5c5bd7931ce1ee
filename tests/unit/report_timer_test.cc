#include "frame/report_timer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "frame/eloop.h"

namespace {

std::vector<std::string> calls;
report_timer a, b, lazy, idle, zero;

void on_a(void *) {
  calls.push_back("a");
  a.countdown = REPORT_COUNTDOWN_SECONDS;
}
void on_b(void *) {
  calls.push_back("b");
  b.countdown = REPORT_COUNTDOWN_SECONDS;
}
// Never resets its countdown.
void on_lazy(void *) { calls.push_back("lazy"); }
void on_zero(void *) {
  calls.push_back("zero");
  zero.countdown = 7;
}

TEST(ReportTimer, CountdownRuleAcrossTicks) {
  eloop_init();
  report_timer_init(&a, on_a, REPORT_COUNTDOWN_SECONDS);
  report_timer_init(&b, on_b, REPORT_COUNTDOWN_SECONDS);
  report_timer_init(&lazy, on_lazy, 10);
  report_timer_init(&idle, nullptr, 5);
  report_timer_init(&zero, on_zero, 0);
  for (report_timer *t : {&a, &b, &lazy, &idle, &zero})
    report_timer_add(t);

  std::vector<std::vector<std::string>> per_tick;
  for (int tick = 1; tick <= 120; tick++) {
    calls.clear();
    report_timer_tick(&report_timer_list, nullptr);
    per_tick.push_back(calls);
  }
  // Countdown 0 runs on the first tick; 7 then runs on the second after.
  EXPECT_EQ(per_tick[0], std::vector<std::string>({"zero"}));
  EXPECT_EQ(per_tick[1], std::vector<std::string>({"lazy"}));
  EXPECT_EQ(per_tick[2], std::vector<std::string>({"lazy", "zero"}));
  // 300 s: ticks 60 and 120, in list order.
  EXPECT_EQ(per_tick[59].front(), "a");
  EXPECT_EQ(per_tick[59][1], "b");
  EXPECT_EQ(per_tick[119][0], "a");
  int a_runs = 0;
  for (const auto &t : per_tick)
    for (const auto &c : t)
      a_runs += c == "a";
  EXPECT_EQ(a_runs, 2);
  // The null handler is never counted down.
  EXPECT_EQ(idle.countdown, 5u);
  // A handler that does not reset runs on every later tick.
  EXPECT_EQ(per_tick[100][0], "lazy");
  eloop_destroy();
}

}  // namespace
