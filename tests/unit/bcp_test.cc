// The writing frame: file names, sequence numbers, roll-over and the list
// of finished files, on a group of the test's own.
#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/stat.h>

#include <regex>
#include <string>

#include "frame/eloop.h"
#include "frame/log.h"
#include "output/archive.h"
#include "output/bcp_dataset.h"
#include "output/bcp_record.h"
#include "tests/unit/test_support.h"

namespace {

constexpr uint32_t TEST_GROUP = 150;
bcp_group test_group;

int write_x() { return bcp_write_line(&test_group.datasets[1], "x\n", 2); }

// A record context of one text.
struct text_record {
  const char *value;
};
void put_value(bcp_line &l, const text_record &r) { l.put(r.value); }

class BcpWriter : public ::testing::Test {
 protected:
  void SetUp() override {
    run.pass_through("mkdir");
    run.pass_through("rm");
    load_test_config();
    eloop_init();
    bcp_dataset_init(&test_group.datasets[1], "WA_TEST_1", "%s%d%s%s%s%d\n");
    bcp_group_init(&test_group, TEST_GROUP, "QZ2FH_TEST_TYPE", "test_report_timer", nullptr);
    ASSERT_EQ(system("mkdir -p /tmp/150"), 0);
  }
  fake_runner run;
};

TEST_F(BcpWriter, NamesSequenceAndRollOverAt5000) {
  for (int i = 0; i < 5001; i++)
    ASSERT_EQ(write_x(), 0);
  const auto files = list_dir("/tmp/150");
  ASSERT_EQ(files.size(), 2u);
  const std::regex name(R"(150-350100-\d{10}-0000([01])-WA_TEST_1-0\.bcp)");
  EXPECT_TRUE(std::regex_match(files[0], name)) << files[0];
  EXPECT_TRUE(std::regex_match(files[1], name)) << files[1];
  EXPECT_NE(files[0].substr(22), files[1].substr(22));
  // The full file is listed with 5000 records; the next one is open.
  ASSERT_EQ(test_group.bcp_file_count, 1);
  EXPECT_EQ(test_group.bcp_file_list[0].record_count, 5000);
  EXPECT_STREQ(test_group.bcp_file_list[0].name, "WA_TEST_1");
  EXPECT_EQ(read_file("/tmp/150/" + std::string(test_group.bcp_file_list[0].file_name)).size(),
            10000u);
  EXPECT_EQ(test_group.datasets[1].record_count, 1);
  EXPECT_EQ(test_group.datasets[1].bcp_sequence, 2);
}

TEST_F(BcpWriter, SequenceWrapsAndFailedOpenKeepsIt) {
  bcp_dataset &ds = test_group.datasets[1];
  ds.bcp_sequence = 65535;
  const uint64_t refused = ds.refused;
  debug_mode_on();
  {
    // A directory that cannot be made: the line is lost and counted.
    snprintf(test_group.spool.path, sizeof(test_group.spool.path), "/proc/150");
    output_capture out;
    EXPECT_EQ(write_x(), 1);
    test_group.spool = spool_dir_of(TEST_GROUP);
    EXPECT_NE(out.text().find("open file /proc/150/150-350100-"), std::string::npos);
    EXPECT_EQ(ds.bcp_sequence, 65535);
    EXPECT_EQ(ds.refused, refused + 1);
  }
  // A directory removed under the daemon is made again, private.
  ASSERT_EQ(system("rm -rf /tmp/150"), 0);
  output_capture err(STDERR_FILENO);
  EXPECT_EQ(write_x(), 0);
  EXPECT_NE(err.text().find("WARN:/tmp/150 had gone: made again\n"), std::string::npos);
  EXPECT_EQ(ds.bcp_sequence, 0);
  EXPECT_NE(list_dir("/tmp/150")[0].find("-65535-WA_TEST_1-0.bcp"), std::string::npos);
  struct stat st;
  ASSERT_EQ(stat("/tmp/150", &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0700u);
}

// A full file system: what a file holds is whole lines, each counted as
// written, and every other record is counted as refused; writing resumes
// once there is room again.
TEST_F(BcpWriter, FullFileSystemKeepsWholeLinesAndCountsTheRest) {
  group_archive_cycle(&test_group);
  finish_commands();
  bcp_dataset &ds = test_group.datasets[1];
  ASSERT_EQ(mount("qzfull", "/tmp/150", "tmpfs", 0, "size=64k,mode=0700"), 0);
  const uint64_t records = ds.records, refused = ds.refused;
  const uint64_t errors = test_group.uploads.write_errors;
  const uint16_t sequence = ds.bcp_sequence;
  const std::string line = std::string(99, 'r') + "\n";
  int failed = 0;
  const int sent = 2000;
  for (int i = 0; i < sent; i++)
    failed += bcp_write_line(&ds, line.c_str(), line.size());
  bcp_close_open_files(&test_group);
  // Writing went on in the one file: no sequence number spent on a file
  // that never reaches the platform.
  EXPECT_EQ(test_group.bcp_file_count, 1);
  EXPECT_EQ(ds.bcp_sequence, static_cast<uint16_t>(sequence + 1));
  uint64_t listed = 0;
  for (int i = 0; i < test_group.bcp_file_count; i++) {
    const bcp_file_entry &e = test_group.bcp_file_list[i];
    const std::string text = read_file("/tmp/150/" + std::string(e.file_name));
    EXPECT_EQ(text.size(), e.record_count * line.size()) << e.file_name;
    listed += e.record_count;
  }
  EXPECT_GT(failed, 0);
  EXPECT_GT(listed, 0u);
  EXPECT_EQ(ds.records - records, listed);
  EXPECT_EQ(ds.records - records + ds.refused - refused, static_cast<uint64_t>(sent));
  EXPECT_GT(test_group.uploads.write_errors, errors);
  // One line per dataset and tick, with what was lost since the last.
  debug_mode_on();
  {
    output_capture err(STDERR_FILENO);
    bcp_tick();
    bcp_tick();
    const std::string text = err.text();
    const std::string want = "ERROR:WA_TEST_1: " + std::to_string(ds.refused - refused) +
                             " records not written since the last report: No space left on device\n";
    EXPECT_NE(text.find(want), std::string::npos) << text;
    EXPECT_EQ(text.find("ERROR:", text.find(want) + 1), std::string::npos) << text;
  }
  // Room again: the next record is written.
  ASSERT_EQ(umount2("/tmp/150", MNT_DETACH), 0);
  test_group.bcp_file_count = 0;
  EXPECT_EQ(bcp_write_line(&ds, line.c_str(), line.size()), 0);
  bcp_close_open_files(&test_group);
  EXPECT_EQ(test_group.bcp_file_count, 1);
}

// A quarter of the file system is the most a cycle may spool: reaching it
// asks the loop for an early archive. An open file whose directory was
// removed is counted as lost at the next tick, and the directory made again.
TEST_F(BcpWriter, ByteBoundAndRemovedDirectory) {
  group_archive_cycle(&test_group);
  finish_commands();
  bcp_dataset &ds = test_group.datasets[1];
  ASSERT_EQ(mount("qzbound", "/tmp/150", "tmpfs", 0, "size=64k,mode=0700"), 0);
  bcp_spool_bound_update(&test_group);
  EXPECT_EQ(test_group.spool_bound, 16384u);
  const std::string line = std::string(99, 'b') + "\n";
  int written = 0;
  while (!bcp_archive_pending() && written < 1000) {
    ASSERT_EQ(bcp_write_line(&ds, line.c_str(), line.size()), 0);
    written++;
  }
  EXPECT_EQ(written, 164);
  bcp_close_open_files(&test_group);
  ASSERT_EQ(umount2("/tmp/150", MNT_DETACH), 0);
  test_group.archive_due = false;
  test_group.bcp_file_count = 0;
  test_group.spool_bytes = 0;
  test_group.spool_bound = BCP_SPOOL_MAX_BYTES;

  const uint64_t records = ds.records, refused = ds.refused;
  ASSERT_EQ(write_x(), 0);
  ASSERT_EQ(write_x(), 0);
  ASSERT_EQ(system("rm -rf /tmp/150"), 0);
  debug_mode_on();
  output_capture err(STDERR_FILENO);
  bcp_tick();
  EXPECT_EQ(ds.records, records);
  EXPECT_EQ(ds.refused, refused + 2);
  EXPECT_NE(err.text().find("WARN:/tmp/150 had gone: made again\n"), std::string::npos);
  EXPECT_NE(err.text().find("ERROR:WA_TEST_1: 2 records not written since the last report"),
            std::string::npos);
  ASSERT_EQ(write_x(), 0);
  EXPECT_EQ(list_dir("/tmp/150").size(), 1u);
}

TEST_F(BcpWriter, MoreThan256FilesInOneCycleAreAllIndexed) {
  // From an empty cycle, whatever ran before in this process.
  group_archive_cycle(&test_group);
  finish_commands();
  test_group.datasets[1].bcp_sequence = 0;
  // Capture every index as the archive step zips it.
  std::vector<std::string> indexes;
  bool writing = false;
  run.on_command = [&](const std::string &cmd) {
    // The loop archives between records, never inside one.
    EXPECT_FALSE(writing) << cmd;
    if (cmd.find("zip -m") != std::string::npos)
      indexes.push_back(read_file("/tmp/150/GAB_ZIP_INDEX.xml"));
  };
  const int files = 300;
  for (int i = 0; i < files * BCP_MAX_RECORDS; i++) {
    writing = true;
    write_x();
    writing = false;
    if (bcp_archive_pending()) {
      archive_run_due();
      finish_commands();
    }
  }
  ASSERT_EQ(indexes.size(), 1u);  // one early archive, before the list could wrap
  EXPECT_EQ(test_group.bcp_file_count, files - 249);
  // Everything listed since is archived by the next regular cycle.
  group_archive_cycle(&test_group);
  finish_commands();
  ASSERT_EQ(indexes.size(), 2u);
  int blocks = 0;
  for (int seq = 0; seq < files; seq++) {
    char name[64];
    snprintf(name, sizeof(name), "-%05d-WA_TEST_1-0.bcp5000", seq);
    const std::string &index = seq < 249 ? indexes[0] : indexes[1];
    blocks += index.find(name) != std::string::npos;
  }
  EXPECT_EQ(blocks, files);
}

void put_empty(bcp_line &) {}
void put_fixed(bcp_line &l) { l.put("f"); }
void put_huge(bcp_line &l) { l.put(std::string(5000, 'h')); }

TEST(BcpLine, FieldsEndInTabsAndTheLastInALineFeed) {
  const bcp_column<text_record> cols[] = {{{"K1", "E1", "C1"}, put_value},
                             {{"K2", "E2", "C2"}, put_empty},
                             {{"K3", "E3", "C3"}, put_fixed},
                             {{"K4", "E4", "C4"}, put_value},
                             {{"K5", "E5", "C5"}, put_empty}};
  load_test_config();
  bcp_line_plan plan;
  bcp_line line;
  ASSERT_TRUE(bcp_build_line(line, plan, cols, 5, text_record{"v"}));
  EXPECT_STREQ(line.c_str(), "v\t\tf\tv\t\n");
  // The fixed runs between per-record values are kept, separators included.
  ASSERT_EQ(plan.pieces.size(), 4u);
  EXPECT_EQ(plan.text, "\t\tf\t\t\n");
  bcp_line again;
  ASSERT_TRUE(bcp_build_line(again, plan, cols, 5, text_record{"w"}));
  EXPECT_STREQ(again.c_str(), "w\t\tf\tw\t\n");
}

TEST(BcpLine, LinesLongerThanTheBufferAreRefusedWhole) {
  const bcp_column<text_record> cols[] = {{{"K1", "E1", "C1"}, put_value}, {{"K2", "E2", "C2"}, put_value}};
  load_test_config();
  bcp_line_plan plan;
  for (size_t size : {2048, 4095, 4096, 10000}) {
    const std::string big(size, 'x');
    bcp_line line;
    EXPECT_FALSE(bcp_build_line(line, plan, cols, 2, text_record{big.c_str()})) << size;
    EXPECT_LT(line.size(), BCP_LINE_SIZE);
  }
  const std::string fits(2046, 'y');
  bcp_line line;
  EXPECT_TRUE(bcp_build_line(line, plan, cols, 2, text_record{fits.c_str()}));
  EXPECT_EQ(line.size(), 4094u);
  const std::string one_more(2047, 'y');
  bcp_line longer;
  EXPECT_FALSE(bcp_build_line(longer, plan, cols, 2, text_record{one_more.c_str()}));
  // A value fixed for the run (a configuration value) that alone overflows
  // refuses every line, rather than leaving its field empty.
  const bcp_column<text_record> with_fixed[] = {{{"K1", "E1", "C1"}, put_value},
                                   {{"K2", "E2", "C2"}, put_huge}};
  bcp_line_plan fixed_plan;
  bcp_line refused;
  EXPECT_FALSE(bcp_build_line(refused, fixed_plan, with_fixed, 2, text_record{"v"}));
}

}  // namespace
