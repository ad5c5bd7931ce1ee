#include <cstdarg>
#include <cstring>
#include <deque>

#include "output/bcp_record.h"

void bcp_line::put(std::string_view text) {
  if (text.find_first_of("\t\n\r") != std::string_view::npos) {
    ok_ = false;
    return;
  }
  if (len_ + text.size() >= sizeof(buf_)) {
    ok_ = false;
    return;
  }
  memcpy(buf_ + len_, text.data(), text.size());
  len_ += text.size();
  buf_[len_] = '\0';
}

void bcp_line::putf(const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  const size_t room = sizeof(buf_) - len_;
  int n = vsnprintf(buf_ + len_, room, format, ap);
  va_end(ap);
  if (n < 0 || static_cast<size_t>(n) >= room) {
    ok_ = false;
    buf_[len_] = '\0';
    return;
  }
  len_ += static_cast<size_t>(n);
}

void bcp_line::end_field(bool last) {
  fields_++;
  if (len_ + 1 >= sizeof(buf_)) {
    ok_ = false;
    return;
  }
  buf_[len_++] = last ? '\n' : '\t';
  buf_[len_] = '\0';
}

namespace {

// The head shared by every dataset's block: dataset code, data source,
// vendor code, source area, file name and record count.
constexpr char TEMPLATE_HEAD[] =
    "\n\t\t\t\t<DATA>\t\t\t\t\t\n"
    "\t\t\t\t\t<ITEM key=\"A010004\" val=\"%s\" rmk=\"数据集代码\"/>\t\t\t\t\t\n"
    "\t\t\t\t\t<ITEM key=\"B050016\" val=\"%d\" rmk=\"数据来源\"/>\t\t\t\t\t\n"
    "\t\t\t\t\t<ITEM key=\"G020013\" val=\"%s\" rmk=\"网安专用产品厂家组织机构代码\"/>\t\t\t\t\t\n"
    "\t\t\t\t\t<ITEM key=\"F010008\" val=\"%s\" rmk=\"数据采集地\"/>\t\t\t\t\t\n"
    "\t\t\t\t\t<DATASET name=\"WA_COMMON_010014\" rmk=\"BCP数据文件信息\">\t\t\t\t\t\t\n"
    "\t\t\t\t\t\t<DATA>\t\t\t\t\t\t\t\n"
    "\t\t\t\t\t\t\t<ITEM key=\"H040003\" val=\"\" rmk=\"文件路径\"/>\t\t\t\t\t\t\t\n"
    "\t\t\t\t\t\t\t<ITEM key=\"H010020\" val=\"%s\" rmk=\"文件名\"/>\t\t\t\t\t\t\t\n"
    "\t\t\t\t\t\t\t<ITEM key=\"I010034\" val=\"%d\" rmk=\"记录行数\"/>\t\t\t\t\t\t\n"
    "\t\t\t\t\t\t</DATA>\t\t\t\t\t\n"
    "\t\t\t\t\t</DATASET>\t\t\t\t\t\n"
    "\t\t\t\t\t"
    "<DATASET name=\"WA_COMMON_010015\" rmk=\"BCP文件数据结构\">\t\t\t\t\t\t\n"
    "\t\t\t\t\t\t<DATA>\t\t\t\t\t\t\t\n"
    "\t\t\t\t\t\t\t";

// Column texts are fixed ASCII and Chinese words; a "%" would be taken as
// a conversion when the template is filled.
void append_escaped(std::string &out, std::string_view text) {
  for (char c : text) {
    out += c;
    if (c == '%')
      out += '%';
  }
}

}  // namespace

bool bcp_build_line(bcp_line &line, const bcp_column *cols, size_t count, const void *ctx) {
  for (size_t i = 0; i < count; i++) {
    cols[i].value(line, ctx);
    line.end_field(i + 1 == count);
  }
  return line.ok() && line.fields() == static_cast<int>(count);
}

void bcp_periodic_dataset_init(bcp_dataset *ds, const char *name, const bcp_column *cols,
                               size_t count, bcp_template_style style, bcp_business_handler handler,
                               report_timer *timer, void (*timer_handler)(void *)) {
  bcp_dataset_init(ds, name, bcp_make_template(cols, count, style), handler);
  report_timer_init(timer, timer_handler, REPORT_COUNTDOWN_SECONDS);
  report_timer_add(timer);
}

int bcp_emit(const char *func, bcp_dataset *ds, const bcp_column *cols, size_t count,
             const void *ctx) {
  bcp_line line;
  if (!bcp_build_line(line, cols, count, ctx)) {
    log_msg_as(func, ERROR,
               "%s record refused: longer than %d bytes or a value holds a tab or line break\n",
               ds->name, static_cast<int>(BCP_LINE_SIZE) - 1);
    return 1;
  }
  log_msg_as(func, DEBUG, "%s-%s:%s\n", ds->group->log_tag, ds->name, line.c_str());
  return bcp_write_line(ds, line.c_str(), line.size());
}

const char *bcp_make_template(const bcp_column *cols, size_t count, bcp_template_style style) {
  static std::deque<std::string> templates;  // stable addresses for the process's life
  std::string t = TEMPLATE_HEAD;
  for (size_t i = 0; i < count; i++) {
    if (i > 0)
      t.append(style.sep_tabs, '\t').append("\n\t\t\t\t\t\t\t");
    t += "<ITEM key=\"";
    append_escaped(t, cols[i].text.key);
    t += "\" eng=\"";
    append_escaped(t, cols[i].text.eng);
    t += "\" chn=\"";
    append_escaped(t, cols[i].text.chn);
    t += "\"/>";
  }
  t.append(style.close_tabs, '\t').append("\n\t\t\t\t\t\t</DATA>");
  t.append(style.close_tabs - 1, '\t').append("\n\t\t\t\t\t</DATASET>");
  t.append(style.close_tabs - 2, '\t').append("\n\t\t\t\t</DATA>");
  templates.push_back(std::move(t));
  return templates.back().c_str();
}
