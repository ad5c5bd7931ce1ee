#include "frame/feed.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "frame/eloop.h"
#include "frame/log.h"

namespace {

std::vector<std::string> handled;
size_t yield_after;  // 0: never

bool record(const uint8_t *data, size_t len) {
  handled.emplace_back(reinterpret_cast<const char *>(data), len);
  return len != 0;  // an empty message counts as refused
}
bool yield() { return yield_after && handled.size() % yield_after == 0; }

// Fails with ENOBUFS once, as a netlink socket reports an overrun.
int overrun_next;
std::vector<int> failures;
ssize_t receive(int fd, uint8_t *buf, size_t cap) {
  if (overrun_next && --overrun_next == 0) {
    errno = ENOBUFS;
    return -1;
  }
  return recv(fd, buf, cap, MSG_DONTWAIT);
}
void fail(int, int, int err) { failures.push_back(err); }

struct Feed : ::testing::Test {
  int fds[2];
  void SetUp() override {
    eloop_init();
    feed_reset();
    handled.clear();
    failures.clear();
    yield_after = 0;
    overrun_next = 0;
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, fds), 0);
    ASSERT_EQ(feed_add_source({"f", fds[0], 100, false, receive, record, fail}), 0);
    feed_set_yield(yield);
  }
  void TearDown() override {
    feed_reset();
    close(fds[0]);
    close(fds[1]);
    eloop_destroy();
  }
  // Sends without waiting until the kernel refuses: how many it took.
  int fill(int from) {
    int n = from;
    while (send(fds[1], std::to_string(n).data(), std::to_string(n).size(), MSG_DONTWAIT) > 0)
      n++;
    EXPECT_EQ(errno, EAGAIN);
    return n - from;
  }
  // Loop passes while they handle something (a timeout keeps the wait short).
  void run_passes() {
    for (size_t before = ~size_t{0}; before != handled.size();) {
      before = handled.size();
      eloop_add_timeout(0, 1000, [](void *, void *) {}, nullptr, nullptr);
      eloop_run_once();
      eloop_run_once();
    }
  }
};

// What the loop reads is handled at once and in order, a batch per wake
// (cut short when a handler made something due); empty messages are
// refused, overruns counted and reported in their place.
TEST_F(Feed, ServedInOrderInBatchesWithFailuresInTheirPlace) {
  const int sent = fill(0);
  ASSERT_GT(sent, 3);
  yield_after = 2;
  feed_serve(0);
  EXPECT_EQ(handled.size(), 2u);
  yield_after = 0;
  ASSERT_EQ(send(fds[1], "", 0, 0), 0);
  overrun_next = 3;
  feed_serve(0);  // two more, then the overrun ends the batch
  EXPECT_EQ(failures, std::vector<int>({ENOBUFS}));
  run_passes();
  ASSERT_EQ(handled.size(), static_cast<size_t>(sent) + 1);
  for (int i = 0; i < sent; i++)
    EXPECT_EQ(handled[i], std::to_string(i));
  const feed_counters &c = feed_counters_of(0);
  EXPECT_EQ(c.received, static_cast<uint64_t>(sent) + 1);
  EXPECT_EQ(c.refused, 1u);
  EXPECT_EQ(c.overruns, 1u);
}

// Held, a feed is not read: its input waits in the kernel, which refuses
// a non-blocking sender once full; let go, every message is handled once.
// A stop takes what waits.
TEST_F(Feed, HeldInputWaitsInTheKernelAndNothingIsLost) {
  debug_mode_on();
  feed_hold(true);
  feed_hold(true);
  const int sent = fill(0);
  run_passes();
  EXPECT_TRUE(handled.empty());
  ::testing::internal::CaptureStderr();
  feed_report();
  EXPECT_NE(::testing::internal::GetCapturedStderr().find(
                "WARN:feeds behind since the last report: f 1 deferred, 0 overruns\n"),
            std::string::npos);
  feed_hold(false);
  run_passes();
  ASSERT_EQ(handled.size(), static_cast<size_t>(sent));
  const int more = fill(sent);
  feed_take_all();
  feed_close_sources();
  ASSERT_EQ(handled.size(), static_cast<size_t>(sent + more));
  EXPECT_EQ(handled.back(), std::to_string(sent + more - 1));
  fds[0] = dup(fds[1]);  // closed by the feed: TearDown closes this one
}

}  // namespace
