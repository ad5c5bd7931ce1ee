// The netbar feeds: datagram and netlink parsing, and the records they
// produce, through the real handlers and writing frame.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "frame/eloop.h"
#include "frame/log.h"
#include "frame/report_timer.h"
#include "netbar/netbar_group.h"
#include "netbar/netbar_netlink.h"
#include "netbar/netbar_terminal.h"
#include "tests/unit/test_support.h"

namespace {

std::string datagram(uint32_t cmd, const std::string &text, bool nul = true) {
  std::string d(reinterpret_cast<const char *>(&cmd), 4);
  d += text;
  if (nul)
    d += '\0';
  return d;
}

void send_shell(const std::string &d) {
  netbar_shell_process(reinterpret_cast<const uint8_t *>(d.data()), d.size());
}

TEST(ShellParse, TokensAndRefusals) {
  netbar_shell_msg msg;
  std::string d = datagram(3, "  aa:bb  192.168.1.10 1 x acct extra");
  ASSERT_EQ(netbar_shell_parse(reinterpret_cast<const uint8_t *>(d.data()), d.size(), &msg),
            nullptr);
  EXPECT_EQ(msg.cmd, 3u);
  ASSERT_EQ(msg.count, 5);
  EXPECT_EQ(msg.tokens[0], "aa:bb");
  EXPECT_EQ(msg.tokens[4], "acct");

  d = datagram(3, "aa:bb 1.2.3.4 1", false);  // no terminator within the bytes
  EXPECT_NE(netbar_shell_parse(reinterpret_cast<const uint8_t *>(d.data()), d.size(), &msg),
            nullptr);
  EXPECT_NE(netbar_shell_parse(reinterpret_cast<const uint8_t *>("\3\0\0"), 3, &msg), nullptr);
  d = datagram(2, "");
  ASSERT_EQ(netbar_shell_parse(reinterpret_cast<const uint8_t *>(d.data()), d.size(), &msg),
            nullptr);
  EXPECT_EQ(msg.count, 0);
}

TEST(NetlinkParse, LengthsAndTypes) {
  uint8_t msg[200] = {};
  netlink_event ev;
  EXPECT_FALSE(netlink_parse(msg, 71, &ev));
  msg[16] = 2;
  const uint8_t mac[6] = {0x00, 0x11, 0x22, 0xaa, 0xbb, 0xcc};
  memcpy(msg + 32, mac, 6);
  const uint8_t addrs[12] = {192, 168, 1, 10, 10, 0, 0, 1, 0xc7, 0x38, 0, 80};
  memcpy(msg + 40, addrs, 12);
  // Whatever its header claims, a message of 72 bytes holds every field.
  for (uint32_t nlmsg_len : {0u, 72u, 2000u}) {
    memcpy(msg, &nlmsg_len, 4);
    ASSERT_TRUE(netlink_parse(msg, 72, &ev));
    EXPECT_EQ(ev.type, 2);
    EXPECT_STREQ(ev.http.mac, "00:11:22:aa:bb:cc");
    EXPECT_EQ(ev.http.ip, 3232235786u);
    EXPECT_EQ(ev.http.dst_ip, 167772161u);
    EXPECT_EQ(ev.http.port, 51000);
    EXPECT_EQ(ev.http.dst_port, 80);
  }
}

class NetbarFeeds : public ::testing::Test {
 protected:
  void SetUp() override {
    run.pass_through("mkdir");
    run.answer("route -n", "qzr0\n");
    run.answer("ip add", "10.77.0.2/24\n");
    load_test_config();
    eloop_init();
    netbar_group_init();
    mkdir("/tmp/qztmp", 0755);
    mkdir("/tmp/qztmp/clt_wifi_info", 0755);
    wifi("aa:bb:cc:dd:ee:ff");
  }
  void wifi(const std::string &mac) {
    ASSERT_TRUE(write_file("/tmp/qztmp/clt_wifi_info/" + mac, "t1 t2 -45 00:1a:2b:3c:4d:5e x y\n"));
  }
  // Lines written so far to the dataset's current file.
  std::vector<std::string> lines(int index) {
    std::vector<std::string> out;
    bcp_dataset &ds = netbar_group.datasets[index];
    if (!ds.fp)
      return out;
    fflush(ds.fp);
    const std::string text = read_file("/tmp/145/" + std::string(ds.file_name));
    size_t pos = 0;
    for (size_t nl; (nl = text.find('\n', pos)) != std::string::npos; pos = nl + 1)
      out.push_back(text.substr(pos, nl - pos + 1));
    return out;
  }
  std::vector<std::string> fields(const std::string &line) {
    std::vector<std::string> f;
    size_t pos = 0;
    for (size_t tab; (tab = line.find('\t', pos)) != std::string::npos; pos = tab + 1)
      f.push_back(line.substr(pos, tab - pos));
    f.push_back(line.substr(pos, line.size() - pos - 1));
    return f;
  }
  fake_runner run;
};

TEST_F(NetbarFeeds, OnlineThenOfflineShareStartTimeAndSession) {
  send_shell(datagram(3, "aa:bb:cc:dd:ee:ff 192.168.1.10 1"));
  send_shell(datagram(2, "aa:bb:cc:dd:ee:ff"));
  send_shell(datagram(2, "aa:bb:cc:dd:ee:ff"));  // no longer online: nothing
  auto l = lines(NETBAR_SOURCE_0001);
  ASSERT_EQ(l.size(), 2u);
  const auto on = fields(l[0]);
  const auto off = fields(l[1]);
  ASSERT_EQ(on.size(), 34u);
  const std::string t = on[10];
  const std::string expected =
      "1029999\taa:bb:cc:dd:ee:ff\t35010010AC1000\t2\t\t\t\t\t\t\t" + t +
      "\t\t167880896\t33574154\t\t80\t80\t\t\tAA-BB-CC-DD-EE-FF\t507183926001A2B3C4D5\t"
      "00-1A-2B-3C-4D-5E\t119.30\t26.08\t35010010AC1000aabbccddeeff" +
      t + "\t-45\t\t\t\t\t\t\t\t\n";
  EXPECT_EQ(l[0], expected);
  EXPECT_EQ(off[10], t);
  EXPECT_FALSE(off[11].empty());
  EXPECT_EQ(off[24], on[24]);
  EXPECT_EQ(std::count(l[1].begin(), l[1].end(), '\t'), 33);
}

TEST_F(NetbarFeeds, AuthTypesAndAccounts) {
  for (const char *mac : {"m1", "m2", "m3", "m4", "m5", "m6"})
    wifi(mac);
  send_shell(datagram(3, "m1 1.1.1.1 4 skip 13800000000"));
  send_shell(datagram(3, "m2 1.1.1.2 99"));
  send_shell(datagram(3, "m3 1.1.1.3 2"));               // no such type
  send_shell(datagram(3, "m4 1.1.1.4 13"));              // no such type
  send_shell(datagram(3, "m5 1.1.1.5 0"));               // no such type
  send_shell(datagram(3, "m6 1.1.1.6 4 skip 138\t00"));  // a tab would add a column
  auto l = lines(NETBAR_SOURCE_0001);
  ASSERT_EQ(l.size(), 2u);
  EXPECT_EQ(fields(l[0])[0], "1020004");
  EXPECT_EQ(fields(l[0])[1], "13800000000");
  EXPECT_EQ(fields(l[1])[0], "1020001");
  EXPECT_EQ(fields(l[1])[1], "m2");
  // Offline matches the MAC text exactly as it came online.
  send_shell(datagram(2, "M1"));
  EXPECT_EQ(lines(NETBAR_SOURCE_0001).size(), 2u);
}

// A full table ends the terminal online longest, with its offline record
// written before the new one's online record; a terminal already online
// coming online again takes no room. Counted, and one WARN per report.
TEST_F(NetbarFeeds, FullTerminalTableEndsTheOldestTerminal) {
  auto mac = [](size_t k) {
    char text[18];
    snprintf(text, sizeof(text), "02:00:00:%02x:%02x:%02x", static_cast<unsigned>(k >> 16 & 0xff),
             static_cast<unsigned>(k >> 8 & 0xff), static_cast<unsigned>(k & 0xff));
    return std::string(text);
  };
  auto online = [&](size_t k) { send_shell(datagram(3, mac(k) + " 192.168.1.10 1")); };
  for (size_t k = 0; k < NETBAR_TERMINALS_MAX + 2; k++)
    wifi(mac(k));
  for (size_t k = 0; k < NETBAR_TERMINALS_MAX; k++)
    online(k);
  const netbar_terminal_counters &c = netbar_terminal_counts();
  EXPECT_EQ((std::vector<uint64_t>{c.now, c.peak, c.refused}),
            (std::vector<uint64_t>{NETBAR_TERMINALS_MAX, NETBAR_TERMINALS_MAX, 0}));
  online(5);  // again: no room needed
  EXPECT_EQ(c.refused, 0u);
  const size_t before = lines(NETBAR_SOURCE_0001).size();
  online(NETBAR_TERMINALS_MAX);
  auto l = lines(NETBAR_SOURCE_0001);
  ASSERT_EQ(l.size(), before + 2);
  const auto ended = fields(l[before]);
  EXPECT_EQ(ended[19], "02-00-00-00-00-00");
  EXPECT_FALSE(ended[11].empty());  // an offline record: it has an end
  EXPECT_EQ(fields(l[before + 1])[19], "02-00-00-00-40-00");
  EXPECT_TRUE(fields(l[before + 1])[11].empty());
  EXPECT_EQ((std::vector<uint64_t>{c.now, c.peak, c.refused}),
            (std::vector<uint64_t>{NETBAR_TERMINALS_MAX, NETBAR_TERMINALS_MAX, 1}));
  // The next oldest is 1 (5 came online again): it goes for the next one.
  send_shell(datagram(2, mac(0)));  // ended already: nothing
  EXPECT_EQ(lines(NETBAR_SOURCE_0001).size(), before + 2);
  online(NETBAR_TERMINALS_MAX + 1);
  l = lines(NETBAR_SOURCE_0001);
  ASSERT_EQ(l.size(), before + 4);
  EXPECT_EQ(fields(l[before + 2])[19], "02-00-00-00-00-01");
  send_shell(datagram(2, mac(2)));
  EXPECT_EQ(lines(NETBAR_SOURCE_0001).size(), before + 5);
  EXPECT_EQ((std::vector<uint64_t>{c.now, c.peak, c.refused}),
            (std::vector<uint64_t>{NETBAR_TERMINALS_MAX - 1, NETBAR_TERMINALS_MAX, 2}));

  debug_mode_on();
  ::testing::internal::CaptureStderr();
  netbar_terminal_report();
  netbar_terminal_report();  // nothing new: no line
  const std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("WARN:terminal table full (16384): 2 terminals online longest ended since the "
                     "last report, their offline records written\n"),
            std::string::npos)
      << err;
  EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
}

