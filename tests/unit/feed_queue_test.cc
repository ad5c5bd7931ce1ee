#include "frame/feed_queue.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <string>
#include <thread>
#include <vector>

#include "frame/command.h"
#include "frame/log.h"
#include "tests/unit/test_support.h"

namespace {

ssize_t plain_receive(int fd, uint8_t *buf, size_t cap) { return recv(fd, buf, cap, MSG_DONTWAIT); }

struct handled_msg {
  int feed;
  std::string text;
};
std::vector<handled_msg> handled;
unsigned handle_delay_us;

template <int Feed>
bool record(const uint8_t *data, size_t len) {
  handled.push_back({Feed, std::string(reinterpret_cast<const char *>(data), len)});
  if (handle_delay_us)
    std::this_thread::sleep_for(std::chrono::microseconds(handle_delay_us));
  return len != 0;  // an empty message counts as refused
}

// A datagram socket pair: the daemon's end and the sender's.
struct feed_pair {
  int ours = -1, theirs = -1;
  feed_pair() {
    int fds[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, fds), 0);
    ours = fds[0];
    theirs = fds[1];
  }
  ~feed_pair() {
    close(ours);
    close(theirs);
  }
};

template <int Feed>
int add_feed(const char *name, int fd, size_t max_len) {
  return feed_queue_add_source(
      feed_source_desc{name, fd, max_len, false, plain_receive, record<Feed>, nullptr});
}

// Message i: its number, padded to size bytes.
std::string message(int i, size_t size) {
  std::string m = std::to_string(i);
  m.resize(size, '.');
  return m;
}

// Serves the feeds as the loop would until want messages were handled or
// a few seconds pass.
void serve_until(size_t want, std::initializer_list<int> feeds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (handled.size() < want && std::chrono::steady_clock::now() < deadline) {
    feed_queue_drain();
    for (int f : feeds)
      feed_queue_serve(f);
  }
}

void expect_in_order(int feed, size_t count, size_t size) {
  size_t k = 0;
  for (const handled_msg &h : handled) {
    if (h.feed == feed && k < count) {
      EXPECT_EQ(h.text, message(static_cast<int>(k), size)) << "feed " << feed;
      k++;
    }
  }
  EXPECT_EQ(k, count) << "feed " << feed;
}

class FeedQueue : public ::testing::Test {
 protected:
  void SetUp() override {
    feed_queue_reset();
    handled.clear();
    handle_delay_us = 0;
  }
  void TearDown() override { feed_queue_reset(); }
};

// While a command runs each feed is read only up to its share; the rest
// waits in the kernel, where a blocking sender waits and a non-blocking
// one is refused. Everything that was read is handled, in order.
TEST_F(FeedQueue, ShareBoundsWhatIsReadAndNothingReadIsLost) {
  feed_pair a, b;
  const size_t size = 1000;
  ASSERT_EQ(add_feed<0>("a", a.ours, size), 0);
  ASSERT_EQ(add_feed<1>("b", b.ours, size), 1);
  const int total = static_cast<int>(2 * FEED_SHARE_BYTES / size);
  std::atomic<int> blocking_sent{0};
  std::atomic<bool> stop{false};
  int accepted = 0, refused = 0;
  std::thread blocking([&] {
    for (int i = 0; i < total; i++, blocking_sent++)
      ASSERT_EQ(send(a.theirs, message(i, size).data(), size, 0), static_cast<ssize_t>(size));
  });
  std::thread nonblocking([&] {
    while (!stop) {
      const std::string m = message(accepted, size);
      if (send(b.theirs, m.data(), size, MSG_DONTWAIT) == static_cast<ssize_t>(size))
        accepted++;
      else if (errno == EAGAIN)
        refused++;
    }
  });
  EXPECT_EQ(command_system("sleep 0.5"), 0);
  stop = true;
  nonblocking.join();
  EXPECT_TRUE(handled.empty());  // nothing is handled while the command runs
  EXPECT_LT(blocking_sent.load(), total);
  EXPECT_GT(refused, 0);
  for (int f : {0, 1})
    EXPECT_LE(feed_queue_counters(f).queue_peak_bytes, FEED_SHARE_BYTES);

  serve_until(static_cast<size_t>(total + accepted), {0, 1});
  blocking.join();
  expect_in_order(0, total, size);
  expect_in_order(1, accepted, size);
  EXPECT_EQ(handled.size(), static_cast<size_t>(total + accepted));
  for (int f : {0, 1}) {
    EXPECT_EQ(feed_queue_counters(f).received, feed_queue_counters(f).handled);
    EXPECT_GE(feed_queue_counters(f).deferred, 1u);
  }
}

