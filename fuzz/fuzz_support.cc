#include "fuzz/fuzz_support.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "config/config.h"
#include "frame/command.h"
#include "frame/eloop.h"
#include "netbar/netbar_group.h"
#include "output/archive.h"
#include "tests/config_fixture.h"
#include "tests/private_tmp.h"

namespace {

class canned_runner : public command_runner {
 public:
  int run(const char *cmd, std::string *out, size_t) override {
    const std::string c = cmd;
    if (!out)
      return c.rfind("rm ", 0) == 0 || c.rfind("mkdir ", 0) == 0 ? system(cmd) : 0;
    if (c.rfind("route", 0) == 0)
      *out = "qzr0\n";
    else if (c.rfind("ip add", 0) == 0)
      *out = "10.77.0.2/24\n";
    else
      out->clear();
    return 0;
  }
};

canned_runner runner;

void write(const char *path, const char *text) {
  if (FILE *f = fopen(path, "w")) {
    fputs(text, f);
    fclose(f);
  }
}

}  // namespace

void fuzz_setup() {
  static bool done;
  if (done)
    return;
  done = true;
  if (!private_tmp("size=256m"))
    abort();
  const std::string config = config_fixture_json({{"fh_address", "\"Main 1\""},
                                                  {"fh_ftp_port", "\"21\""},
                                                  {"fh_ftp_username", "\"u\""},
                                                  {"fh_ftp_password", "\"p\""}});
  write("/tmp/fuzz_config.json", config.c_str());
  if (qz2fh_config_load("/tmp/fuzz_config.json") != 0)
    abort();
  command_set_runner(&runner);
}

void fuzz_setup_netbar() {
  static bool done;
  if (done)
    return;
  done = true;
  fuzz_setup();
  eloop_init();
  netbar_group_init();
  mkdir("/tmp/qztmp", 0755);
  mkdir("/tmp/qztmp/clt_wifi_info", 0755);
  // Terminals the seeds name, so that inputs reach the record writers.
  for (const char *mac : {"aa:bb:cc:dd:ee:ff", "00:11:22:aa:bb:cc", "m1"}) {
    std::string path = std::string("/tmp/qztmp/clt_wifi_info/") + mac;
    write(path.c_str(), "t1 t2 -45 00:1a:2b:3c:4d:5e x y\n");
  }
}

void fuzz_maybe_archive() {
  static unsigned calls;
  if (++calls % 20000 == 0)
    group_archive_cycle(&netbar_group);
}
