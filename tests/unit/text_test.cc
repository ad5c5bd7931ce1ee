#include "frame/text.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace {

TEST(Text, PrintableRefusesControlCharactersAndDel) {
  struct printable_case {
    std::string_view text;
    bool printable;
  };
  const printable_case cases[] = {
      {"", true},
      {" !~", true},               // 0x20 and 0x7e, the ends of printable ASCII
      {"Caf\xc3\xa9 网吧", true},  // UTF-8 bytes above 0x7f
      {"a\tb", false},
      {"a\n", false},
      {std::string_view("a\0b", 3), false},
      {"\x1f", false},
      {"\x7f", false},
      {"ab\x7f", false},
  };
  for (const printable_case &c : cases)
    EXPECT_EQ(text_printable(c.text), c.printable) << testing::PrintToString(std::string(c.text));
}

}  // namespace
