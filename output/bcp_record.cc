#include <cstring>
#include <deque>

#include "output/bcp_record.h"

#include "config/config.h"
#include "frame/log.h"

void bcp_line::put(std::string_view text) {
  if (len_ + text.size() >= sizeof(buf_)) {
    ok_ = false;
    return;
  }
  memcpy(buf_ + len_, text.data(), text.size());
  len_ += text.size();
  buf_[len_] = '\0';
}

void bcp_line::put_decimal(unsigned long long value) {
  char digits[20];
  char *p = digits + sizeof(digits);
  do {
    *--p = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value);
  const size_t n = static_cast<size_t>(digits + sizeof(digits) - p);
  if (len_ + n >= sizeof(buf_)) {
    ok_ = false;
    return;
  }
  memcpy(buf_ + len_, p, n);
  len_ += n;
  buf_[len_] = '\0';
}

void bcp_line::put_signed(long long value) {
  if (value < 0) {
    put("-");
    put_decimal(0ULL - static_cast<unsigned long long>(value));
  } else {
    put_decimal(static_cast<unsigned long long>(value));
  }
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

void bcp_plan_make(bcp_line_plan &plan, const bcp_fixed_fn *fixed, size_t count) {
  plan.text.clear();
  plan.pieces.clear();
  plan.fits = true;
  size_t run_start = 0;
  auto end_run = [&plan, &run_start]() {
    if (plan.text.size() > run_start)
      plan.pieces.push_back({static_cast<uint32_t>(run_start),
                             static_cast<uint32_t>(plan.text.size() - run_start), -1});
    run_start = plan.text.size();
  };
  for (size_t i = 0; i < count; i++) {
    if (fixed[i]) {
      bcp_line value;
      fixed[i](value);
      plan.fits = plan.fits && value.ok();
      plan.text.append(value.c_str(), value.size());
    } else {
      end_run();
      plan.pieces.push_back({0, 0, static_cast<int>(i)});
    }
    plan.text += i + 1 == count ? '\n' : '\t';
  }
  end_run();
  plan.generation = qz2fh_config_generation();
}

int bcp_line_refused(const char *func, bcp_dataset *ds) {
  log_msg_as(func, ERROR, "%s record refused: longer than %d bytes\n", ds->name,
             static_cast<int>(BCP_LINE_SIZE) - 1);
  ds->refused++;
  return 1;
}

const char *bcp_make_template(const bcp_column_text *texts, size_t count,
                              bcp_template_style style) {
  static std::deque<std::string> templates;  // stable addresses for the process's life
  std::string t = TEMPLATE_HEAD;
  for (size_t i = 0; i < count; i++) {
    if (i > 0)
      t.append(style.sep_tabs, '\t').append("\n\t\t\t\t\t\t\t");
    t += "<ITEM key=\"";
    append_escaped(t, texts[i].key);
    t += "\" eng=\"";
    append_escaped(t, texts[i].eng);
    t += "\" chn=\"";
    append_escaped(t, texts[i].chn);
    t += "\"/>";
  }
  t.append(style.close_tabs, '\t').append("\n\t\t\t\t\t\t</DATA>");
  t.append(style.close_tabs - 1, '\t').append("\n\t\t\t\t\t</DATASET>");
  t.append(style.close_tabs - 2, '\t').append("\n\t\t\t\t</DATA>");
  templates.push_back(std::move(t));
  return templates.back().c_str();
}
