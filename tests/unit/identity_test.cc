#include "config/identity.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "config/config.h"
#include "frame/eloop.h"
#include "frame/log.h"
#include "tests/unit/test_support.h"

namespace {

TEST(Identity, MacTextsSafeForPathsAndRecords) {
  for (const char *ok : {"aa:bb:cc:dd:ee:ff", "AA-BB-CC-DD-EE-FF", "x", "a.b"})
    EXPECT_TRUE(qz2fh_mac_text_ok(ok)) << ok;
  for (const char *bad : {"", "..", "a/b", "../etc", "a..b", "a b", "a\tb", "a\"b", "a\\b"})
    EXPECT_FALSE(qz2fh_mac_text_ok(bad)) << bad;
  EXPECT_TRUE(qz2fh_mac_text_ok(std::string(31, 'a')));
  EXPECT_FALSE(qz2fh_mac_text_ok(std::string(32, 'a')));
}

TEST(Identity, StatusLineParsing) {
  wifi_info info;
  const std::string line = "t1 t2 -45 00:1a:2b:3c:4d:5e aux one\n";
  ASSERT_TRUE(wifi_info_parse(line.c_str(), line.size(), &info));
  EXPECT_STREQ(info.field_strength, "-45");
  EXPECT_STREQ(info.ap_mac, "00:1a:2b:3c:4d:5e");
  EXPECT_STREQ(info.aux1, "aux");
  EXPECT_STREQ(info.aux2, "one\n");  // the line feed stays in the last token
  const std::string runs = "  t1   t2 -45  ap  a b c\n";
  ASSERT_TRUE(wifi_info_parse(runs.c_str(), runs.size(), &info));
  EXPECT_STREQ(info.ap_mac, "ap");
  EXPECT_STREQ(info.aux2, "b");

  for (const std::string &bad :
       {std::string("t1 t2 -45 ap aux\n"), std::string(""), std::string("t1 t2 -4\t5 ap a b"),
        "t1 t2 -45 " + std::string(32, 'a') + " a b",
        "t1 t2 -45 ap " + std::string(64, 'a') + " b"})
    EXPECT_FALSE(wifi_info_parse(bad.c_str(), bad.size(), &info)) << bad;
}

void write_status(const std::string &dir, const std::string &mac, const std::string &line) {
  mkdir("/tmp/qztmp", 0755);
  mkdir(dir.c_str(), 0755);
  ASSERT_TRUE(write_file(dir + mac, line));
}

TEST(Identity, WifiInfoFromStatusFilesWithFallback) {
  write_status("/tmp/qztmp/clt_wifi_info/", "aa:bb", "a b -40 ap1 x y\n");
  write_status("/tmp/qztmp/clt_ap_info/", "cc:dd", "a b -50 ap2 x y\n");
  const wifi_info *w = qz2fh_get_wifi_info("aa:bb");
  ASSERT_NE(w, nullptr);
  EXPECT_STREQ(w->ap_mac, "ap1");
  // The second place is read only while AC.status exists.
  EXPECT_EQ(qz2fh_get_wifi_info("cc:dd"), nullptr);
  ASSERT_TRUE(write_file("/tmp/qztmp/AC.status", ""));
  w = qz2fh_get_wifi_info("cc:dd");
  ASSERT_NE(w, nullptr);
  EXPECT_STREQ(w->ap_mac, "ap2");
  // A MAC that would name a file elsewhere is never used as a path.
  ASSERT_TRUE(write_file("/tmp/qztmp/secret", "a b -1 leak x y\n"));
  EXPECT_EQ(qz2fh_get_wifi_info("../secret"), nullptr);
  EXPECT_EQ(qz2fh_get_wifi_info(".."), nullptr);
  EXPECT_EQ(qz2fh_get_wifi_info(""), nullptr);
  EXPECT_EQ(qz2fh_get_wifi_info(std::string(40, 'a').c_str()), nullptr);
  write_status("/tmp/qztmp/clt_wifi_info/", "empty", "");
  EXPECT_EQ(qz2fh_get_wifi_info("empty"), nullptr);
  // What another account can plant counts as missing, with the fallback
  // (ap2's own line), one WARN a path a tick, and is never waited on.
  debug_mode_on();
  const std::string planted = "/tmp/qztmp/clt_wifi_info/cc:dd";
  const struct {
    const char *what, *why;
    int (*plant)(const char *path);
  } cases[] = {
      {"FIFO", "not a regular file", [](const char *p) { return mkfifo(p, 0666); }},
      {"link", "a link", [](const char *p) { return symlink("/tmp/qztmp/secret", p); }},
      {"hard link", "another name links to it", [](const char *p) { return link("/tmp/qztmp/secret", p); }},
      {"foreign file", "owned by another account",
       [](const char *p) { return write_file(p, "a b -1 foreign x y\n") ? chown(p, 65534, 65534) : -1; }},
  };
  for (const auto &c : cases) {
    ASSERT_EQ(c.plant(planted.c_str()), 0) << c.what;
    qz2fh_status_files_tick();
    output_capture err(STDERR_FILENO);
    for (int i = 0; i < 2; i++) {
      w = qz2fh_get_wifi_info("cc:dd");
      ASSERT_NE(w, nullptr) << c.what;
      EXPECT_STREQ(w->ap_mac, "ap2") << c.what;
    }
    qz2fh_status_files_tick();
    qz2fh_get_wifi_info("cc:dd");
    const std::string text = err.text(), line = "WARN:status file " + planted + " not used: " + c.why + "\n";
    const size_t first = text.find(line);
    EXPECT_NE(first, std::string::npos) << text;
    EXPECT_NE(text.find(line, first + 1), std::string::npos) << "again after the tick: " << text;
    EXPECT_EQ(text.find(line, text.find(line, first + 1) + 1), std::string::npos) << text;
    unlink(planted.c_str());
  }
}

TEST(Identity, RouteOutputParsing) {
  char name[16];
  EXPECT_TRUE(route_iface_parse("qzr0\n", name, sizeof(name)));
  EXPECT_STREQ(name, "qzr0");
  for (const char *bad : {"", "\n", "eth0'; rm -rf /", "a b", "averyveryverylongname0"})
    EXPECT_FALSE(route_iface_parse(bad, name, sizeof(name))) << bad;

  char addr[1024];
  EXPECT_TRUE(route_addr_parse("10.77.0.2/24\n", addr, sizeof(addr)));
  EXPECT_STREQ(addr, "10.77.0.2");
  EXPECT_TRUE(route_addr_parse("10.0.0.1/8\n10.0.0.2/8\n", addr, sizeof(addr)));
  EXPECT_STREQ(addr, "10.0.0.1");
  for (const char *bad : {"", "/24", "fe80::1/64\n", "10.0.0/24", "garbage"})
    EXPECT_FALSE(route_addr_parse(bad, addr, sizeof(addr))) << bad;
}

}  // namespace
