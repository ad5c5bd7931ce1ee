#include "config/wtps.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/unit/test_support.h"

namespace {

wtps_mac_fn collect_into(std::vector<std::string> *macs) {
  return [macs](const char *mac) {
    macs->emplace_back(mac);
    return true;
  };
}

struct listing_case {
  const char *name;
  std::string listing;
  std::vector<std::string> macs;
  wtps_result result;
};

// Names the case in test output instead of dumping its bytes.
void PrintTo(const listing_case &c, std::ostream *os) { *os << c.name; }

class WtpsListing : public ::testing::TestWithParam<listing_case> {};

TEST_P(WtpsListing, MacsInOrder) {
  const listing_case &c = GetParam();
  std::vector<std::string> macs;
  EXPECT_EQ(wtps_parse(c.listing, "test", collect_into(&macs)), c.result);
  EXPECT_EQ(macs, c.macs);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, WtpsListing,
    ::testing::Values(
        listing_case{"three_lines",
                     "1 aa:01 up\n2 aa:02 up\n3 aa:03 up\n",
                     {"aa:01", "aa:02", "aa:03"},
                     WTPS_DONE},
        listing_case{"empty", "", {}, WTPS_DONE},
        listing_case{"blank_line_ends_reading", "1 aa:01 up\n\n3 aa:03 up\n", {"aa:01"}, WTPS_CUT},
        listing_case{
            "one_token_line_ends_reading", "1 aa:01 up\nonly\n3 aa:03 x\n", {"aa:01"}, WTPS_CUT},
        listing_case{"mac_last_on_line_without_line_feed",
                     "1 aa:01\n2 aa:02\r\n3 aa:03",
                     {"aa:01", "aa:02", "aa:03"},
                     WTPS_DONE},
        listing_case{"blank_runs", "  1   aa:01   up\n", {"aa:01"}, WTPS_DONE},
        listing_case{
            "unsafe_mac_skipped", "1 ../etc x\n2 a\tb x\n3 aa:03 x\n", {"aa:03"}, WTPS_DONE},
        listing_case{"overlong_mac_skipped",
                     "1 " + std::string(40, 'a') + " x\n2 aa:02 x\n",
                     {"aa:02"},
                     WTPS_DONE}),
    [](const auto &test) { return std::string(test.param.name); });

}  // namespace