std::string http_msg(const uint8_t mac[6], uint32_t len = 200) {
  std::string m(len, '\0');
  memcpy(&m[0], &len, 4);
  m[16] = 2;
  memcpy(&m[32], mac, 6);
  const uint8_t addrs[12] = {192, 168, 1, 10, 10, 0, 0, 1, 0xc7, 0x38, 0, 80};
  memcpy(&m[40], addrs, 12);
  return m;
}

TEST_F(NetbarFeeds, HttpEventRecord) {
  const uint8_t mac[6] = {0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};
  const std::string m = http_msg(mac);
  netbar_netlink_process(reinterpret_cast<const uint8_t *>(m.data()), m.size());
  auto l = lines(NETBAR_SOURCE_0002);
  ASSERT_EQ(l.size(), 1u);
  const std::string t = fields(l[0])[20];
  EXPECT_EQ(
      l[0],
      "35010010AC1000aabbccddeeff" + t +
          "\t35010010AC1000\t1\t3232235786\t51000\t16777216\t\t256\t256\t\t\t167772161\t\t80"
          "\t80\tAA-BB-CC-DD-EE-FF\t507183926001A2B3C4D5\t00-1A-2B-3C-4D-5E\t119.30\t26.08\t" +
          t + "\n");
  // A terminal without a wireless record gets no line.
  debug_mode_on();
  std::string text;
  {
    output_capture out;
    const uint8_t other[6] = {0, 0x11, 0x22, 0xaa, 0xbb, 0xcc};
    const std::string m2 = http_msg(other);
    netbar_netlink_process(reinterpret_cast<const uint8_t *>(m2.data()), m2.size());
    text = out.text();
  }
  EXPECT_NE(text.find("can not find access mac:00:11:22:aa:bb:cc\n"), std::string::npos);
  EXPECT_EQ(lines(NETBAR_SOURCE_0002).size(), 1u);
}

}  // namespace
