// Datasets declared as data: one column table per dataset gives both its
// record line and its index template.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "config/config.h"
#include "frame/log.h"
#include "output/bcp_dataset.h"

constexpr size_t BCP_LINE_SIZE = 4096;

// A record line under construction in a fixed 4096-byte buffer. A line that
// would not fit is refused and its record dropped whole, rather than written
// cut (a cut line would lose its line feed and run into the next record).
// Values are not scanned here: every text that reaches a record is checked
// where it enters the daemon (configuration at load, MACs, tokens and
// status lines on receipt), so none holds a tab or line break.
class bcp_line {
 public:
  bcp_line() { buf_[0] = '\0'; }
  void put(std::string_view text);
  // Numbers in decimal, as "%llu" and "%lld" would print them.
  void put_decimal(unsigned long long value);
  void put_signed(long long value);
  bool ok() const { return ok_; }
  const char *c_str() const { return buf_; }
  size_t size() const { return len_; }

 private:
  // Only the terminator is kept set: clearing all 4096 bytes per record
  // would cost more than building the line.
  char buf_[BCP_LINE_SIZE];
  size_t len_ = 0;
  bool ok_ = true;
};

struct bcp_column_text {
  std::string_view key, eng, chn;
};

// Writes a value that depends only on the configuration and constants.
using bcp_fixed_fn = void (*)(bcp_line &line);

// A column whose value is the same for every record of the run; runs of
// these are shared by datasets of any context.
struct bcp_fixed_column {
  bcp_column_text text;
  bcp_fixed_fn fixed;
};

// One column of a dataset whose records are built from a Ctx: its index
// texts and how its value is written, either fixed for the run or read
// from each record's context.
template <typename Ctx>
struct bcp_column {
  using value_fn = void (*)(bcp_line &line, const Ctx &ctx);
  constexpr bcp_column() = default;
  constexpr bcp_column(bcp_column_text t, bcp_fixed_fn f) : text(t), fixed(f) {}
  constexpr bcp_column(bcp_column_text t, value_fn v) : text(t), value(v) {}
  // A shared fixed column taken into a table.
  constexpr bcp_column(const bcp_fixed_column &c) : text(c.text), fixed(c.fixed) {}
  bcp_column_text text{};
  bcp_fixed_fn fixed = nullptr;
  value_fn value = nullptr;
};

// The context of a dataset whose columns are all fixed.
struct bcp_fixed_record {};

// Joins column lists (arrays of bcp_column<Ctx> or bcp_fixed_column) into
// one table at compile time, for datasets that share runs of columns.
template <typename Ctx, typename... Lists>
constexpr auto bcp_join(const Lists &...lists) {
  std::array<bcp_column<Ctx>, (std::extent_v<Lists> + ...)> table{};
  size_t k = 0;
  auto append = [&table, &k](const auto &list) {
    for (const auto &c : list)
      table[k++] = bcp_column<Ctx>(c);
  };
  (append(lists), ...);
  return table;
}

// A dataset's line with its fixed columns written once: runs of fixed text
// (separators included) between the per-record columns. Rebuilt when the
// configuration is loaded again.
struct bcp_line_plan {
  struct piece {
    uint32_t offset;  // run of fixed text: where in text, how long
    uint32_t length;
    int column;  // or a per-record column (run fields unused), -1 for a run
  };
  unsigned generation = 0;
  bool fits = true;  // false when a fixed value alone overflows a line
  std::string text;
  std::vector<piece> pieces;
};

// The dataset's plan, made on first use; it lives as long as the dataset.
inline bcp_line_plan &bcp_dataset_plan(bcp_dataset *ds) {
  if (!ds->plan)
    ds->plan = new bcp_line_plan;
  return *ds->plan;
}

// The differences between datasets' index templates.
struct bcp_template_style {
  int sep_tabs;    // tabs after each column item but the last
  int close_tabs;  // tabs after the last item; the closing runs have one and two fewer
};
constexpr bcp_template_style BCP_STYLE_PLAIN = {7, 6};
constexpr bcp_template_style BCP_STYLE_WIDE_CLOSE = {7, 7};

// The index block template for a list of column texts: the common head
// with its six conversions, then the column description. The text lives as
// long as the process.
const char *bcp_make_template(const bcp_column_text *texts, size_t count, bcp_template_style style);
template <typename Table>
const char *bcp_make_template(const Table &cols, bcp_template_style style) {
  std::vector<bcp_column_text> texts;
  for (const auto &c : cols)
    texts.push_back(c.text);
  return bcp_make_template(texts.data(), texts.size(), style);
}

// Renders the fixed columns (fixed[i], null for a per-record column) into
// the plan's runs, for the current configuration.
void bcp_plan_make(bcp_line_plan &plan, const bcp_fixed_fn *fixed, size_t count);

// Writes every column's value, each followed by a tab, the last by a line
// feed, through the plan of the columns (made again after each
// configuration load). False when the line does not fit.
template <typename Ctx>
bool bcp_build_line(bcp_line &line, bcp_line_plan &plan, const bcp_column<Ctx> *cols, size_t count,
                    const Ctx &ctx) {
  if (plan.generation != qz2fh_config_generation()) {
    std::vector<bcp_fixed_fn> fixed;
    for (size_t i = 0; i < count; i++)
      fixed.push_back(cols[i].fixed);
    bcp_plan_make(plan, fixed.data(), count);
  }
  if (!plan.fits)
    return false;
  for (const bcp_line_plan::piece &p : plan.pieces) {
    if (p.column < 0)
      line.put(std::string_view(plan.text.data() + p.offset, p.length));
    else
      cols[p.column].value(line, ctx);
  }
  return line.ok();
}

// Logs under func that a record of ds did not fit a line, and counts it.
// Returns 1.
int bcp_line_refused(const char *func, bcp_dataset *ds);

// Builds the dataset's record from ctx through its column table, logs it
// under func as "<group tag>-<dataset code>:<line>" and appends it by the
// writing frame. 1 when the line was refused or no file could be opened.
template <typename Ctx, typename Table>
int bcp_emit(const char *func, bcp_dataset *ds, const Table &cols, const Ctx &ctx) {
  bcp_line line;
  if (!bcp_build_line(line, bcp_dataset_plan(ds), std::data(cols), std::size(cols), ctx))
    return bcp_line_refused(func, ds);
  log_msg_as(func, DEBUG, "%s-%s:%s\n", ds->group->log_tag, ds->name, line.c_str());
  return bcp_write_line(ds, line.c_str(), line.size());
}
