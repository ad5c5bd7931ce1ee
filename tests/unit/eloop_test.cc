#include "frame/eloop.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

// A clock the test moves by hand.
int64_t fake_sec, fake_usec;
int fake_clock(int64_t *sec, int64_t *usec) {
  *sec = fake_sec;
  *usec = fake_usec;
  return 0;
}

std::vector<std::string> calls;

void record(void *eloop_data, void *) { calls.emplace_back(static_cast<const char *>(eloop_data)); }

class EloopTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fake_sec = 1000;
    fake_usec = 0;
    calls.clear();
    eloop_set_clock(fake_clock);
    eloop_init();
  }
  void TearDown() override {
    eloop_destroy();
    eloop_set_clock(nullptr);
  }
};

// Equal expiries run in registration order, one timeout per pass; a
// microsecond argument carries into seconds; a cancelled timeout never runs;
// destroy frees what is pending without calling it (a leak shows under ASan).
TEST_F(EloopTest, TimeoutsRunOnePerPassInOrderOfExpiry) {
  fake_usec = 600000;
  eloop_add_timeout(1, 0, record, const_cast<char *>("a"), nullptr);
  eloop_add_timeout(1, 0, record, const_cast<char *>("b"), nullptr);
  eloop_add_timeout(0, 2500000, record, const_cast<char *>("carried"), nullptr);  // 1003.100000
  eloop_add_timeout(0, 500000, record, const_cast<char *>("early"), nullptr);
  eloop_add_timeout(0, 0, record, const_cast<char *>("cancelled"), nullptr);
  EXPECT_EQ(eloop_cancel_timeout(record, const_cast<char *>("cancelled"), nullptr), 1);
  fake_sec = 1003;
  fake_usec = 99999;
  for (int i = 0; i < 4; i++)
    EXPECT_EQ(eloop_run_once(), 0);
  EXPECT_EQ(calls, std::vector<std::string>({"early", "a", "b"}));
  fake_usec = 100000;
  eloop_run_once();
  EXPECT_EQ(calls.back(), "carried");
  EXPECT_EQ(eloop_run_once(), 1);  // nothing left: the loop ends
  eloop_add_timeout(5, 0, record, const_cast<char *>("pending"), nullptr);
  eloop_destroy();
  EXPECT_EQ(calls.size(), 4u);
  eloop_init();
}

int pair_fds[3][2];

void read_added(int, void *, void *) { calls.push_back("added"); }

void read_and_add(int sock, void *, void *) {
  char c;
  ASSERT_EQ(read(sock, &c, 1), 1);
  calls.push_back("first");
  // Adding to the table being dispatched stops its dispatch for this pass.
  eloop_add_reader(pair_fds[2][0], read_added, nullptr, nullptr);
}

void read_second(int sock, void *, void *) {
  char c;
  ASSERT_EQ(read(sock, &c, 1), 1);
  calls.push_back("second");
}

// Adding to or removing from the table being dispatched ends its dispatch
// for the pass; descriptors select() cannot watch are refused.
TEST_F(EloopTest, ChangedTableStopsDispatchUntilNextPass) {
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair_fds[0]), 0);
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair_fds[1]), 0);
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair_fds[2]), 0);
  ASSERT_EQ(eloop_add_reader(pair_fds[0][0], read_and_add, nullptr, nullptr), 0);
  ASSERT_EQ(eloop_add_reader(pair_fds[1][0], read_second, nullptr, nullptr), 0);
  ASSERT_EQ(write(pair_fds[0][1], "x", 1), 1);
  ASSERT_EQ(write(pair_fds[1][1], "y", 1), 1);
  eloop_run_once();
  EXPECT_EQ(calls, std::vector<std::string>({"first"}));
  eloop_run_once();
  EXPECT_EQ(calls, std::vector<std::string>({"first", "second"}));
  eloop_remove_sock(pair_fds[1][0], EVENT_TYPE_READ);
  ASSERT_EQ(write(pair_fds[1][1], "z", 1), 1);
  ASSERT_EQ(write(pair_fds[2][1], "w", 1), 1);
  eloop_run_once();
  EXPECT_EQ(calls, std::vector<std::string>({"first", "second", "added"}));
  for (auto &p : pair_fds) {
    close(p[0]);
    close(p[1]);
  }
  EXPECT_EQ(eloop_add_sock(3, 3, read_second, nullptr, nullptr), -1);
  EXPECT_EQ(eloop_add_sock(1024, 0, read_second, nullptr, nullptr), -1);
  EXPECT_EQ(eloop_add_sock(-1, 0, read_second, nullptr, nullptr), -1);
  EXPECT_EQ(eloop_add_sock(1023, 0, read_second, nullptr, nullptr), 0);
}

}  // namespace
