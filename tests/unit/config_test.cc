#include "config/config.h"

#include <gtest/gtest.h>

#include <string>

#include "frame/log.h"
#include "tests/unit/test_support.h"

namespace {

struct config_case {
  const char *name;
  std::vector<std::pair<std::string, std::string>> overrides;
  const char *expected_log;  // substring of the ERROR output
};

// Names the case in test output instead of dumping its bytes.
void PrintTo(const config_case &c, std::ostream *os) { *os << c.name; }

class ConfigErrors : public ::testing::TestWithParam<config_case> {};

TEST_P(ConfigErrors, RefusedWithAClearLine) {
  debug_mode_on();
  const config_case &c = GetParam();
  ASSERT_TRUE(write_file("/tmp/c.json", test_config_json(c.overrides)));
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(qz2fh_config_load("/tmp/c.json"), 1);
  const std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find(c.expected_log), std::string::npos) << err;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ConfigErrors,
    ::testing::Values(
        config_case{
            "missing_password", {{"fh_ftp_password", ""}}, "ERROR:fh_ftp_password is null!"},
        config_case{"nul_in_value", {{"fh_org_mail", "\"a\\u0000b\""}}, "ERROR:load file:"},
        config_case{"slash_in_source", {{"fh_source_str", "\"../x\""}}, "fh_source_str is part of"},
        config_case{"blank_in_dst", {{"fh_dst_str", "\"35 00\""}}, "fh_dst_str is part of"},
        config_case{"unsent_dir_number", {{"fh_unsent_dir", "5"}}, "fh_unsent_dir is not a str"},
        config_case{"unsent_dir_relative", {{"fh_unsent_dir", "\"keep\""}}, "fh_unsent_dir must"},
        config_case{"unsent_dir_up", {{"fh_unsent_dir", "\"/var/../etc\""}}, "fh_unsent_dir must"},
        config_case{"unsent_dir_blank", {{"fh_unsent_dir", "\"/a b\""}}, "fh_unsent_dir must"},
        config_case{"unsent_dir_tmp", {{"fh_unsent_dir", "\"/tmp/\""}}, "fh_unsent_dir must"},
        config_case{"unsent_dir_spool", {{"fh_unsent_dir", "\"/tmp/145/u\""}}, "fh_unsent_dir must"},
        config_case{"unsent_dir_long",
                    {{"fh_unsent_dir", "\"/" + std::string(128, 'u') + "\""}},
                    "fh_unsent_dir must"}),
    [](const auto &test) { return std::string(test.param.name); });

TEST(Config, ValuesKeptByteForByteUnknownKeysIgnored) {
  load_test_config({{"fh_netbar_name", "\"  Café 网吧 \""},
                    {"fh_ftp_password", "\"p\\\"a$(x);b\""},
                    {"fh_source_str", "\"\""},
                    {"extra", "42"}});
  EXPECT_STREQ(qz2fh_get_netbar_name(), "  Café 网吧 ");
  EXPECT_STREQ(qz2fh_get_ftp_password(), "p\"a$(x);b");
  EXPECT_STREQ(qz2fh_get_source_str(), "");
  EXPECT_EQ(qz2fh_get_unsent_dir(), nullptr);
}

// However the spool directories and /tmp are spelled, the key is compared
// as the path they name; a value that is taken is kept as written, and ""
// means none.
TEST(Config, UnsentDirComparedInCanonicalForm) {
  debug_mode_on();
  const struct {
    const char *dir;
    bool taken;
  } cases[] = {
      {"//tmp", false},        {"/tmp/.", false},         {"/./tmp", false},
      {"/tmp/./", false},      {"/tmp/145/", false},      {"/tmp//145", false},
      {"//tmp//144//", false}, {"/./tmp/./146/.", false}, {"/tmp/./145/u", false},
      {"/tmp//146/u/", false}, {"/tmp/qz_unsent/", true}, {"//tmp//qz_unsent", true},
      {"/tmp/./qz.u/.", true}, {"/tmp//1450", true},      {"/tmp/.145", true},
      {"/tmp/14", true},       {"", true},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.dir);
    ASSERT_TRUE(write_file(
        "/tmp/c.json", test_config_json({{"fh_unsent_dir", std::string("\"") + c.dir + "\""}})));
    ::testing::internal::CaptureStderr();
    const int rc = qz2fh_config_load("/tmp/c.json");
    const std::string err = ::testing::internal::GetCapturedStderr();
    if (c.taken) {
      EXPECT_EQ(rc, 0) << err;
      EXPECT_STREQ(qz2fh_get_unsent_dir(), *c.dir ? c.dir : nullptr);
    } else {
      EXPECT_EQ(rc, 1);
      EXPECT_NE(err.find("ERROR:fh_unsent_dir must be an absolute path"), std::string::npos) << err;
    }
  }
}

}  // namespace
