#include "output/archive.h"

#include <cstring>
#include <ctime>

#include "config/config.h"
#include "frame/log.h"
#include "output/spool.h"

constexpr char BCP_INDEX_HEADER[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<MESSAGE>\t\n"
    "\t<DATASET name=\"WA_COMMON_010017\" ver=\"1.0\" rmk=\"数据文件索引信息\">\t\t\n"
    "\t\t<DATA>\t\t\t\n"
    "\t\t\t<DATASET name=\"WA_COMMON_010013\" rmk=\"BCP文件描述信息\">";
constexpr char BCP_INDEX_FOOTER[] =
    "\n\t\t\t</DATASET>\t\t\n\t\t</DATA>\t\n\t</DATASET>\n</MESSAGE>";
static_assert(sizeof(BCP_INDEX_HEADER) - 1 == 204, "index header is 204 bytes");
static_assert(sizeof(BCP_INDEX_FOOTER) - 1 == 50, "index footer is 50 bytes");

namespace {

void close_open_files(bcp_group *g) {
  for (bcp_dataset &ds : g->datasets) {
    if (!ds.fp)
      continue;
    bcp_file_list_add(&ds);
    fclose(ds.fp);
    ds.fp = nullptr;
    ds.record_count = 0;
  }
}

bool write_index(bcp_group *g) {
  char index_path[SPOOL_PATH_SIZE];
  snprintf(index_path, sizeof(index_path), "%s/%s", g->spool.path, "GAB_ZIP_INDEX.xml");
  FILE *fp = fopen(index_path, "a+e");
  if (!fp)
    return false;
  fputs(BCP_INDEX_HEADER, fp);
  const char *org_code = qz2fh_get_org_code();
  const char *source = qz2fh_get_source_str();
  for (int i = 0; i < g->bcp_file_count; i++) {
    const bcp_file_entry &e = g->bcp_file_list[i];
    // The template is built at start-up with exactly these six conversions.
    fprintf(fp, e.index_template, e.name, static_cast<int>(g->id), org_code, source, e.file_name,
            static_cast<int>(e.record_count));
  }
  fputs(BCP_INDEX_FOOTER, fp);
  fclose(fp);
  return true;
}

}  // namespace

void group_archive_cycle(bcp_group *g) {
  close_open_files(g);
  if (g->bcp_file_count != 0) {
    if (write_index(g)) {
      bcp_group_state &st = g->state;
      const int sequence = st.zip_sequence++;
      const unsigned long long now = static_cast<unsigned long long>(time(nullptr));
      snprintf(st.zip_name, sizeof(st.zip_name), "%d-%s-%s-%s-%llu-%05d.zip",
               static_cast<int>(g->id), qz2fh_get_org_code(), qz2fh_get_source_str(),
               qz2fh_get_dst_str(), now, sequence);
      qz2fh_form_zip_file(g);
      qz2fh_send_zip_file(g);
      log_msg_as(g->cycle_name, DEBUG, "form zip file :%s\n", st.zip_name);
    }
    qz2fh_delete_dir_file(g->spool);
  }
  g->bcp_file_count = 0;
}