// A flood on one feed neither keeps the other out of the queue nor ahead
// of it: the backlog is handled one message from each feed in turn.
TEST_F(FeedQueue, FeedsHaveTheirOwnSharesAndAreServedInTurn) {
  feed_pair flood, calm;
  ASSERT_EQ(add_feed<0>("flood", flood.ours, 500), 0);
  ASSERT_EQ(add_feed<1>("calm", calm.ours, 500), 1);
  std::atomic<bool> stop{false};
  std::thread flooder([&] {
    for (int i = 0; !stop; i++)
      send(flood.theirs, message(i, 500).data(), 500, MSG_DONTWAIT);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(10));
  std::thread calm_sender([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    for (int i = 0; i < 20; i++)
      ASSERT_EQ(send(calm.theirs, message(i, 500).data(), 500, 0), 500);
  });
  EXPECT_EQ(command_system("sleep 0.5"), 0);
  stop = true;
  flooder.join();
  calm_sender.join();
  ASSERT_GE(feed_queue_counters(0).queue_peak_bytes + 4 + 500, FEED_SHARE_BYTES);
  feed_queue_drain();
  ASSERT_GE(handled.size(), 40u);
  for (size_t k = 0; k < 40; k++)
    EXPECT_EQ(handled[k].feed, static_cast<int>(k % 2)) << k;
  expect_in_order(1, 20, 500);
}

// A sender faster than the handling keeps the socket full; the backlog is
// still handled to its end, reading less than it handles, so that the loop
// gets back to its timers and the normal path.
TEST_F(FeedQueue, BacklogEndsWhileASenderKeepsSending) {
  feed_pair a;
  const size_t size = 100;
  ASSERT_EQ(add_feed<0>("a", a.ours, size), 0);
  const int total = 20000;
  std::atomic<int> sent{0};
  std::thread sender([&] {
    for (int i = 0; i < total; i++, sent++)
      ASSERT_EQ(send(a.theirs, message(i, size).data(), size, 0), static_cast<ssize_t>(size));
  });
  EXPECT_EQ(command_system("sleep 0.2"), 0);
  handle_delay_us = 20;
  feed_queue_drain();
  EXPECT_TRUE(feed_queue_empty());
  EXPECT_LT(handled.size(), static_cast<size_t>(total));
  EXPECT_LT(sent.load(), total);
  handle_delay_us = 0;
  serve_until(total, {0});
  sender.join();
  expect_in_order(0, total, size);
}

// A scripted socket: each receive takes the next step.
struct step {
  ssize_t ret;
  int err;
  std::string data;
};
std::deque<step> script;
ssize_t scripted_receive(int, uint8_t *buf, size_t cap) {
  if (script.empty()) {
    errno = EAGAIN;
    return -1;
  }
  step s = script.front();
  script.pop_front();
  errno = s.err;
  if (s.ret < 0)
    return -1;
  memcpy(buf, s.data.data(), std::min(cap, s.data.size()));
  return s.ret;
}
std::vector<std::string> failures;
void record_failure(int ret, int, int err) {
  failures.push_back(std::to_string(ret) + "/" + strerror(err));
  handled.push_back({0, "failure"});
}

// A failed receive is consumed by the read that sees it (a netlink overrun
// is reported once): one read into the queue is reported in its turn.
// Overruns are counted, and reported at most once per tick.
TEST_F(FeedQueue, FailuresKeepTheirPlaceAndOverrunsAreReported) {
  feed_pair idle;
  ASSERT_EQ(feed_queue_add_source(feed_source_desc{"http", idle.ours, 100, true, scripted_receive,
                                                   record<0>, record_failure}),
            0);
  script = {{5, 0, "first"}, {-1, ENOBUFS, ""}};
  feed_queue_pull(0);
  script = {{0, 0, ""}};
  feed_queue_pull(0);
  EXPECT_TRUE(handled.empty());
  feed_queue_drain();
  ASSERT_EQ(handled.size(), 3u);
  EXPECT_EQ(handled[0].text, "first");
  EXPECT_EQ(failures, std::vector<std::string>({"-1/" + std::string(strerror(ENOBUFS)),
                                                "0/" + std::string(strerror(0))}));
  script = {{-1, ENOBUFS, ""}, {6, 0, "unread"}};
  feed_queue_serve(0);
  EXPECT_EQ(failures.size(), 3u);
  EXPECT_EQ(handled.size(), 4u);
  EXPECT_EQ(feed_queue_counters(0).overruns, 2u);
  EXPECT_EQ(feed_queue_counters(0).received, 1u);

  debug_mode_on();
  output_capture err(STDERR_FILENO);
  feed_queue_report();
  feed_queue_report();  // nothing new: no line
  const std::string text = err.text();
  EXPECT_NE(text.find("WARN:feeds behind since the last report: http 0 deferred, 2 overruns\n"),
            std::string::npos)
      << text;
  EXPECT_EQ(text.find("WARN", text.find("WARN") + 1), std::string::npos) << text;
}

// A handler that runs a command lets the command's wait read the feed into
// the queue. What was queued is older than what is still in the socket:
// the read callback stops and the queue is handled first.
int pulling_feed = -1;
int late_sender = -1;
bool pull_then_send(const uint8_t *data, size_t len) {
  record<0>(data, len);
  if (handled.size() == 1) {
    feed_queue_pull(pulling_feed);  // a command runs: 1 and 2 are queued
    EXPECT_EQ(send(late_sender, "3", 1, 0), 1);
  }
  return true;
}

TEST_F(FeedQueue, QueuedInputGoesBeforeNewerInputOfTheSocket) {
  feed_pair p;
  late_sender = p.theirs;
  pulling_feed = feed_queue_add_source(
      feed_source_desc{"shell", p.ours, 16, false, plain_receive, pull_then_send, nullptr});
  for (const char *m : {"0", "1", "2"})
    ASSERT_EQ(send(p.theirs, m, 1, 0), 1);
  serve_until(4, {pulling_feed});
  ASSERT_EQ(handled.size(), 4u);
  for (size_t i = 0; i < handled.size(); i++)
    EXPECT_EQ(handled[i].text, std::to_string(i));
}

}  // namespace
