#include "frame/command.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "frame/eloop.h"
#include "frame/log.h"
#include "tests/unit/test_support.h"

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

struct ended {
  int calls = 0, status = 0;
  std::string output;
};
void note_end(command_job *job, int status) {
  auto *e = static_cast<ended *>(job->owner);
  e->calls++;
  e->status = status;
  e->output = std::string(command_output(job));
}

// Beside the loop: status and output come through the loop, with a pidfd
// or, as on older kernels, SIGCHLD; a command past its limit gets SIGTERM
// with its group, SIGKILL after the grace when it ignores that, and its
// owner hears once, even when it starts its job again at once.
TEST(Command, CommandsBesideTheLoopEndAsEventsOfIt) {
  debug_mode_on();
  command_set_limit_second_ms(50);  // limits of 0.5 s, a grace of 0.1 s
  const uint64_t killed_before[] = {command_killed(COMMAND_KIND_LOCAL), command_killed(COMMAND_KIND_PROBE),
                                    command_killed(COMMAND_KIND_UPLOAD)};
  for (bool pidfd : {true, false}) {
    SCOPED_TRACE(pidfd ? "pidfd" : "SIGCHLD");
    command_use_pidfd(pidfd);
    eloop_init();
    ended a, b, c;
    command_job ja{}, jb{}, jc{};
    ja.owner = &a;
    jb.owner = &b;
    jc.owner = &c;
    ::testing::internal::CaptureStderr();
    ASSERT_EQ(command_start(&ja, "printf 'x y'; exit 3", COMMAND_PROBE, note_end, 100), 0);
    ASSERT_EQ(command_start(&jb, "trap '' TERM; sleep 1000 & echo $! >/tmp/b; wait", COMMAND_LOCAL, note_end), 0);
    ASSERT_EQ(command_start(&jc, "sleep 1000", COMMAND_PROBE, [](command_job *job, int status) {
      note_end(job, status);
      if (static_cast<ended *>(job->owner)->calls == 1)  // again, from its own end
        command_start(job, "sleep 0.01; echo again", COMMAND_PROBE, note_end, 100);
    }), 0);
    EXPECT_TRUE(command_busy(&jb));
    finish_commands();
    EXPECT_EQ(a.calls, 1);
    EXPECT_EQ(a.status, 3 << 8);
    EXPECT_EQ(a.output, "x y");
    EXPECT_EQ((b.calls << 16) | (b.status & 0xffff), (1 << 16) | 0xffff);
    EXPECT_TRUE(gone(read_pid("/tmp/b")));
    EXPECT_EQ(c.calls, 2);
    EXPECT_EQ(c.status, 0);
    EXPECT_EQ(c.output, "again\n");
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("WARN:trap still running after 10 s: killed with its process group\n"), std::string::npos) << err;
    EXPECT_NE(err.find("WARN:sleep still running after 10 s: killed with its process group\n"), std::string::npos) << err;
    // Outside the loop (start-up, stop) the same limits; what a killed
    // command printed is dropped, as it may be cut anywhere.
    std::string out;
    EXPECT_EQ(command_read("trap '' TERM; printf cut; sleep 1000", &out, 100, COMMAND_LOCAL), -1);
    EXPECT_EQ(out, "");
    // A stop ends what runs, each owner told once.
    ASSERT_EQ(command_start(&jb, "sleep 1000", COMMAND_UPLOAD, note_end), 0);
    command_stop_all();
    EXPECT_EQ(b.calls, 2);
    EXPECT_EQ(b.status, -1);
    EXPECT_EQ(command_count(), 0);
    eloop_destroy();
  }
  EXPECT_EQ(command_killed(COMMAND_KIND_LOCAL) - killed_before[0], 4u);
  EXPECT_EQ(command_killed(COMMAND_KIND_PROBE) - killed_before[1], 2u);
  EXPECT_EQ(command_killed(COMMAND_KIND_UPLOAD) - killed_before[2], 2u);
  command_use_pidfd(true);
  command_set_limit_second_ms(0);
}

// A parent that ignores SIGCHLD lets the kernel reap every command: the
// wait ends in ECHILD and must not read as success.
TEST(Command, AWaitThatFindsNoChildIsAFailure) {
  signal(SIGCHLD, SIG_IGN);
  std::string out;
  for (const char *cmd : {"true", "exit 3", "sleep 0.2"}) {
    SCOPED_TRACE(cmd);
    EXPECT_EQ(command_system(cmd), -1);
    EXPECT_EQ(command_read(cmd, &out, 100), -1);
  }
  EXPECT_EQ(command_read("echo text; sleep 0.2", &out, 100), -1);
  EXPECT_EQ(out, "");
  signal(SIGCHLD, SIG_DFL);
  EXPECT_EQ(command_system("true"), 0);
  EXPECT_EQ(command_system("exit 3"), 3 << 8);
}

// The daemon ignores SIGPIPE; its commands must not: a pipeline whose
// reader ends early ends its writers, as it does anywhere.
TEST(Command, CommandsStartWithTheDefaultSigpipe) {
#ifdef QZ_TEST_EMULATED
  GTEST_SKIP() << "qemu-user keeps its own SIGPIPE disposition for the programs it starts";
#endif
  signal(SIGPIPE, SIG_IGN);
  std::string out;
  ASSERT_EQ(command_read("sed -n 's/^SigIgn:\\t//p' /proc/$$/status", &out, 100), 0);
  const unsigned long ignored = std::stoul(out, nullptr, 16);
  EXPECT_EQ(ignored & (1ul << (SIGPIPE - 1)), 0ul) << out;
  signal(SIGPIPE, SIG_DFL);
}

}  // namespace
