// Records per second through a dataset's writer into BCP files with roll-over,
// against plain fwrite of the same prepared lines. Runs in a private /tmp
// (needs root):  build/bench/bcp_writer_bench
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "config/config.h"
#include "frame/command.h"
#include "frame/eloop.h"
#include "frame/log.h"
#include "output/archive.h"
#include "output/bcp_dataset.h"
#include "terminal/source_group.h"
#include "tests/config_fixture.h"
#include "tests/private_tmp.h"

namespace {

// Archives without zip or upload; rm and mkdir really run.
class local_runner : public command_runner {
 public:
  int run(const char *cmd, std::string *out, size_t) override {
    if (out)
      out->clear();
    const std::string c = cmd;
    return c.rfind("rm ", 0) == 0 || c.rfind("mkdir ", 0) == 0 ? system(cmd) : 0;
  }
};
local_runner runner;

constexpr int BATCH = 50000;  // records between clean-ups (ten files)

void setup() {
  if (unshare(CLONE_NEWNS) != 0 ||
      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("tmpfs", "/tmp", "tmpfs", 0, "size=1g") != 0) {
    perror("private /tmp (needs root)");
    exit(1);
  }
  const std::string config = config_fixture_json(
      {{"fh_ftp_port", "\"21\""}, {"fh_ftp_username", "\"u\""}, {"fh_ftp_password", "\"p\""}});
  FILE *f = fopen("/tmp/bench.json", "w");
  fputs(config.c_str(), f);
  fclose(f);
  if (qz2fh_config_load("/tmp/bench.json") != 0)
    exit(1);
  command_set_runner(&runner);
  eloop_init();
  source_group_init();
}

// One WA_BASIC_FJ_1002 record per access point, as the scan writes them.
void BM_write(benchmark::State &state) {
  const char mac[] = "00:1a:2b:3c:4d:5e";
  int n = 0;
  for (auto _ : state) {
    source_basic_1002_write(mac);
    if (++n == BATCH) {
      state.PauseTiming();
      group_archive_cycle(&source_group);  // closes the open file, deletes all
      while (command_count() > 0 && eloop_run_once() == 0) {
      }
      n = 0;
      state.ResumeTiming();
    }
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_write);

// The same line, prepared once, written with fwrite to one file.
void BM_plain_fwrite(benchmark::State &state) {
  const std::string line =
      "35010010AC1000\t507183926001A2B3C4D5\tAP-01\tMain Street "
      "1\t1\t507183926\t119.30\t26.08\t300\t150\t\t\t\t\n";
  FILE *fp = fopen("/tmp/plain.bcp", "a+");
  int n = 0;
  for (auto _ : state) {
    fwrite(line.data(), 1, line.size(), fp);
    if (++n == BATCH) {
      state.PauseTiming();
      fclose(fp);
      unlink("/tmp/plain.bcp");
      fp = fopen("/tmp/plain.bcp", "a+");
      n = 0;
      state.ResumeTiming();
    }
  }
  fclose(fp);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_plain_fwrite);

}  // namespace

int main(int argc, char **argv) {
  setup();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
