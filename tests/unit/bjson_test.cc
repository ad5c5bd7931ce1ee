// The device status report over three reports of a changing listing.
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "frame/eloop.h"
#include "status/bjson.h"
#include "tests/unit/test_support.h"

namespace {

class StatusReport : public ::testing::Test {
 protected:
  void SetUp() override {
    run.pass_through("mkdir");
    run.pass_through("rm");
    // Keep what each upload would send.
    run.on_command = [this](const std::string &cmd) {
      std::smatch m;
      if (std::regex_search(cmd, m, std::regex(R"(^wput -t 2 (\S+) )"))) {
        uploaded_names.push_back(m[1]);
        uploaded.push_back(read_file(m[1]));
      }
    };
    load_test_config();
    eloop_init();
    bjson_report_init();
  }
  void report(const std::string &listing) {
    run.answer("wum -c wtps", listing);
    bjson_report_timer(nullptr);
  }
  static std::string line(const char *dc, int ds) {
    return std::string("{\"fc\":\"507183926\", \"sc\":\"35010010AC1000\", \"dc\":\"") + dc +
           "\", \"ds\":\"" + std::to_string(ds) + "\"}\n";
  }
  fake_runner run;
  std::vector<std::string> uploaded, uploaded_names;
};

const char A[] = "507183926001A2B3C4D5";  // id of 00:1a:2b:3c:4d:5e
const char B[] = "507183926001A2B3C4D6";  // id of 00:1a:2b:3c:4d:6f

TEST_F(StatusReport, NewPresentGoneAndForgotten) {
  report("1 00:1a:2b:3c:4d:5e x\n2 00:1a:2b:3c:4d:6f x\n2 00:1a:2b:3c:4d:6f x\n");
  report("1 00:1a:2b:3c:4d:5e x\n");
  report("1 00:1a:2b:3c:4d:5e x\n");
  ASSERT_EQ(uploaded.size(), 3u);
  EXPECT_EQ(uploaded[0], line(A, 0) + line(B, 0));
  EXPECT_EQ(uploaded[1], line(A, 0) + line(B, 1));
  EXPECT_EQ(uploaded[2], line(A, 0));
  const std::regex name(R"(/tmp/144/145-350100-\d{10}-(\d+)-DEVICESTATUS-0\.bjson)");
  for (int i = 0; i < 3; i++) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(uploaded_names[i], m, name)) << uploaded_names[i];
    EXPECT_EQ(m[1], std::to_string(i));
  }
  EXPECT_NE(run.commands.back().find("rm /tmp/144/*"), std::string::npos);
  EXPECT_TRUE(list_dir("/tmp/144").empty());
}

TEST_F(StatusReport, EmptyOrCutListingsUploadNothing) {
  report("");  // an empty file is made, not sent, and deleted; the number advances
  report("1 00:1a:2b:3c:4d:5e x\n\n");  // cut short: no file, the number stays
  report("1 00:1a:2b:3c:4d:5e x\n");
  ASSERT_EQ(uploaded.size(), 1u);
  EXPECT_NE(uploaded_names[0].find("-1-DEVICESTATUS-0.bjson"), std::string::npos);
  // Counted twice (cut report and this one), still written once, present.
  EXPECT_EQ(uploaded[0], line(A, 0));
  run.answer("wum -c wtps", "", -1);
  bjson_report_timer(nullptr);
  EXPECT_EQ(uploaded.size(), 1u);
  EXPECT_TRUE(list_dir("/tmp/144").empty());
}

}  // namespace
