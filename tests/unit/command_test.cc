#include "frame/command.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "frame/feed_queue.h"
#include "frame/log.h"

namespace {

TEST(Command, StatusAndOutputAsSystemAndPopen) {
  EXPECT_EQ(command_system("exit 3"), 3 << 8);
  EXPECT_EQ(command_system("true"), 0);
  std::string out;
  EXPECT_EQ(command_read("printf 'a b\\nc'; exit 1", &out, 100), 1 << 8);
  EXPECT_EQ(out, "a b\nc");
  // Output past the bound is read and thrown away.
  EXPECT_EQ(command_read("head -c 5000 /dev/zero | tr '\\0' x", &out, 1023), 0);
  EXPECT_EQ(out, std::string(1023, 'x'));
  // A command that is not found is started all the same, as by popen.
  EXPECT_EQ(command_read("no_such_command_qz 2>/dev/null", &out, 100), 127 << 8);
  EXPECT_EQ(out, "");
}

// True once the process is gone (or a zombie: dead, not yet reaped).
bool gone(pid_t pid) {
  for (int i = 0; i < 500; i++) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    if (!std::getline(stat, text) || text.substr(text.rfind(')') + 2, 1) == "Z")
      return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

pid_t read_pid(const char *path) {
  std::ifstream f(path);
  pid_t pid = 0;
  f >> pid;
  return pid;
}

// Commands that never end are killed at their limits (here a second lasts
// 5 ms) with what they started, and count as not run.
TEST(Command, NeverEndingCommandsAreKilledWithTheirProcessGroups) {
  command_set_limit_second_ms(5);
  debug_mode_on();
  ::testing::internal::CaptureStderr();
  std::string out;
  EXPECT_EQ(command_read("printf cut; sleep 1000 & echo $! >/tmp/sleeper; wait", &out, 100), -1);
  EXPECT_EQ(out, "");  // what it printed may be cut anywhere
  const pid_t sleeper = read_pid("/tmp/sleeper");
  ASSERT_GT(sleeper, 0);
  EXPECT_TRUE(gone(sleeper));
  EXPECT_EQ(command_system("cd /tmp;sleep 1000 >/dev/null", COMMAND_LIMIT_TRANSFER), -1);
  const std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("WARN:printf still running after 10 s: killed with its process group\n"),
            std::string::npos)
      << err;
  EXPECT_NE(err.find("WARN:sleep still running after 120 s: killed with its process group\n"),
            std::string::npos)
      << err;
  command_set_limit_second_ms(0);
}

std::vector<std::string> processed;
void record(const uint8_t *data, size_t len) {
  processed.emplace_back(reinterpret_cast<const char *>(data), len);
}

TEST(Command, FeedsAreQueuedWhileACommandRunsAndHandledInOrderLater) {
  feed_queue_reset();
  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, fds), 0);
  ASSERT_EQ(feed_queue_add_source(fds[0], 260, record, nullptr), 0);
  // More than the kernel would queue for an unread datagram socket.
  std::thread sender([&] {
    for (int i = 0; i < 300; i++) {
      std::string msg = "event " + std::to_string(i);
      ASSERT_EQ(send(fds[1], msg.data(), msg.size(), 0), static_cast<ssize_t>(msg.size()));
    }
  });
  EXPECT_EQ(command_system("sleep 0.5"), 0);
  sender.join();
  EXPECT_TRUE(processed.empty());  // nothing is handled while the command runs
  // What arrives while the backlog is handled is taken in behind it.
  for (int i = 300; i < 305; i++) {
    std::string msg = "event " + std::to_string(i);
    ASSERT_EQ(send(fds[1], msg.data(), msg.size(), 0), static_cast<ssize_t>(msg.size()));
  }
  feed_queue_drain();
  ASSERT_EQ(processed.size(), 305u);
  for (int i = 0; i < 305; i++)
    EXPECT_EQ(processed[i], "event " + std::to_string(i));
  EXPECT_EQ(feed_queue_take_dropped(), 0u);
  close(fds[0]);
  close(fds[1]);
}

TEST(Command, QueueBoundDropsAndCountsTheRest) {
  feed_queue_reset();
  processed.clear();
  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, fds), 0);
  ASSERT_EQ(feed_queue_add_source(fds[0], 4000, record, nullptr), 0);
  const int total = FEED_QUEUE_MAX_BYTES / 4000 + 100;
  std::thread sender([&] {
    std::string msg(4000, 'm');
    for (int i = 0; i < total; i++)
      ASSERT_EQ(send(fds[1], msg.data(), msg.size(), 0), 4000);
  });
  command_system("sleep 1");
  sender.join();
  feed_queue_pull(0);
  feed_queue_drain();
  const size_t dropped = feed_queue_take_dropped();
  EXPECT_GT(dropped, 0u);
  EXPECT_EQ(processed.size() + dropped, static_cast<size_t>(total));
  EXPECT_EQ(feed_queue_take_dropped(), 0u);
  close(fds[0]);
  close(fds[1]);
}

std::vector<int> failures;
void record_failure(int, int err) { failures.push_back(err); }

// A receive error is consumed by the read that sees it (as a netlink
// overrun is): one seen while a command runs is reported in its turn.
TEST(Command, ReceiveErrorsAreQueuedInTheirPlace) {
  feed_queue_reset();
  processed.clear();
  // A UDP socket whose peer's port is closed: the refusal of one datagram
  // is the next receive's error.
  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in addr = {};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)), 0);
  socklen_t alen = sizeof(addr);
  ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &alen), 0);
  addr.sin_port = 0;
  int closed = socket(AF_INET, SOCK_DGRAM, 0);
  ASSERT_EQ(bind(closed, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)), 0);
  ASSERT_EQ(getsockname(closed, reinterpret_cast<sockaddr *>(&addr), &alen), 0);
  close(closed);
  ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)), 0);
  ASSERT_EQ(feed_queue_add_source(fd, 100, record, record_failure), 0);
  ASSERT_EQ(send(fd, "x", 1, 0), 1);
  EXPECT_EQ(command_system("sleep 0.2"), 0);
  feed_queue_drain();
  EXPECT_EQ(failures, std::vector<int>({ECONNREFUSED}));
  EXPECT_TRUE(processed.empty());
  close(fd);
}

}  // namespace
