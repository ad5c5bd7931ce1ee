// Every dataset's index template, byte for byte, against the one written
// out here from the column list that the output checker reads too
// (tools/qz_bcp_columns.txt, built into this test as QZ_BCP_COLUMNS): one
// list of the platform's columns, kept apart from the daemon's own tables.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "frame/eloop.h"
#include "netbar/netbar_group.h"
#include "output/bcp_dataset.h"
#include "qz_bcp_columns.h"
#include "terminal/source_group.h"
#include "tests/unit/test_support.h"

namespace {

const std::string HEAD =
    "\n\t\t\t\t<DATA>\t\t\t\t\t\n\t\t\t\t\t<ITEM key=\"A010004\" val=\"%s\" rmk=\"数据集代码\"/>"
    "\t\t\t\t\t\n\t\t\t\t\t<ITEM key=\"B050016\" val=\"%d\" "
    "rmk=\"数据来源\"/>\t\t\t\t\t\n\t\t\t\t\t"
    "<ITEM key=\"G020013\" val=\"%s\" rmk=\"网安专用产品厂家组织机构代码\"/>\t\t\t\t\t\n\t\t\t\t\t"
    "<ITEM key=\"F010008\" val=\"%s\" rmk=\"数据采集地\"/>\t\t\t\t\t\n\t\t\t\t\t<DATASET "
    "name=\"WA_COMMON_010014\" "
    "rmk=\"BCP数据文件信息\">\t\t\t\t\t\t\n\t\t\t\t\t\t<DATA>\t\t\t\t\t\t\t\n"
    "\t\t\t\t\t\t\t<ITEM key=\"H040003\" val=\"\" "
    "rmk=\"文件路径\"/>\t\t\t\t\t\t\t\n\t\t\t\t\t\t\t<ITEM "
    "key=\"H010020\" val=\"%s\" rmk=\"文件名\"/>\t\t\t\t\t\t\t\n\t\t\t\t\t\t\t<ITEM "
    "key=\"I010034\" "
    "val=\"%d\" rmk=\"记录行数\"/>\t\t\t\t\t\t\n\t\t\t\t\t\t</DATA>\t\t\t\t\t\n\t\t\t\t\t</DATASET>"
    "\t\t\t\t\t\n\t\t\t\t\t<DATASET name=\"WA_COMMON_010015\" "
    "rmk=\"BCP文件数据结构\">\t\t\t\t\t\t\n"
    "\t\t\t\t\t\t<DATA>\t\t\t\t\t\t\t\n\t\t\t\t\t\t\t";
// The closings of a column list; the long one has one more tab in each run.
const std::string CLOSE_SHORT =
    "\t\t\t\t\t\t\n\t\t\t\t\t\t</DATA>\t\t\t\t\t\n\t\t\t\t\t</DATASET>\t\t\t\t\n\t\t\t\t</DATA>";
const std::string CLOSE_LONG =
    "\t\t\t\t\t\t\t\n\t\t\t\t\t\t</DATA>\t\t\t\t\t\t\n\t\t\t\t\t</DATASET>\t\t\t\t\t\n\t\t\t\t</"
    "DATA>";

struct column_list {
  std::string code;
  std::string block;  // the expected template
  size_t columns;
};

// Each dataset of the list with its expected template: the head, the
// items separated by tabs, a line feed and seven tabs, the closing.
std::vector<column_list> read_lists(const char *text) {
  std::vector<column_list> lists;
  std::istringstream in(text);
  std::string tabs, closing;
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#')
      continue;
    if (line.rfind("dataset ", 0) == 0) {
      if (!lists.empty())
        lists.back().block += closing;
      std::istringstream words(line.substr(8));
      std::string code, long_or_short;
      int n = 0;
      words >> code >> n >> long_or_short;
      tabs = std::string(n, '\t') + "\n\t\t\t\t\t\t\t";
      closing = long_or_short == "long" ? CLOSE_LONG : CLOSE_SHORT;
      lists.push_back({code, HEAD, 0});
      continue;
    }
    const size_t t1 = line.find('\t');
    const size_t t2 = line.find('\t', t1 + 1);
    column_list &l = lists.back();
    if (l.columns++ > 0)
      l.block += tabs;
    l.block += "<ITEM key=\"" + line.substr(0, t1) + "\" eng=\"" +
               line.substr(t1 + 1, t2 - t1 - 1) + "\" chn=\"" + line.substr(t2 + 1) + "\"/>";
  }
  if (!lists.empty())
    lists.back().block += closing;
  return lists;
}

size_t count(const std::string &s, const std::string &what) {
  size_t n = 0;
  for (size_t p = s.find(what); p != std::string::npos; p = s.find(what, p + 1))
    n++;
  return n;
}

TEST(Templates, EveryDatasetMatchesTheSharedColumnList) {
  fake_runner run;
  run.pass_through("mkdir");
  load_test_config();
  eloop_init();
  source_group_init();
  netbar_group_init();
  const std::vector<column_list> lists = read_lists(QZ_BCP_COLUMNS);
  ASSERT_EQ(lists.size(), 10u);
  // The datasets that write, in group order, are those of the list, in
  // its order.
  size_t k = 0;
  for (const bcp_group *g : {&source_group, &netbar_group}) {
    for (const bcp_dataset &ds : g->datasets) {
      if (!ds.index_template)
        continue;
      ASSERT_LT(k, lists.size()) << ds.name;
      const column_list &l = lists[k++];
      EXPECT_EQ(ds.name, l.code);
      EXPECT_EQ(ds.index_template, l.block) << l.code;
      EXPECT_EQ(count(ds.index_template, "%"), 6u) << l.code;
      EXPECT_EQ(count(ds.index_template, "<ITEM key=\"") - 7, l.columns) << l.code;
    }
  }
  EXPECT_EQ(k, lists.size());
  // The terminal group's source datasets are registered but never write.
  EXPECT_STREQ(source_group.datasets[0].name, "WA_SOURCE_FJ_1001");
  EXPECT_STREQ(source_group.datasets[1].name, "WA_SOURCE_FJ_1002");
}

}  // namespace
